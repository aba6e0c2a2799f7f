#include "ui/QmlCallbacks.h"

#include <memory>
#include <stdexcept>

#include <QJSEngine>
#include <QPointer>

#include <QCoro/QCoroSignal>

namespace orvik::ui {

void ThenableSettler::resolve(const QJSValue& result) {
    if (done) {
        return;
    }
    done = true;
    fulfilled = true;
    value = result;
    Q_EMIT settled(result);
}

void ThenableSettler::reject(const QJSValue& reason) {
    if (done) {
        return;
    }
    done = true;
    value = reason;
    Q_EMIT settled(reason);
}

namespace {

[[noreturn]] void throwJsError(const QJSValue& error) {
    throw std::runtime_error(error.toString().toStdString());
}

}  // namespace

QCoro::Task<QJSValue> callAndSettle(QJSEngine* engine, QJSValue fn, QJSValueList args,
                                    QJSValue self) {
    if (!fn.isCallable()) {
        throw std::runtime_error("not a function");
    }
    QJSValue result = self.isObject() ? fn.callWithInstance(self, args) : fn.call(args);
    if (result.isError()) {
        throwJsError(result);
    }
    const QJSValue then = result.isObject() ? result.property(QString::fromLatin1("then")) : QJSValue();
    if (!then.isCallable()) {
        co_return result;
    }
    if (engine == nullptr) {
        throw std::runtime_error("no JavaScript engine to wait for the answer");
    }
    auto settler = std::make_unique<ThenableSettler>();
    QJSEngine::setObjectOwnership(settler.get(), QJSEngine::CppOwnership);
    const QJSValue handle = engine->newQObject(settler.get());
    const QJSValue chained = then.callWithInstance(
        result,
        {handle.property(QString::fromLatin1("resolve")), handle.property(QString::fromLatin1("reject"))});
    if (chained.isError()) {
        throwJsError(chained);
    }
    // A thenable may settle synchronously inside then().
    if (!settler->done) {
        co_await qCoro(settler.get(), &ThenableSettler::settled);
    }
    if (!settler->fulfilled) {
        throwJsError(settler->value);
    }
    co_return settler->value;
}

}  // namespace orvik::ui
