// orvik-identity-desktop: the identity-correction screens as a desktop application.
//
//     orvik-identity-desktop --db PATH [--key KEY]
//         opens the window over an existing store
//     orvik-identity-desktop --db PATH [--key KEY] --screenshot FILE
//                            --screen candidates|manual-link|history|window [--person ID]
//         renders one screen of the store offscreen to a PNG and exits
//
// The store is opened by the Orvik.Identity QML module (IdentityStore); this program
// only finds the module, picks the style and, for screenshots, waits until the
// screen has loaded before it grabs the frame.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <QDir>
#include <QEventLoop>
#include <QGuiApplication>
#include <QImage>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QTimer>
#include <QUrl>

#include "app/StoreAccess.h"
#include "app/desktop/PersonNames.h"
#include "app/desktop/Providers.h"

namespace {

constexpr const char* kDesktopProgramName = "orvik-identity-desktop";

struct Options {
    orvik::app::StoreArguments store;
    std::string screenshot;
    std::string screen;
    std::string personID;
    // The passphrase as --key, --key-file, --ask-key or the environment gave it;
    // empty for a plain store.
    std::string key;
};

int fail(const std::string& message) {
    std::cerr << kDesktopProgramName << ": " << message << '\n';
    return 1;
}

// The size a screenshot of each screen is rendered at, in device-independent pixels
// (the offscreen platform renders at a device pixel ratio of 1).
QSize screenshotSize(const std::string& screen) {
    if (screen == "manual-link") {
        return {720, 760};
    }
    if (screen == "history") {
        return {560, 420};
    }
    if (screen == "window") {
        return {1120, 760};
    }
    return {720, 560};
}

void addModuleImportPaths(QQmlApplicationEngine& engine) {
    // The module sits in <build>/qml, two levels above <build>/app/desktop, and in
    // <prefix>/lib/qml next to <prefix>/bin once installed. Qt's own QML directory
    // is searched anyway.
    const QDir programDir(QCoreApplication::applicationDirPath());
    for (const char* relative : {"../../qml", "../lib/qml"}) {
        const QString candidate = QDir::cleanPath(programDir.filePath(QString::fromUtf8(relative)));
        if (QDir(candidate + "/Orvik/Identity").exists()) {
            engine.addImportPath(candidate);
        }
    }
}

int runScreenshot(QQmlApplicationEngine& engine, const Options& options) {
    const QSize size = screenshotSize(options.screen);
    const bool wholeWindow = options.screen == "window";
    QVariantMap properties{
        {"dbPath", QString::fromStdString(options.store.db)},
        {"dbKey", QString::fromStdString(options.key)},
        {"width", size.width()},
        {"height", size.height()},
    };
    if (wholeWindow) {
        properties.insert("initialPersonID", QString::fromStdString(options.personID));
    } else {
        properties.insert("screen", QString::fromStdString(options.screen));
        properties.insert("personID", QString::fromStdString(options.personID));
    }
    engine.setInitialProperties(properties);
    engine.load(QUrl(wholeWindow ? QStringLiteral("qrc:/orvik/desktop/Main.qml")
                                 : QStringLiteral("qrc:/orvik/desktop/ScreenshotWindow.qml")));
    if (engine.rootObjects().isEmpty()) {
        return fail("cannot load the screens (is the Orvik.Identity module built?)");
    }
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().constFirst());
    if (window == nullptr) {
        return fail("the screenshot window is not a window");
    }

    // The window says when its controllers have finished loading (ready) or why they
    // could not (failure); a store that never answers ends the wait after a minute.
    QEventLoop loop;
    QObject::connect(window, SIGNAL(readyChanged()), &loop, SLOT(quit()));
    QObject::connect(window, SIGNAL(failureChanged()), &loop, SLOT(quit()));
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    if (!window->property("ready").toBool() && window->property("failure").toString().isEmpty()) {
        loop.exec();
    }
    const QString failure = window->property("failure").toString();
    if (!failure.isEmpty()) {
        return fail(failure.toStdString());
    }
    if (!window->property("ready").toBool()) {
        return fail("the screen did not finish loading within a minute");
    }

    // Let the bindings settle and the last results lay out before grabbing.
    QEventLoop settle;
    QTimer::singleShot(150, &settle, &QEventLoop::quit);
    settle.exec();
    const QImage image = window->grabWindow();
    if (image.isNull()) {
        return fail("cannot render the " + options.screen + " screen");
    }
    if (!image.save(QString::fromStdString(options.screenshot), "PNG")) {
        return fail("cannot write " + options.screenshot);
    }
    std::cout << options.screenshot << '\n';
    return 0;
}

int runWindow(QQmlApplicationEngine& engine, QGuiApplication& app, const Options& options) {
    engine.setInitialProperties({
        {"dbPath", QString::fromStdString(options.store.db)},
        {"dbKey", QString::fromStdString(options.key)},
        {"initialPersonID", QString::fromStdString(options.personID)},
    });
    engine.load(QUrl(QStringLiteral("qrc:/orvik/desktop/Main.qml")));
    if (engine.rootObjects().isEmpty()) {
        return fail("cannot load the screens (is the Orvik.Identity module built?)");
    }
    return app.exec();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App cli{"The identity-correction screens over an identity store", kDesktopProgramName};
    options.store.addTo(cli);
    auto* screenshot = cli.add_option("--screenshot", options.screenshot,
                                      "Render one screen offscreen to this PNG file and exit");
    cli.add_option("--screen", options.screen,
                   "The screen to render: candidates, manual-link, history, or the whole window")
        ->check(CLI::IsMember({"candidates", "manual-link", "history", "window"}))
        ->needs(screenshot);
    cli.add_option("--person", options.personID,
                   "The person to correct (scopes the manual-link screen; required for history)");
    cli.allow_extras();  // Qt's own options (-platform, -style, ...) pass through
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return cli.exit(error);
    }
    const bool shooting = screenshot->count() > 0;
    if (shooting && options.screen.empty()) {
        return fail("--screenshot needs --screen candidates|manual-link|history");
    }
    if (shooting && options.screen == "history" && options.personID.empty()) {
        return fail("--screen history needs --person ID");
    }
    std::error_code ignored;
    if (!std::filesystem::exists(options.store.db, ignored)) {
        return fail("no database at " + options.store.db +
                    "; create one with `orvik-identity init` or `orvik-identity demo`");
    }

    try {
        options.key = options.store.passphrase().value_or("");
    } catch (const orvik::app::CommandError& error) {
        return fail(error.what());
    }

    if (shooting) {
        // Offscreen and in software, so that a machine without a display or GPU renders
        // the same picture.
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    }
    if (qEnvironmentVariableIsEmpty("QT_QUICK_CONTROLS_STYLE")) {
        // Fusion follows the desktop's palette and font on every Linux desktop.
        QQuickStyle::setStyle(QStringLiteral("Fusion"));
    }
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("Orvik Identities"));
    QGuiApplication::setDesktopFileName(QStringLiteral("orvik-identity-desktop"));

    // Outlives the engine: the screens' bindings read it until the engine is gone.
    Providers providers;
    QQmlApplicationEngine engine;
    addModuleImportPaths(engine);
    PersonNames personNames(QString::fromStdString(options.store.db),
                            QString::fromStdString(options.key));
    engine.rootContext()->setContextProperty(QStringLiteral("personNames"), &personNames);
    engine.rootContext()->setContextProperty(QStringLiteral("providers"), &providers);
    return shooting ? runScreenshot(engine, options) : runWindow(engine, app, options);
}
