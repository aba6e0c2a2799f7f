// Calling JavaScript that the screens hand in: functions that answer with a value
// or with a Promise (any object with a then method).
#pragma once

#include <QJSEngine>
#include <QJSValue>
#include <QJSValueList>
#include <QObject>

#include <QCoro/QCoroTask>

namespace orvik::ui {

// Calls fn with args and waits, without blocking, for its answer: the value it
// returned, or what the thenable it returned settled with. A thrown error or a
// rejection becomes a std::runtime_error carrying the JavaScript error's text.
QCoro::Task<QJSValue> callAndSettle(QJSEngine* engine, QJSValue fn, QJSValueList args,
                                    QJSValue self = {});

// Receives the settlement of one thenable (internal to callAndSettle).
class ThenableSettler : public QObject {
    Q_OBJECT
  public:
    bool done = false;
    bool fulfilled = false;
    QJSValue value;
    Q_INVOKABLE void resolve(const QJSValue& value);
    Q_INVOKABLE void reject(const QJSValue& reason);
  Q_SIGNALS:
    void settled(const QJSValue& value);
};

}  // namespace orvik::ui
