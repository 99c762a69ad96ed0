#include "upnpadaptor.h"

#include "configcache.h"
#include "defaults.h"
#include "logginginterface.h"
#include "networkconfig.h"
#include "profiler.h"
#include "socketinterface.h"
#include "upnpcoordinator.h"
#include "utils.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTextStream>
#include <QThread>
#include <QTimer>
#include <QtEndian>

namespace {

const char* const SystemService = "com.zan.ravo.system";
const char* const DeviceType = "urn:tessaline:device:Quarn:1";
const char* const LocationTemplate = "http://%1:80/quarn.upnp";
const char* const AvahiRestart = "systemctl restart avahi-daemon.service avahi-daemon.socket";

enum NetworkEventCode { InterfaceUp = 3, InterfaceDown = 5 };

} // namespace

CUpnpAdaptor::CUpnpAdaptor(QObject* parent) : SocketAdaptorWithPing(parent)
{
    const QSettings database(QStringLiteral("quarn"), QStringLiteral("database"));
    const QString dataPath = database.value("data/path", "./data").toString();
    templateDir.setPath(database.value("data/constpath", dataPath).toString());
    descriptionFilePath = database.value("upnpConfigFileName", "/tmp/quarn.upnp").toString();
    serviceFilePath = database.value("avahiConfigFileName", "/tmp/tessaline-quarn.service").toString();

    const QSettings own;
    rescanInterval = own.value("timing/rescanInterval", 10000).toInt();
    avahiRestartPause = own.value("timing/avahiRestartPause", 2000).toInt();

    deviceUuid = makeDeviceUuid(Utils::getWlanMacAddress());
    // The files are written when the cache delivers name, serial number and brand.
    connect(ConfigCache::instance(), &ConfigCache::valueChanged, this, &CUpnpAdaptor::configValueChanged);
}

CUpnpAdaptor::~CUpnpAdaptor() = default;

QString CUpnpAdaptor::getModuleName()
{
    return QStringLiteral("com.zan.ravo.upnp");
}

QUuid CUpnpAdaptor::makeDeviceUuid(const QString& macAddress)
{
    if (macAddress.isEmpty()) {
        CLOG_AT(Warning, 48) << "Failed to get wlan mac address, generating random UDN";
        return QUuid::createUuid();
    }
    const QString hex = QString(macAddress).remove(QLatin1Char(':'));
    uchar m[6];
    for (int i = 0; i < 6; ++i)
        m[i] = uchar(hex.mid(2 * i, 2).toUInt(nullptr, 16)); // an invalid pair reads as 0
    return QUuid(uint(m[3]) << 24 | uint(m[2]) << 16 | uint(m[1]) << 8 | m[0], ushort(m[5] << 8 | m[1]),
                 ushort(m[4] << 8 | m[3]), m[0], m[1], m[4], m[3], m[1], m[3], m[2], m[1]);
}

void CUpnpAdaptor::run(int stage)
{
    CLOG_AT(Notice, 168) << "got run signal" << stage;
    if (stage == runStage) {
        CLOG_AT(Warning, 172) << "received same run stage twice" << stage;
        return;
    }
    switch (stage) {
    case 0: {
        const DatabaseSettings settings = readDatabaseSettings();
        systemClient.reset(new SocketInterface(settings.useTcp() ? SocketConnection::TcpSocketType
                                                                 : SocketConnection::LocalSocketType,
                                               SystemService, settings.socketDir));
        if (!systemClient->isValid())
            qFatal("Cannot connect to service com.zan.ravo.system");
        systemClient->connectDynamicSignal("networkEventWithLink(int, QByteArray, int)", this,
                                           "networkEvent(int, QByteArray, int)");
        ConfigCache::instance()->connectToDatabase();
        break;
    }
    case 1: {
        bool known = false;
        const QString value = ConfigCache::instance()->getConfigValue("network/igmpquerier", &known);
        if (known) {
            igmpQuerier = value == QLatin1String("true");
            if (upnpCoordinator)
                upnpCoordinator->setEnableIGMPQuerier(igmpQuerier);
        }
        createCoordinator();
        break;
    }
    case 2:
        systemClient.reset();
        break;
    case 3:
        // Deliberately held here until the database can be reached.
        while (!ConfigCache::instance()->connectToDatabase()) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 500);
            QThread::sleep(1);
        }
        break;
    default:
        break;
    }
    runStage = stage;
    sendHeartbeat();
}

void CUpnpAdaptor::quit()
{
    // On the loop's next turn, not inside the call.
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
}

void CUpnpAdaptor::createCoordinator()
{
    if (upnpCoordinator)
        return;
    const QString trigger = QDir(WWWDir).filePath(QStringLiteral("settings.json"));
    const QFileInfo settingsFile(trigger);
    if (!settingsFile.exists() || settingsFile.size() == 0) {
        // Nothing is advertised before the web front end has written its settings.
        CLOG_AT(Info, 325) << "delaying coordinator creation," << trigger << "does not exist yet";
        if (!coordinatorWaiting) {
            coordinatorWaiting = true;
            QTimer::singleShot(1000, this, [this] {
                coordinatorWaiting = false;
                createCoordinator();
            });
        }
        return;
    }
    UpnpTimings timings;
    timings.rescanInterval = rescanInterval;
    upnpCoordinator.reset(new UpnpCoordinator(deviceUuid.toString(QUuid::WithoutBraces).toLatin1(),
                                              LocationTemplate, igmpQuerier, nullptr, timings));
    upnpCoordinator->addDeviceType(DeviceType);
    upnpCoordinator->setConfigId(config);
    for (const QString& interface : qAsConst(pendingInterfaces))
        upnpCoordinator->addInterface(interface);
}

void CUpnpAdaptor::networkEvent(int code, QByteArray serConfig, int)
{
    bool complete = false;
    const NetworkConfig networkConfig = NetworkConfig::fromByteArray(serConfig, &complete);
    if (!complete) {
        CLOG(Error) << "truncated network configuration of" << QString::number(serConfig.size()) << "bytes";
        return;
    }
    if (networkConfig.state == 0)
        return;
    const QString& interface = networkConfig.interfaceName;
    if (code == InterfaceUp) {
        if (upnpCoordinator)
            upnpCoordinator->addInterface(interface);
        else
            pendingInterfaces.insert(interface);
        restartAvahi();
    } else if (code == InterfaceDown) {
        if (upnpCoordinator)
            upnpCoordinator->removeInterface(interface);
        else
            pendingInterfaces.remove(interface);
    }
}

QString CUpnpAdaptor::exportProfilerStatistics(int sortColumn)
{
    return QStringLiteral("***Exporting profiler statistic for Upnp adaptor***\n") + TheProfiler.statistics(sortColumn);
}

void CUpnpAdaptor::configValueChanged(QString key, QString value, bool)
{
    if (key == QLatin1String("generic/name")) {
        if (value == name)
            return;
        CLOG_AT(Info, 86) << "generic name changed to " << value;
        name = value;
        updateFiles();
    } else if (key == QLatin1String("generic/serialNumber")) {
        if (value == serialNumber)
            return;
        CLOG_AT(Info, 94) << "generic serialNumber changed to " << value;
        serialNumber = value;
        updateFiles();
    } else if (key == QLatin1String("generic/zan")) {
        const bool zan = value == QLatin1String("true");
        if (zan == zanBrand)
            return;
        CLOG_AT(Info, 102) << "generic zan changed to " << value;
        zanBrand = zan;
        updateFiles();
    } else if (key == QLatin1String("debug/enableLogging")) {
        logging::__LoggingActive = value == QLatin1String("true");
    } else if (key == QLatin1String("network/igmpquerier")) {
        const bool enable = value == QLatin1String("true");
        if (enable == igmpQuerier)
            return;
        igmpQuerier = enable;
        if (upnpCoordinator)
            upnpCoordinator->setEnableIGMPQuerier(enable);
    }
}

void CUpnpAdaptor::updateFiles()
{
    setupDescriptionFile(false, descriptionFilePath);
    QFile description(descriptionFilePath);
    if (description.open(QIODevice::ReadOnly)) {
        const QByteArray digest = QCryptographicHash::hash(description.readAll(), QCryptographicHash::Sha256);
        // The UPnP config id has 24 bits.
        config = qFromLittleEndian<quint32>(digest.constData()) & 0xFFFFFF;
        if (upnpCoordinator)
            upnpCoordinator->setConfigId(config);
    }
    restartAvahi();
}

void CUpnpAdaptor::setupDescriptionFile(bool avahi, const QString& outputPath)
{
    const QString templateName = avahi ? QStringLiteral("quarn.avahi")
                                       : zanBrand ? QStringLiteral("quarn-zan.upnp") : QStringLiteral("quarn-lud.upnp");
    CLOG_AT(Info, 284) << "setupDescriptionFile " << templateName << " -> " << outputPath;

    QFile templateFile(templateDir.filePath(templateName));
    if (!templateFile.open(QIODevice::ReadOnly | QIODevice::Text)) {
        CLOG_AT(Error, 289) << "Failed to open " << templateName;
        return;
    }
    QTextStream in(&templateFile);
    in.setCodec("UTF-8");
    QString text = in.readAll();
    templateFile.close();

    text.replace(QLatin1String("@@friendlyname@@"), QStringLiteral("Orvella: ") + Utils::escapeXml(name));
    text.replace(QLatin1String("@@udn@@"), Utils::escapeXml(deviceUuid.toString(QUuid::WithoutBraces)));
    text.replace(QLatin1String("@@serial@@"), Utils::escapeXml(serialNumber));

    QFile output(outputPath);
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        CLOG_AT(Error, 306) << "Failed to open" << outputPath << "for writing:" << output.errorString();
        return;
    }
    output.write(text.toUtf8());
    output.close();
}

void CUpnpAdaptor::restartAvahi()
{
    if (name.isEmpty()) {
        CLOG_AT(Error, 154) << "refusing to restart Avahi while the Quarn name is empty";
        return;
    }
    CLOG_AT(Info, 158) << "restartAvahi";
    setupDescriptionFile(true, serviceFilePath);
    // Avahi reads its service files only when it starts. The daemon waits for
    // it, and a little longer, so that it publishes before anything else happens.
    QProcess::execute(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QLatin1String(AvahiRestart)});
    QThread::msleep(ulong(avahiRestartPause));
}
