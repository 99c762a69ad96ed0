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
#include <QEventLoop>
#include <QTimer>
#include <QtEndian>

namespace {

const char* const SystemService = "com.zan.ravo.system";
const char* const DeviceType = "urn:tessaline:device:Quarn:1";
const char* const LocationTemplate = "http://%1:80/quarn.upnp";
const char* const AvahiRestart = "systemctl restart avahi-daemon.service avahi-daemon.socket";

enum NetworkEventCode { InterfaceUp = 3, InterfaceDown = 5 };

// Stage 3 tries the database this often until it can be reached.
constexpr int DatabaseRetryMs = 1500;

// How long a change without a batch's last pair waits for more before Avahi restarts.
constexpr int AvahiRestartDelayMs = 1000;

const char* const FriendlyNamePrefix = "Orvella: ";
// Avahi takes a service name of at most 63 bytes, a DNS label.
constexpr int AvahiNameBytes = 63;

// The longest start of name, cut at a character's boundary, that fits Avahi
// behind the prefix, counted as Avahi reads the file: the double escaping
// leaves "<" and ">" as "&lt;" and "&gt;", four bytes each.
QString fitAvahiName(const QString& name)
{
    int bytes = int(qstrlen(FriendlyNamePrefix));
    QString fitting;
    for (const uint c : name.toUcs4()) {
        bytes += c == '<' || c == '>' ? 4 : c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        if (bytes > AvahiNameBytes)
            break;
        fitting += QString::fromUcs4(&c, 1);
    }
    return fitting;
}

} // namespace

CUpnpAdaptor::CUpnpAdaptor(QObject* parent)
    : SocketAdaptorWithPing(parent, readNumberSetting(QSettings(), "timing/heartbeatInterval", DefaultHeartbeatInterval, 1000, 3600000))
{
    const QSettings database(QStringLiteral("quarn"), QStringLiteral("database"));
    const QString dataPath = database.value("data/path", "./data").toString();
    templateDir.setPath(database.value("data/constpath", dataPath).toString());
    descriptionFilePath = database.value("upnpConfigFileName", "/tmp/quarn.upnp").toString();
    serviceFilePath = database.value("avahiConfigFileName", "/tmp/tessaline-quarn.service").toString();

    const QSettings own;
    rescanInterval = readNumberSetting(own, "timing/rescanInterval", int(UpnpTimings().rescanInterval), 100, 24 * 3600 * 1000);
    avahiRestartPause = readNumberSetting(own, "timing/avahiRestartPause", 2000, 0, 600000);

    avahiRestartTimer.setSingleShot(true);
    connect(&avahiRestartTimer, &QTimer::timeout, this, &CUpnpAdaptor::restartAvahi);
    avahiPauseTimer.setSingleShot(true);
    connect(&avahiPauseTimer, &QTimer::timeout, this, [this] {
        if (avahiRestartWanted) {
            avahiRestartWanted = false;
            restartAvahi();
        }
    });

    const QString mac = Utils::getWlanMacAddress();
    if (mac.isEmpty())
        CLOG(Warning) << "no wireless interface" << Utils::wlanInterfaceName() << "(RAVO_MACHINE:"
                      << qEnvironmentVariable("RAVO_MACHINE") << "): the UUID changes with every start;"
                      << "RAVO_MACHINE names the hardware model, models starting with imx use mlan0";
    deviceUuid = makeDeviceUuid(mac);
    const QStringList templates{"quarn-zan.upnp", "quarn-lud.upnp", "quarn.avahi"};
    for (const QString& name : templates) {
        if (!templateDir.exists(name)) {
            CLOG(Warning) << "templates missing in" << templateDir.absolutePath() << ": set data/constpath in"
                          << database.fileName() << "to the folder that holds" << templates.join(", ");
            break;
        }
    }
    // The files are written when the cache delivers name, serial number and brand.
    connect(ConfigCache::instance(), &ConfigCache::valueChanged, this, &CUpnpAdaptor::configValueChanged);
}

CUpnpAdaptor::~CUpnpAdaptor()
{
    if (avahiRestart) {
        avahiRestart->kill();
        avahiRestart->waitForFinished(1000);
    }
}

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
        // Events that came before the drop still count: under load the
        // interfaces announced at subscription can arrive with this stage.
        if (systemClient)
            systemClient->deliverArrivedSignals();
        systemClient.reset();
        break;
    case 3:
        waitForDatabase();
        break;
    default:
        break;
    }
    runStage = stage;
    sendHeartbeat();
}

void CUpnpAdaptor::quit()
{
    quitRequested = true;
    if (databaseWait)
        databaseWait->quit();
    // On the loop's next turn, not inside the call.
    QTimer::singleShot(0, qApp, &QCoreApplication::quit);
}

void CUpnpAdaptor::waitForDatabase()
{
    // Deliberately held here until the database can be reached. The daemon
    // goes on meanwhile, and quit or SIGINT end the wait.
    while (!quitRequested && !ConfigCache::instance()->connectToDatabase()) {
        QEventLoop pause;
        databaseWait = &pause;
        QTimer::singleShot(DatabaseRetryMs, &pause, &QEventLoop::quit);
        pause.exec();
        databaseWait = nullptr;
    }
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
        if (!webRootWarned) {
            webRootWarned = true;
            if (WWWDir.isEmpty() || !QFileInfo(WWWDir).isDir())
                CLOG(Warning) << "web root" << WWWDir << "is not a folder: set data/wwwpath in"
                              << QSettings(QStringLiteral("quarn"), QStringLiteral("database")).fileName()
                              << "; nothing is advertised until" << trigger << "exists";
            else
                CLOG(Warning) << "nothing is advertised until the web front end writes" << trigger;
        }
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
        scheduleAvahiRestart(false);
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

void CUpnpAdaptor::configValueChanged(QString key, QString value, bool moreToCome)
{
    bool published = false; // a value that the files carry changed
    if (key == QLatin1String("generic/name")) {
        if (value != name) {
            CLOG_AT(Info, 86) << "generic name changed to " << value;
            name = value;
            published = true;
        }
    } else if (key == QLatin1String("generic/serialNumber")) {
        if (value != serialNumber) {
            CLOG_AT(Info, 94) << "generic serialNumber changed to " << value;
            serialNumber = value;
            published = true;
        }
    } else if (key == QLatin1String("generic/zan")) {
        const bool zan = value == QLatin1String("true");
        if (zan != zanBrand) {
            CLOG_AT(Info, 102) << "generic zan changed to " << value;
            zanBrand = zan;
            published = true;
        }
    } else if (key == QLatin1String("debug/enableLogging")) {
        logging::__LoggingActive = value == QLatin1String("true");
    } else if (key == QLatin1String("network/igmpquerier")) {
        const bool enable = value == QLatin1String("true");
        if (enable != igmpQuerier) {
            igmpQuerier = enable;
            if (upnpCoordinator)
                upnpCoordinator->setEnableIGMPQuerier(enable);
        }
    }
    if (published)
        updateFiles();
    // The end of a batch restarts what its earlier pairs asked for.
    if (published || (!moreToCome && avahiRestartTimer.isActive()))
        scheduleAvahiRestart(!moreToCome);
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
    if (!name.isEmpty())
        setupDescriptionFile(true, serviceFilePath);
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

    QString shownName = name;
    if (avahi) {
        shownName = fitAvahiName(name);
        if (shownName != name && cutAvahiName != shownName) {
            cutAvahiName = shownName;
            CLOG(Warning) << "the name is longer than Avahi takes; the service file carries" << shownName;
        }
    }
    text.replace(QLatin1String("@@friendlyname@@"), FriendlyNamePrefix + Utils::escapeXml(shownName));
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
    if (avahiRestart || avahiPauseTimer.isActive()) {
        avahiRestartWanted = true;
        return;
    }
    avahiRestartTimer.stop();
    CLOG_AT(Info, 158) << "restartAvahi";
    setupDescriptionFile(true, serviceFilePath);
    // Avahi reads its service files only when it starts.
    avahiRestart = new QProcess(this);
    connect(avahiRestart, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &CUpnpAdaptor::onAvahiRestartFinished);
    connect(avahiRestart, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            onAvahiRestartFinished();
    });
    avahiRestart->start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QLatin1String(AvahiRestart)});
}

void CUpnpAdaptor::onAvahiRestartFinished()
{
    avahiRestart->deleteLater();
    avahiRestart = nullptr;
    // Time for Avahi to publish before it is restarted again.
    avahiPauseTimer.start(avahiRestartPause);
}

bool CUpnpAdaptor::isAvahiRestartPending() const
{
    return avahiRestartTimer.isActive() || avahiRestart || avahiRestartWanted;
}

void CUpnpAdaptor::scheduleAvahiRestart(bool batchComplete)
{
    if (batchComplete)
        avahiRestartTimer.start(0); // on the next turn, after what the batch brought along
    else if (!avahiRestartTimer.isActive() || avahiRestartTimer.interval() != 0)
        avahiRestartTimer.start(AvahiRestartDelayMs);
}
