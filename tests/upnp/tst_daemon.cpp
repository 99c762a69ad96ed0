// The whole daemon: the real upnp binary with the simulated backend in a
// private network namespace ("dev", two links and a wireless interface whose
// MAC gives the UUID), watched from a control point's namespace ("cp") by our
// own SSDP peers, GSSDP, GUPnP and the kernel as IGMP host; its files served
// over HTTP and handed to a real avahi-daemon. System log through a private
// /dev/log. The backend starts the way controllers start: the stages back to
// back, the links announced as the daemon subscribes.
#include "igmpquerier.h"
#include "netns.h"
#include "socketinterface.h"
#include "ssdppeer.h"
#include "syslogreceiver.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* const Dev = "dev";
const char* const Cp = "cp";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";
const QByteArray DeviceType = "urn:tessaline:device:Quarn:1";
const QHostAddress SsdpGroup("239.255.255.250");
const QStringList NaturalStart{"--stages", "--interface", "dev0", "--interface", "dev1"};

// Sends one IGMPv2 message from the calling thread's namespace, as any host
// on the link could.
bool sendIgmp(quint8 type, const char* group, const char* destination, const char* interface)
{
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP);
    const QByteArray message = IGMPQuerier::buildIGMPMessage(type, QHostAddress(group).toIPv4Address(), 0);
    ip_mreqn out = {};
    out.imr_ifindex = QNetworkInterface::interfaceIndexFromName(interface);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = qToBigEndian(QHostAddress(destination).toIPv4Address());
    const bool sent = ::setsockopt(raw, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out)) == 0
                      && ::sendto(raw, message.constData(), 8, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 8;
    ::close(raw);
    return sent;
}

void stop(QProcess& process)
{
    process.kill();
    process.waitForFinished();
}

} // namespace

class tst_Daemon : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
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

    void init()
    {
        lines.clear();
        backendOut.clear();
        dir.reset(new QTemporaryDir);
        namespaces.reset(new NetworkNamespaces);
        QVERIFY2(namespaces->add(Dev) && namespaces->add(Cp)
                     && namespaces->addLink(Dev, "dev0", "192.0.2.2/24", Cp, "cp0", "192.0.2.3/24")
                     && namespaces->addLink(Dev, "dev1", "198.51.100.2/24", Cp, "cp1", "198.51.100.3/24")
                     && namespaces->addVethPair(Dev, "wlan0", Dev, "wl0p")
                     && namespaces->run(Dev, {"ip", "link", "set", "wlan0", "address", "00:11:22:33:44:55"}),
                 qPrintable(namespaces->errorString()));

        for (const char* sub : {"sockets", "www", "files", "config/quarn", "bin"})
            QDir().mkpath(dir->filePath(sub));
        QVERIFY(write("config/quarn/database.conf",
                      "[General]\nsocketDir=" + dir->filePath("sockets").toUtf8() + "\nsocketType=local\n"
                      "upnpConfigFileName=" + dir->filePath("files/quarn.upnp").toUtf8() + "\n"
                      "avahiConfigFileName=" + dir->filePath("files/tessaline-quarn.service").toUtf8() + "\n"
                      "[data]\nwwwpath=" + dir->filePath("www").toUtf8() + "\nconstpath=" SOURCE_DIR "/upnp/data\n"));
        QVERIFY(write("config/quarn/upnp.conf", "[timing]\nrescanInterval=300\navahiRestartPause=50\nheartbeatInterval=1000\n"));
        QVERIFY(write("database.txt", "generic/name=Living room\ngeneric/serialNumber=SN-0815\ngeneric/zan=false\n"
                                      "network/igmpquerier=true\ndebug/enableLogging=true\n"));
        QVERIFY(write("www/settings.json", "{}"));
        // No init system here: the daemon's Avahi restarts are recorded, and take a while.
        QVERIFY(write("bin/systemctl", "#!/bin/sh\necho \"$@\" >> " + dir->filePath("systemctl.log").toUtf8()
                                           + "\nsleep 3\necho done >> " + dir->filePath("systemctl.log").toUtf8() + "\n"));
        QFile(dir->filePath("bin/systemctl")).setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void cleanup()
    {
        // What the daemon logged and the backend said, for a failure's reader.
        if (QTest::currentTestFailed()) {
            for (const SyslogReceiver::Line& line : qAsConst(lines))
                qInfo("daemon: %s", line.text.constData());
            qInfo("backend:\n%s", backendOut.constData());
        }
        stop(daemon);
        stop(backend);
        syslog.reset();
        namespaces.reset();
    }

    // A controller's life on the LAN: found, flooded, renamed, stopped.
    void discoveredFloodedRenamedAndStopped()
    {
        // A searcher outside the link could be answered through the default
        // route: only the daemon's own rule keeps answers on the link.
        QVERIFY(namespaces->addAddress(Cp, "cp0", "203.0.113.5/24")
                && namespaces->run(Dev, {"ip", "route", "add", "default", "via", "192.0.2.3"}) && namespaces->enter(Cp));
        SsdpPeer onCp0("cp0", SsdpGroup), onCp1("cp1", SsdpGroup), flooder("cp0", SsdpGroup), searcher("cp0", SsdpGroup),
            zeroMx("cp0", SsdpGroup), offLink("cp0", SsdpGroup, QHostAddress("203.0.113.5"));
        SsdpPeer ipv6Cp0("cp0", QHostAddress("ff02::c")), ipv6Cp1("cp1", QHostAddress("ff02::c"));
        QVERIFY(namespaces->leave());
        QProcess tcpdump;
        tcpdump.start("ip", {"netns", "exec", namespaces->fullName(Cp), "tcpdump", "-i", "cp0", "-n", "-l", "igmp"});
        QVERIFY(tcpdump.waitForStarted());
        for (const SsdpPeer* peer : {&onCp0, &onCp1, &flooder, &searcher, &zeroMx, &offLink, &ipv6Cp0, &ipv6Cp1})
            QVERIFY(peer->isValid());

        QVERIFY(startBackend(&backend, NaturalStart));
        QVERIFY(startDaemon());
        // Both links, over IPv4 and IPv6 link-local: root device, UUID, device type.
        for (const SsdpPeer* peer : {&onCp0, &onCp1, &ipv6Cp0, &ipv6Cp1})
            QTRY_VERIFY_WITH_TIMEOUT(peer->notifiesWith("ssdp:alive").size() >= 3, 5000);
        const QByteArray alive = onCp1.notifiesWith("ssdp:alive").last().datagram.data();
        QCOMPARE(ssdpHeader(alive, "LOCATION"), QByteArray("http://198.51.100.2:80/quarn.upnp"));
        QCOMPARE(ssdpHeader(alive, "CONFIGID.UPNP.ORG").toUInt(), configIdOfDescription());
        QStringList stages = control("pings").toStringList();
        stages.removeDuplicates();
        QCOMPARE(stages, QStringList({"com.zan.ravo.upnp 0", "com.zan.ravo.upnp 1", "com.zan.ravo.upnp 2",
                                      "com.zan.ravo.upnp 3"}));

        // One Avahi restart for the first batch and the links announced with it;
        // searches are answered while it runs.
        QCOMPARE(file("systemctl.log"), QByteArray("restart avahi-daemon.service avahi-daemon.socket\n"));
        searcher.send(ssdpSearch("ssdp:all"));
        QTRY_COMPARE_WITH_TIMEOUT(searcher.answers.size(), 3, 1500);
        QVERIFY(!file("systemctl.log").contains("done"));

        // A flood of 10,000 searches a second, for a second, gets all its answers,
        // and so does a searcher that behaves meanwhile, also after 400 searches
        // with MX 0 (answered as MX 1) from a third.
        QElapsedTimer flood;
        flood.start();
        for (int i = 0; i < 10000 && flood.elapsed() < 3000; ++i) {
            flooder.send(ssdpSearch("ssdp:all"));
            if (i % 1000 == 0)
                searcher.send(ssdpSearch("ssdp:all", "3"));
            if (i < 400)
                zeroMx.send(ssdpSearch("ssdp:all", "0"));
            while (flood.elapsed() * 10 < i)
                QCoreApplication::processEvents();
        }
        offLink.send(ssdpSearch("ssdp:all"));

        QTRY_COMPARE_WITH_TIMEOUT(flooder.answers.size(), 30000, 8000);
        QTRY_COMPARE_WITH_TIMEOUT(searcher.answers.size(), 3 + 30, 4000);
        QTRY_COMPARE_WITH_TIMEOUT(zeroMx.answers.size(), 1200, 2000);
        // Nothing is reflected to a source outside the link. (The address and
        // the route go again: a name lookup through the route would wait for a
        // server that never answers, and GUPnP could search from the address.)
        QVERIFY(offLink.answers.isEmpty() && namespaces->run(Dev, {"ip", "route", "del", "default"})
                && namespaces->run(Cp, {"ip", "address", "del", "203.0.113.5/24", "dev", "cp0"}));

        // A leave, forged or not, is checked with RFC 2236's group-specific
        // query: the hosts that are still members, the device's own kernel among
        // them, stay on IGMPv2 and answer with a v2 report.
        QVERIFY(namespaces->enter(Cp));
        const bool forged = sendIgmp(0x16, "239.255.255.250", "239.255.255.250", "cp0")
                            && sendIgmp(0x17, "239.255.255.250", "224.0.0.2", "cp0");
        QVERIFY(namespaces->leave() && forged);
        QByteArray queries;
        const QByteArray groupQuery = "192.0.2.2 > 239.255.255.250: igmp query v2 [max resp time 10] [gaddr 239.255.255.250]";
        QTRY_VERIFY2_WITH_TIMEOUT((queries += tcpdump.readAllStandardOutput()).contains(groupQuery)
                                      && queries.mid(queries.indexOf(groupQuery)).contains("igmp v2 report 239.255.255.250"),
                                  queries, 4000);
        for (const char* ns : {Cp, Dev}) {
            QByteArray igmp;
            QVERIFY(namespaces->run(ns, {"cat", "/proc/net/igmp"}, &igmp));
            QVERIFY2(QRegularExpression(ns + QString("0 *: *[0-9]+ *V2")).match(QString::fromLatin1(igmp)).hasMatch(), igmp);
        }
        stop(tcpdump);

        // The name changes: new files, a new config id, ssdp:update.
        const quint32 firstId = configIdOfDescription();
        QTRY_VERIFY_WITH_TIMEOUT(file("systemctl.log").contains("done"), 5000);
        control("setConfigValue", QString("generic/name"), QString("A&B <x>"));
        QTRY_VERIFY_WITH_TIMEOUT(file("files/quarn.upnp").contains("Orvella: A&amp;B &amp;lt;x&amp;gt;"), 5000);
        const quint32 secondId = configIdOfDescription();
        QVERIFY(secondId != firstId && secondId < 16777216);
        QTRY_COMPARE_WITH_TIMEOUT(file("systemctl.log").count("restart"), 2, 5000);
        QTRY_VERIFY_WITH_TIMEOUT(!onCp0.notifiesWith("ssdp:update").isEmpty(), 5000);
        QCOMPARE(ssdpHeader(onCp0.notifiesWith("ssdp:update").last().datagram.data(), "CONFIGID.UPNP.ORG").toUInt(),
                 secondId);

        // The description is served where LOCATION points; GUPnP fetches it and
        // reads the name as the double escaping leaves it.
        QProcess http;
        http.start("ip", {"netns", "exec", namespaces->fullName(Dev), "/usr/bin/python3", "-m", "http.server", "80",
                          "--bind", "192.0.2.2", "--directory", dir->filePath("files")});
        QVERIFY(http.waitForStarted() && namespaces->enter(Cp));
        QTcpSocket web;
        QTRY_VERIFY((web.abort(), web.connectToHost("192.0.2.2", 80), web.waitForConnected(100)));
        QVERIFY(namespaces->leave());
        QByteArray found;
        namespaces->run(Cp, {"/usr/bin/python3", SOURCE_DIR "/tools/upnp-describe", "--interface", "cp0", "--seconds", "4"},
                        &found);
        QVERIFY2(found.contains("device uuid:" + Udn + " http://192.0.2.2:80/quarn.upnp friendlyName=Orvella: A&B &lt;x&gt; "
                                "manufacturer=Tessaline modelName=Quarn serialNumber=SN-0815"),
                 found);
        stop(http);

        // A real avahi-daemon takes the service file as its only service.
        if (!QStandardPaths::findExecutable("avahi-daemon", {"/usr/sbin", "/sbin"}).isEmpty()) {
            QDir().mkpath(dir->filePath("avahi/services"));
            QFile::copy(dir->filePath("files/tessaline-quarn.service"), dir->filePath("avahi/services/tessaline-quarn.service"));
            QVERIFY(write("avahi/avahi-daemon.conf",
                          "[server]\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=dev0\nenable-dbus=no\n[wide-area]\n"
                          "enable-wide-area=no\n[publish]\npublish-hinfo=no\npublish-workstation=no\n"));
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

        // Statistics over RPC.
        SocketInterface upnp(SocketConnection::LocalSocketType, "com.zan.ravo.upnp", dir->filePath("sockets"));
        const QString statistics = upnp.call(SocketInterface::CallWithReturn, "exportProfilerStatistics", 1).toQString();
        QVERIFY2(statistics.startsWith("***Exporting profiler statistic for Upnp adaptor***\nname "), qPrintable(statistics));
        QVERIFY(statistics.contains("\nrun(int) "));

        // SIGINT in the middle of a burst of searches and RPC calls: byebye on
        // both links, status 0.
        for (int i = 0; i < 200; ++i) {
            flooder.send(ssdpSearch("ssdp:all"));
            upnp.call("exportProfilerStatistics", 0);
            if (i == 100)
                ::kill(pid_t(daemon.processId()), SIGINT);
        }
        QVERIFY(daemon.waitForFinished(3000));
        QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
        QCOMPARE(daemon.exitCode(), 0);
        QTRY_VERIFY(onCp0.notifiesWith("ssdp:byebye").size() >= 3 && onCp1.notifiesWith("ssdp:byebye").size() >= 3);
    }

    void databaseDiesMidCallAndComesBackRenamed()
    {
        // The database lacks the IGMP switch and is slow to answer single reads:
        // stage 1 asks for the switch, and the database dies during the call.
        QVERIFY(namespaces->enter(Cp));
        SsdpPeer controlPoint("cp0", SsdpGroup);
        QVERIFY(namespaces->leave() && controlPoint.isValid());
        QVERIFY(write("first.txt", "generic/name=Living room\ngeneric/zan=false\n")
                && write("second.txt", "generic/name=Attic\ngeneric/zan=false\n")
                && write("third.txt", "generic/name=Cellar\ngeneric/zan=false\n"));
        const QStringList onlyDatabase{"--without", "system", "--without", "diagnosis", "--without", "control", "--config"};
        QProcess database;
        QVERIFY(startBackend(&database, onlyDatabase + QStringList{dir->filePath("first.txt"), "--read-delay", "5000"}));
        QVERIFY(startBackend(&backend, {"--stages", "--without", "database", "--without", "diagnosis", "--interface", "dev0"}));
        QVERIFY(startDaemon());
        QByteArray databaseOut;
        QTRY_VERIFY_WITH_TIMEOUT((databaseOut += database.readAllStandardOutput()).contains("reading network/igmpquerier"),
                                 5000);
        // Its socket goes first: a dying process's listener still takes connections.
        QVERIFY(QFile::remove(dir->filePath("sockets/com.zan.ravo.database")));
        stop(database);

        // The call returns at once, and the cached values serve: the device
        // advertises under its name while stage 3 waits for a database.
        QTRY_VERIFY_WITH_TIMEOUT(logged("getConfigValue call for key network/igmpquerier failed"), 2000);
        QTRY_VERIFY_WITH_TIMEOUT(controlPoint.notifiesWith("ssdp:alive").size() >= 3, 5000);
        QVERIFY(file("files/quarn.upnp").contains("Orvella: Living room"));
        QTRY_VERIFY(backendOut.contains("supervisor: stage 2 done"));
        QTest::qWait(3000); // the error is written once per 10 s, not on every try
        QCOMPARE(logged("failed to open interface to database"), 1);
        QVERIFY(!backendOut.contains("supervisor: stage 3 done"));

        // Another database comes: stage 3 completes, and the batch renames the device.
        QVERIFY(startBackend(&database, onlyDatabase + QStringList{dir->filePath("second.txt")}));
        QTRY_VERIFY_WITH_TIMEOUT(file("files/quarn.upnp").contains("Orvella: Attic"), 5000);
        QTRY_VERIFY(backendOut.contains("supervisor: stage 3 done"));

        // It is restarted with another name: the daemon reconnects by itself.
        stop(database);
        QVERIFY(startBackend(&database, onlyDatabase + QStringList{dir->filePath("third.txt")}));
        QTRY_VERIFY_WITH_TIMEOUT(file("files/quarn.upnp").contains("Orvella: Cellar"), 20000);

        // The diagnosis service comes late, and is restarted: the next heartbeat
        // reaches it each time.
        QProcess diagnosis;
        for (int start = 0; start < 2; ++start) {
            stop(diagnosis);
            QVERIFY(startBackend(&diagnosis, {"--without", "database", "--without", "system", "--without", "control"}));
            QByteArray pings;
            QTRY_VERIFY_WITH_TIMEOUT((pings += diagnosis.readAllStandardOutput()).contains("diagnosis: ping com.zan.ravo.upnp 3"),
                                     3000);
        }

        // It goes again; stage 3 waits again, and quit ends that wait at once.
        stop(database);
        control("runStage", 2);
        control("runStage", 3);
        QTRY_COMPARE(logged("got run signal 3"), 2);
        control("quitModule");
        QVERIFY(daemon.waitForFinished(3000));
        QCOMPARE(daemon.exitCode(), 0);
    }

private:
    // A simulated backend in the device's namespace, once it listens.
    bool startBackend(QProcess* process, const QStringList& arguments)
    {
        process->start("ip", QStringList{"netns", "exec", namespaces->fullName(Dev), BINARY_DIR "/tools/simbackend",
                                         "--socket-dir", dir->filePath("sockets"), "--config", dir->filePath("database.txt")}
                                 + arguments);
        // The main backend's output is gathered by its readyRead handler.
        QByteArray other;
        QByteArray& out = process == &backend ? backendOut : other;
        while (!out.contains("ready\n") && process->waitForReadyRead(5000))
            out += process->readAllStandardOutput();
        return out.contains("ready\n");
    }
    bool startDaemon()
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
        return daemon.waitForStarted();
    }
    QVariant control(const char* method, const SocketArgument& a1 = SocketArgument(),
                     const SocketArgument& a2 = SocketArgument())
    {
        SocketInterface simbackend(SocketConnection::LocalSocketType, "com.zan.ravo.simbackend", dir->filePath("sockets"));
        return simbackend.call(SocketInterface::CallWithReturn, method, a1, a2).toQVariant();
    }
    QByteArray file(const QString& name) const
    {
        QFile in(dir->filePath(name));
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    }
    quint32 configIdOfDescription() const
    {
        const QByteArray digest = QCryptographicHash::hash(file("files/quarn.upnp"), QCryptographicHash::Sha256);
        return qFromLittleEndian<quint32>(digest.constData()) & 0xFFFFFF;
    }
    bool write(const QString& name, const QByteArray& content) const
    {
        QFile out(dir->filePath(name));
        return out.open(QIODevice::WriteOnly) && out.write(content) == content.size();
    }
    // The daemon's log lines so far that contain text.
    int logged(const char* text) const
    {
        return std::count_if(lines.begin(), lines.end(), [text](const auto& line) { return line.text.contains(text); });
    }

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<SyslogReceiver> syslog;
    QList<SyslogReceiver::Line> lines;
    QTimer syslogDrain;
    QProcess backend;
    QByteArray backendOut;
    QProcess daemon;
};

QTEST_GUILESS_MAIN(tst_Daemon)
#include "tst_daemon.moc"
