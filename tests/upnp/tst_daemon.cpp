// The whole daemon: the real upnp binary with the simulated backend in a
// private network namespace ("dev", with a wireless interface whose MAC gives
// the UUID), watched from a control point's namespace ("cp") by our own SSDP
// peer, GSSDP and GUPnP; its files served over HTTP and handed to a real
// avahi-daemon. System log through a private /dev/log.
#include "interfaceaddress.h"
#include "netns.h"
#include "socketinterface.h"
#include "ssdppeer.h"
#include "syslogreceiver.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <csignal>
#include <unistd.h>

namespace {

const char* const Dev = "dev";
const char* const Cp = "cp";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";
const QByteArray DeviceType = "urn:tessaline:device:Quarn:1";

} // namespace

class tst_Daemon : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void stagesLeadToAdvertisingOnceTheWebSettingsExist();
    void nameChangeReachesFilesAvahiAndControlPoints();
    void stageZeroWithoutSystemServiceIsFatal();
    void stageThreeWaitsForTheDatabase();

private:
    bool startBackend(QProcess* backend, const QStringList& without = {});
    bool startDaemon();
    // Stages 0 to 3 through the simulated supervisor; dev0 announced when the
    // daemon has its configuration, as the system service does.
    void bringUp();
    QVariant control(const char* method, const SocketArgument& a1 = SocketArgument(),
                     const SocketArgument& a2 = SocketArgument());
    bool logged(const QByteArray& text) const;
    QByteArray file(const QString& name) const;
    quint32 configIdOfDescription() const;
    QByteArray runInCp(const QStringList& command);

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<SyslogReceiver> syslog;
    QList<SyslogReceiver::Line> lines;
    QTimer syslogDrain;
    QProcess backend;
    QByteArray backendOut;
    QProcess daemon;
};

void tst_Daemon::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for network namespaces");
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import gi; gi.require_version('GUPnP', '1.6')"});
    if (!probe.waitForFinished(10000) || probe.exitCode() != 0)
        QSKIP("needs python3-gi, gir1.2-gssdp-1.6 and gir1.2-gupnp-1.6");
    connect(&syslogDrain, &QTimer::timeout, this, [this] {
        SyslogReceiver::Line line;
        while (syslog && syslog->receive(&line, 0))
            lines << line;
    });
    syslogDrain.start(20);
    connect(&backend, &QProcess::readyReadStandardOutput, this,
            [this] { backendOut += backend.readAllStandardOutput(); });
}

void tst_Daemon::init()
{
    lines.clear();
    backendOut.clear();
    dir.reset(new QTemporaryDir);
    namespaces.reset(new NetworkNamespaces);
    QVERIFY2(namespaces->add(Dev) && namespaces->add(Cp)
                 && namespaces->addLink(Dev, "dev0", "10.80.0.2/24", Cp, "cp0", "10.80.0.3/24")
                 && namespaces->addVethPair(Dev, "wlan0", Dev, "wl0p")
                 && namespaces->run(Dev, {"ip", "link", "set", "wlan0", "address", "00:11:22:33:44:55"}),
             qPrintable(namespaces->errorString()));

    for (const char* sub : {"sockets", "www", "files", "config/quarn", "bin"})
        QDir().mkpath(dir->filePath(sub));
    auto write = [this](const QString& name, const QByteArray& content) {
        QFile out(dir->filePath(name));
        return out.open(QIODevice::WriteOnly) && out.write(content) == content.size();
    };
    QVERIFY(write("config/quarn/database.conf",
                  "[General]\nsocketDir=" + dir->filePath("sockets").toUtf8() + "\nsocketType=local\n"
                  "upnpConfigFileName=" + dir->filePath("files/quarn.upnp").toUtf8() + "\n"
                  "avahiConfigFileName=" + dir->filePath("files/tessaline-quarn.service").toUtf8() + "\n"
                  "[data]\nwwwpath=" + dir->filePath("www").toUtf8() + "\nconstpath=" SOURCE_DIR "/upnp/data\n"));
    QVERIFY(write("config/quarn/upnp.conf", "[timing]\nrescanInterval=300\navahiRestartPause=50\n"));
    QVERIFY(write("database.txt", "generic/name=Living room\ngeneric/serialNumber=SN-0815\ngeneric/zan=false\n"
                                  "network/igmpquerier=false\ndebug/enableLogging=true\n"));
    // No init system here: the daemon's Avahi restarts are recorded instead.
    QVERIFY(write("bin/systemctl", "#!/bin/sh\necho \"$@\" >> " + dir->filePath("systemctl.log").toUtf8() + "\n"));
    QFile(dir->filePath("bin/systemctl")).setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void tst_Daemon::cleanup()
{
    for (QProcess* process : {&daemon, &backend}) {
        process->kill();
        process->waitForFinished();
    }
    syslog.reset();
    namespaces.reset();
}

bool tst_Daemon::startBackend(QProcess* process, const QStringList& without)
{
    QStringList arguments{"netns", "exec", namespaces->fullName(Dev), BINARY_DIR "/tools/simbackend",
                          "--socket-dir", dir->filePath("sockets"), "--config", dir->filePath("database.txt")};
    for (const QString& service : without)
        arguments << "--without" << service;
    process->start("ip", arguments);
    // The main backend's output is gathered by its readyRead handler.
    QByteArray other;
    QByteArray& out = process == &backend ? backendOut : other;
    while (!out.contains("ready\n") && process->waitForReadyRead(5000))
        out += process->readAllStandardOutput();
    return out.contains("ready\n");
}

bool tst_Daemon::startDaemon()
{
    syslog.reset();
    syslog.reset(new SyslogReceiver(dir->filePath("log.sock")));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", dir->filePath("config"));
    environment.insert("PATH", dir->filePath("bin") + ':' + environment.value("PATH"));
    daemon.setProcessEnvironment(environment);
    daemon.setProcessChannelMode(QProcess::ForwardedChannels);
    daemon.start("ip", {"netns", "exec", namespaces->fullName(Dev), SOURCE_DIR "/scripts/with-private-devlog.sh",
                        dir->filePath("log.sock"), BINARY_DIR "/upnp/upnp"});
    if (!daemon.waitForStarted())
        return false;
    QElapsedTimer waiting;
    waiting.start();
    while (!QFile::exists(dir->filePath("sockets/com.zan.ravo.upnp")) && waiting.elapsed() < 5000)
        QTest::qWait(20);
    return QFile::exists(dir->filePath("sockets/com.zan.ravo.upnp"));
}

QVariant tst_Daemon::control(const char* method, const SocketArgument& a1, const SocketArgument& a2)
{
    SocketInterface simbackend(SocketConnection::LocalSocketType, "com.zan.ravo.simbackend", dir->filePath("sockets"));
    return simbackend.call(SocketInterface::CallWithReturn, method, a1, a2).toQVariant();
}

bool tst_Daemon::logged(const QByteArray& text) const
{
    return std::any_of(lines.begin(), lines.end(), [&text](const SyslogReceiver::Line& line) {
        return line.text.contains(text);
    });
}

QByteArray tst_Daemon::file(const QString& name) const
{
    QFile in(dir->filePath(name));
    return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
}

quint32 tst_Daemon::configIdOfDescription() const
{
    const QByteArray digest = QCryptographicHash::hash(file("files/quarn.upnp"), QCryptographicHash::Sha256);
    return qFromLittleEndian<quint32>(digest.constData()) & 0xFFFFFF;
}

QByteArray tst_Daemon::runInCp(const QStringList& command)
{
    QProcess process;
    process.start("ip", QStringList{"netns", "exec", namespaces->fullName(Cp)} + command);
    QElapsedTimer running;
    running.start();
    while (process.state() != QProcess::NotRunning && running.elapsed() < 20000)
        QTest::qWait(50); // the daemon's events flow meanwhile
    return process.readAllStandardOutput() + process.readAllStandardError();
}

void tst_Daemon::bringUp()
{
    QVERIFY(startBackend(&backend));
    QVERIFY(startDaemon());
    control("runStage", 0);
    QTRY_VERIFY_WITH_TIMEOUT(backendOut.contains("supervisor: stage 0 done"), 5000);
    // Events from other services count only once the configuration is in.
    QTRY_VERIFY_WITH_TIMEOUT(logged("generic serialNumber changed to"), 5000);
    control("interfaceUp", QString("dev0"));
    for (int stage = 1; stage <= 3; ++stage) {
        control("runStage", stage);
        QTRY_VERIFY_WITH_TIMEOUT(backendOut.contains(QByteArray("supervisor: stage ") + QByteArray::number(stage) + " done"),
                                 5000);
    }
}

void tst_Daemon::stagesLeadToAdvertisingOnceTheWebSettingsExist()
{
    QVERIFY(namespaces->enter(Cp));
    SsdpPeer controlPoint("cp0", QHostAddress("239.255.255.250"));
    QVERIFY(namespaces->leave() && controlPoint.isValid());
    bringUp();

    // Each stage reached the diagnosis service at once.
    QStringList stages;
    for (const QString& ping : control("pings").toStringList())
        if (stages.isEmpty() || stages.last() != ping)
            stages << ping;
    QCOMPARE(stages.filter("com.zan.ravo.upnp").mid(0, 4),
             QStringList({"com.zan.ravo.upnp 0", "com.zan.ravo.upnp 1", "com.zan.ravo.upnp 2", "com.zan.ravo.upnp 3"}));
    QVERIFY(logged("upnpadaptor.cpp        325 delaying coordinator creation, " + dir->filePath("www/settings.json").toUtf8()
                   + " does not exist yet"));

    // An empty settings file does not count; the interface announced before
    // the coordinator existed is served once it does.
    QFile settings(dir->filePath("www/settings.json"));
    QVERIFY(settings.open(QIODevice::WriteOnly));
    settings.close();
    QTest::qWait(1500);
    QVERIFY(controlPoint.notifiesWith().isEmpty());
    QVERIFY(settings.open(QIODevice::WriteOnly) && settings.write("{}") == 2);
    settings.close();
    QTRY_VERIFY_WITH_TIMEOUT(controlPoint.notifiesWith("ssdp:alive").size() >= 3, 5000);

    // GSSDP finds the root device over IPv4 and over IPv6 link-local.
    QVERIFY(namespaces->enter(Dev));
    const QString linkLocal = linkLocalAddress("dev0");
    QVERIFY(namespaces->leave() && !linkLocal.isEmpty());
    const QStringList browse{"/usr/bin/python3", SOURCE_DIR "/tools/ssdp-browse", "--interface", "cp0", "--target",
                             "upnp:rootdevice", "--seconds", "3"};
    const QByteArray root = "available uuid:" + Udn + "::upnp:rootdevice ";
    QByteArray found = runInCp(browse);
    QVERIFY2(found.contains(root + "http://10.80.0.2:80/quarn.upnp\n"), found);
    found = runInCp(browse + QStringList{"--ipv6"});
    QVERIFY2(found.contains(root + "http://[" + linkLocal.toUtf8() + "]:80/quarn.upnp\n"), found);

    const QByteArray alive = controlPoint.notifiesWith("ssdp:alive").last().datagram.data();
    QCOMPARE(ssdpHeader(alive, "LOCATION"), QByteArray("http://10.80.0.2:80/quarn.upnp"));
    QCOMPARE(ssdpHeader(alive, "NT"), DeviceType);
    QCOMPARE(ssdpHeader(alive, "USN"), "uuid:" + Udn + "::" + DeviceType);
    QCOMPARE(ssdpHeader(alive, "CONFIGID.UPNP.ORG").toUInt(), configIdOfDescription());
    QVERIFY(file("systemctl.log").startsWith("restart avahi-daemon.service avahi-daemon.socket\n"));

    control("quitModule");
    QVERIFY(daemon.waitForFinished(5000));
    QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(daemon.exitCode(), 0);
    QTRY_VERIFY(controlPoint.notifiesWith("ssdp:byebye").size() >= 3);
}

void tst_Daemon::nameChangeReachesFilesAvahiAndControlPoints()
{
    QFile settings(dir->filePath("www/settings.json"));
    QVERIFY(settings.open(QIODevice::WriteOnly) && settings.write("{}") == 2);
    settings.close();
    QVERIFY(namespaces->enter(Cp));
    SsdpPeer controlPoint("cp0", QHostAddress("239.255.255.250"));
    QVERIFY(namespaces->leave() && controlPoint.isValid());
    bringUp();
    QTRY_VERIFY_WITH_TIMEOUT(controlPoint.notifiesWith("ssdp:alive").size() >= 3, 5000);
    const quint32 firstId = configIdOfDescription();

    // The description is served where LOCATION points; GUPnP fetches and reads it.
    QProcess http;
    http.start("ip", {"netns", "exec", namespaces->fullName(Dev), "/usr/bin/python3", "-m", "http.server", "80",
                      "--bind", "10.80.0.2", "--directory", dir->filePath("files")});
    QVERIFY(http.waitForStarted());
    QTest::qWait(500);
    const QStringList describe{"/usr/bin/python3", SOURCE_DIR "/tools/upnp-describe", "--interface", "cp0",
                               "--seconds", "4"};
    QByteArray found = runInCp(describe);
    QVERIFY2(found.contains("device uuid:" + Udn + " http://10.80.0.2:80/quarn.upnp friendlyName=Orvella: Living room "
                            "manufacturer=Tessaline modelName=Quarn serialNumber=SN-0815"),
             found);

    // GSSDP watches while the name changes.
    QProcess browse;
    browse.start("ip", {"netns", "exec", namespaces->fullName(Cp), "/usr/bin/python3", SOURCE_DIR "/tools/ssdp-browse",
                        "--interface", "cp0", "--target", DeviceType, "--notifies", "--seconds", "4"});
    QVERIFY(browse.waitForStarted());
    QTest::qWait(1000);
    const int restarts = file("systemctl.log").count('\n');
    control("setConfigValue", QString("generic/name"), QString("A&B <x>"));
    QTRY_VERIFY_WITH_TIMEOUT(file("files/quarn.upnp").contains("Orvella: A&amp;B &amp;lt;x&amp;gt;"), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(file("files/tessaline-quarn.service").contains("<name>Orvella: A&amp;B &amp;lt;x&amp;gt;</name>"),
                             5000);
    const quint32 secondId = configIdOfDescription();
    QVERIFY(secondId != firstId && secondId < 16777216);
    QTRY_COMPARE_WITH_TIMEOUT(file("systemctl.log").count('\n'), restarts + 1, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(!controlPoint.notifiesWith("ssdp:update").isEmpty(), 5000);
    QCOMPARE(ssdpHeader(controlPoint.notifiesWith("ssdp:update").last().datagram.data(), "CONFIGID.UPNP.ORG").toUInt(),
             secondId);
    QTRY_COMPARE_WITH_TIMEOUT(browse.state(), QProcess::NotRunning, 10000);
    const QByteArray watched = browse.readAllStandardOutput();
    QVERIFY2(watched.contains("notify ssdp:update " + DeviceType + " uuid:" + Udn + "::" + DeviceType)
                 && watched.contains(" configid=" + QByteArray::number(secondId) + "\n"),
             watched);

    // The control point sees the name as the double escaping leaves it.
    found = runInCp(describe);
    QVERIFY2(found.contains("friendlyName=Orvella: A&B &lt;x&gt; manufacturer"), found);
    http.kill();
    http.waitForFinished();

    // A real avahi-daemon takes the service file as its only service.
    if (!QStandardPaths::findExecutable("avahi-daemon", {"/usr/sbin", "/sbin"}).isEmpty()) {
        QDir().mkpath(dir->filePath("avahi/services"));
        QFile::copy(dir->filePath("files/tessaline-quarn.service"), dir->filePath("avahi/services/tessaline-quarn.service"));
        QFile conf(dir->filePath("avahi/avahi-daemon.conf"));
        QVERIFY(conf.open(QIODevice::WriteOnly));
        conf.write("[server]\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=dev0\nenable-dbus=no\n"
                   "[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\npublish-workstation=no\n");
        conf.close();
        QProcess avahi;
        avahi.setProcessChannelMode(QProcess::MergedChannels);
        avahi.start("ip", {"netns", "exec", namespaces->fullName(Dev), "unshare", "--mount", "--propagation", "private",
                           "sh", "-c",
                           "mount -t tmpfs tmpfs /run && mkdir -p /run/avahi-daemon && mount --bind \"$0\" "
                           "/etc/avahi/services && exec /usr/sbin/avahi-daemon --no-drop-root --no-chroot --no-rlimits "
                           "-f \"$1\"",
                           dir->filePath("avahi/services"), dir->filePath("avahi/avahi-daemon.conf")});
        QByteArray avahiOut;
        QTRY_VERIFY2_WITH_TIMEOUT((avahiOut += avahi.readAll()).contains("successfully established"), avahiOut, 10000);
        QVERIFY2(avahiOut.contains("Service \"Orvella: A&B &lt;x&gt;\""), avahiOut);
        avahi.terminate();
        avahi.waitForFinished();
    }

    // Statistics over RPC, then SIGINT: status 0.
    SocketInterface upnp(SocketConnection::LocalSocketType, "com.zan.ravo.upnp", dir->filePath("sockets"));
    const QString statistics = upnp.call(SocketInterface::CallWithReturn, "exportProfilerStatistics", 1).toQString();
    QVERIFY2(statistics.startsWith("***Exporting profiler statistic for Upnp adaptor***\nname "), qPrintable(statistics));
    QVERIFY(statistics.contains("\nrun(int) "));
    ::kill(pid_t(daemon.processId()), SIGINT);
    QVERIFY(daemon.waitForFinished(5000));
    QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(daemon.exitCode(), 0);
}

void tst_Daemon::stageZeroWithoutSystemServiceIsFatal()
{
    QVERIFY(startBackend(&backend, {"system"}));
    QVERIFY(startDaemon());
    control("runStage", 0);
    QVERIFY(daemon.waitForFinished(5000));
    QCOMPARE(daemon.exitStatus(), QProcess::CrashExit);
    QTRY_VERIFY(logged("Cannot connect to service com.zan.ravo.system"));
    const auto fatal = std::find_if(lines.begin(), lines.end(), [](const SyslogReceiver::Line& line) {
        return line.text.contains("Cannot connect to service com.zan.ravo.system");
    });
    QCOMPARE(fatal->priority, 8 + 2); // user.crit
}

void tst_Daemon::stageThreeWaitsForTheDatabase()
{
    QVERIFY(startBackend(&backend, {"database"}));
    QVERIFY(startDaemon());
    control("runStage", 0);
    QTRY_VERIFY_WITH_TIMEOUT(backendOut.contains("supervisor: stage 0 done"), 5000);
    QTRY_VERIFY(logged("failed to open interface to database ServerNotFoundError"));
    control("runStage", 3);
    QTest::qWait(2000);
    QVERIFY(!backendOut.contains("supervisor: stage 3 done"));

    // The database comes (a second simulated backend); the stage completes.
    QProcess database;
    QVERIFY(startBackend(&database, {"system", "diagnosis"}));
    QTRY_VERIFY_WITH_TIMEOUT(backendOut.contains("supervisor: stage 3 done"), 5000);
    database.kill();
    database.waitForFinished();
}

QTEST_GUILESS_MAIN(tst_Daemon)
#include "tst_daemon.moc"
