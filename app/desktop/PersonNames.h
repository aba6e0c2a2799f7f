// Display names of persons, for the screens that are handed a person identifier
// alone (--person ID): the scope line of the manual-link screen, the window title
// and the history sheet. Each look-up reads the store on a worker thread through its
// own short-lived connection, so the main thread never waits for it.
#pragma once

#include <QObject>
#include <QString>

class PersonNames : public QObject {
    Q_OBJECT

  public:
    // The store to read, as the IdentityStore of the window opens it.
    PersonNames(QString path, QString key, QObject* parent = nullptr);

    // Starts reading the person's display name; found(personID, name) follows on the
    // main thread, with name null when the person has none, does not exist or the
    // store cannot be read (the screens then say "this person").
    Q_INVOKABLE void lookUp(const QString& personID);

  Q_SIGNALS:
    void found(const QString& personID, const QVariant& name);

  private:
    QString path_;
    QString key_;
};
