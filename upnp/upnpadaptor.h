#ifndef UPNPADAPTOR_H
#define UPNPADAPTOR_H

#include "socketadaptor.h"

#include <QByteArray>
#include <QDir>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QUuid>

#include <memory>

class QEventLoop;
class QProcess;
class SocketInterface;
class UpnpCoordinator;

// The daemon's module object, reached by the other backend processes as the
// RPC service "com.zan.ravo.upnp". It follows the supervisor's run stages,
// connects to the system service for network events and to the
// configuration database, owns the SSDP coordinator, and keeps the device
// description, the Avahi service file and the SSDP config id in step with
// the device's name, serial number and brand.
class CUpnpAdaptor : public SocketAdaptorWithPing
{
    Q_OBJECT

public:
    explicit CUpnpAdaptor(QObject* parent = nullptr);
    ~CUpnpAdaptor() override;

    QString getModuleName() override;

    // The UUID for a MAC address text: the six bytes in a fixed, scrambled
    // layout (no version or variant bits), so the same MAC always gives the
    // same UUID. Random, with a warning, when the text is empty.
    static QUuid makeDeviceUuid(const QString& macAddress);

    // Fills the description template (avahi: the service file's) with the
    // escaped name, UDN and serial number and writes it to outputPath.
    void setupDescriptionFile(bool avahi, const QString& outputPath);
    // Rewrites the service file and restarts Avahi; refused while the name is
    // empty. Never waits: a restart runs beside the event loop, and a restart
    // asked for while one runs, or in the pause after it that lets Avahi
    // publish, follows once that pause is over.
    void restartAvahi();
    bool isAvahiRestartPending() const;
    void createCoordinator();

    const QUuid& uuid() const { return deviceUuid; }
    quint32 configId() const { return config; }
    UpnpCoordinator* coordinator() const { return upnpCoordinator.get(); }

public slots:
    void run(int stage);
    void quit();
    void networkEvent(int code, QByteArray serConfig, int link);
    QString exportProfilerStatistics(int sortColumn);
    void configValueChanged(QString key, QString value, bool moreToCome);

private:
    void updateFiles();
    // Avahi withdraws and re-announces all of the controller's records on
    // every restart: changes that come together cost one. A batch restarts
    // at its last pair; changes without one, and interfaces coming up, a
    // second after the last of them.
    void scheduleAvahiRestart(bool batchComplete);
    void waitForDatabase();
    void onAvahiRestartFinished();

    QString name;
    QString serialNumber;
    bool zanBrand = false;
    bool igmpQuerier = true;
    QDir templateDir;
    QUuid deviceUuid;
    QString descriptionFilePath;
    QString serviceFilePath;
    quint32 config = 0;
    std::unique_ptr<SocketInterface> systemClient;
    std::unique_ptr<UpnpCoordinator> upnpCoordinator;
    QSet<QString> pendingInterfaces;
    bool coordinatorWaiting = false;
    bool webRootWarned = false;
    // Tuning for development and tests, from the daemon's own settings.
    int rescanInterval;
    int avahiRestartPause;
    QTimer avahiRestartTimer;
    QProcess* avahiRestart = nullptr;
    QTimer avahiPauseTimer;
    bool avahiRestartWanted = false;
    QString cutAvahiName; // the last name cut to Avahi's length, warned about once
    bool quitRequested = false;
    QEventLoop* databaseWait = nullptr; // stage 3's wait while it runs
};

#endif // UPNPADAPTOR_H
