// Runs the screen tests (tst_*.qml) offscreen, with the Orvik.Identity module of
// this build and the store fixtures as the context property `fixtures`.
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickStyle>
#include <QtQuickTest>

#include "ScreenFixtures.h"

class ScreenTestSetup : public QObject {
    Q_OBJECT

  public:
    ScreenTestSetup() { QQuickStyle::setStyle(QStringLiteral("Fusion")); }

  public Q_SLOTS:
    void qmlEngineAvailable(QQmlEngine* engine) {
        engine->addImportPath(QStringLiteral(ORVIK_QML_IMPORT_DIR));
        engine->rootContext()->setContextProperty(QStringLiteral("fixtures"),
                                                  new ScreenFixtures(engine));
    }
};

QUICK_TEST_MAIN_WITH_SETUP(identity_screens, ScreenTestSetup)

#include "main.moc"
