// The module object on its own: the description and service files, network
// events and run stages. Settings and output files live in a
// temporary directory. A "systemctl" that does nothing stands first on PATH,
// so that no Avahi of this machine is restarted; the restarts are counted from
// the daemon's own log lines (child processes do not run under qemu-user).
#include "logginginterface.h"
#include "networkconfig.h"
#include "stdoutcapture.h"
#include "upnpadaptor.h"
#include "upnpcoordinator.h"

#include <QCryptographicHash>
#include <QSettings>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include "defaults.h"

class tst_UpnpAdaptor : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        qputenv("XDG_CONFIG_HOME", dir.filePath("config").toUtf8());
        QDir().mkpath(dir.filePath("bin"));
        QFile systemctl(dir.filePath("bin/systemctl"));
        QVERIFY(systemctl.open(QIODevice::WriteOnly));
        systemctl.write("#!/bin/sh\nsleep 0.2\n");
        systemctl.close();
        systemctl.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", dir.filePath("bin").toUtf8() + ':' + qgetenv("PATH"));
        initLogging(false, false, false, true);
        // The daemon's own settings are those of its application identity.
        QCoreApplication::setOrganizationName("quarn");
        QCoreApplication::setApplicationName("upnp");
        QSettings().setValue("timing/avahiRestartPause", 0);
    }

    void init()
    {
        configure(SOURCE_DIR "/upnp/data", dir.path());
        QFile::remove(dir.filePath("www/settings.json"));
        logging::__LoggingActive = false;
    }

    void filesFollowNameSerialAndBrand()
    {
        CUpnpAdaptor adaptor;
        const QByteArray udn = adaptor.uuid().toString(QUuid::WithoutBraces).toLatin1();

        // Serial number first: the description is written, Avahi is not restarted
        // while the name is empty.
        QByteArray refusal;
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/serialNumber", "SN<1>", false); }, &refusal), 0);
        QVERIFY2(refusal.contains("EE upnpadaptor.cpp        154 refusing to restart Avahi while the Quarn name is empty"),
                 refusal);
        QVERIFY(read("quarn.upnp").contains("<friendlyName>Orvella: </friendlyName>"));
        QVERIFY(read("quarn.upnp").contains("<serialNumber>SN&amp;lt;1&amp;gt;</serialNumber>"));

        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/name", "A&B <x>", false); }), 1);
        const QByteArray description = read("quarn.upnp");
        QVERIFY(description.contains("<friendlyName>Orvella: A&amp;B &amp;lt;x&amp;gt;</friendlyName>"));
        QVERIFY(description.contains("<UDN>uuid:" + udn + "</UDN>"));
        QVERIFY(description.contains("<manufacturer>Tessaline</manufacturer>"));
        const QByteArray service = read("tessaline-quarn.service");
        QVERIFY(service.contains("<name>Orvella: A&amp;B &amp;lt;x&amp;gt;</name>"));
        QVERIFY(service.contains("<txt-record>udn=uuid:" + udn + "</txt-record>"));
        // The config id: the description's SHA-256, first four bytes little-endian, 24 bits.
        const QByteArray digest = QCryptographicHash::hash(description, QCryptographicHash::Sha256);
        QCOMPARE(adaptor.configId(), qFromLittleEndian<quint32>(digest.constData()) & 0xFFFFFF);

        // The same name again: no file written, no restart.
        QFile::remove(dir.filePath("quarn.upnp"));
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/name", "A&B <x>", false); }), 0);
        QVERIFY(!QFile::exists(dir.filePath("quarn.upnp")));

        const quint32 ludId = adaptor.configId();
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/zan", "true", false); }), 1);
        QVERIFY(read("quarn.upnp").contains("<manufacturer>ZAN</manufacturer>"));
        QVERIFY(adaptor.configId() != ludId);
        // Only "true" counts.
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/zan", "TRUE", false); }), 1);
        QVERIFY(read("quarn.upnp").contains("<manufacturer>Tessaline</manufacturer>"));
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("some/other", "x", false); }), 0);

        // A batch restarts once, at its last pair; changes without one, a
        // second after the last of them.
        QCOMPARE(restarts(adaptor, [&] {
                     adaptor.configValueChanged("generic/zan", "true", true);
                     adaptor.configValueChanged("generic/name", "Attic", true);
                     adaptor.configValueChanged("generic/serialNumber", "SN2", true);
                     adaptor.configValueChanged("network/igmpquerier", "false", false);
                 }),
                 1);
        QElapsedTimer waited;
        waited.start();
        QCOMPARE(restarts(adaptor, [&] {
                     adaptor.configValueChanged("generic/name", "Cellar", true);
                     adaptor.configValueChanged("generic/serialNumber", "SN3", true);
                 }),
                 1);
        QVERIFY(waited.elapsed() >= 1000);

        // Avahi takes 63 bytes: the service file carries the name cut at a
        // character's boundary, the description the whole of it.
        const QString longName = QString(20, QChar(0x00E9)) + "<>" + QString(20, 'x');
        QByteArray cut;
        QCOMPARE(restarts(adaptor, [&] { adaptor.configValueChanged("generic/name", longName, false); }, &cut), 1);
        QVERIFY(read("quarn.upnp").contains(longName.toUtf8().replace("<", "&amp;lt;").replace(">", "&amp;gt;")));
        const QByteArray fitting = "Orvella: " + QString(20, QChar(0x00E9)).toUtf8() + "&amp;lt;&amp;gt;" + "xxxxxx</name>";
        QVERIFY2(read("tessaline-quarn.service").contains("<name>" + fitting), read("tessaline-quarn.service"));
        QCOMPARE(cut.count("WW upnpadaptor.cpp"), 1);

        adaptor.configValueChanged("debug/enableLogging", "true", false);
        QVERIFY(logging::__LoggingActive);
    }

    void commonMistakesAreNamed()
    {
        // Nonsense numbers fall back to their defaults, each with one warning.
        QSettings own;
        own.setValue("timing/rescanInterval", "abc");
        own.setValue("timing/avahiRestartPause", "-5");
        own.setValue("timing/heartbeatInterval", "7200000"); // two hours: over the limit of one
        own.sync();
        StdoutCapture start;
        configure(dir.filePath("no-templates"), dir.path());
        WWWDir = dir.filePath("no-web-root");
        CUpnpAdaptor templatesMissing;
        templatesMissing.run(1);
        const QByteArray started = start.take();
        own.setValue("timing/rescanInterval", 10000);
        own.setValue("timing/avahiRestartPause", 0);
        own.remove("timing/heartbeatInterval");
        const QByteArray file = own.fileName().toUtf8();
        QVERIFY2(started.contains("invalid setting timing/rescanInterval = abc in " + file + " - using 10000"), started);
        QVERIFY2(started.contains("invalid setting timing/avahiRestartPause = -5 in " + file + " - using 2000"), started);
        QVERIFY2(started.contains("invalid setting timing/heartbeatInterval = 7200000 in " + file + " - using 120000"), started);
        QVERIFY(started.contains("WW upnpadaptor.cpp")
                && started.contains("templates missing in " + dir.filePath("no-templates").toUtf8()));
        QVERIFY(started.contains("web root " + dir.filePath("no-web-root").toUtf8() + " is not a folder: set data/wwwpath"));
        if (!QFile::exists("/sys/class/net/wlan0"))
            QVERIFY(started.contains("no wireless interface wlan0"));

        // A missing template or an output that cannot be written: error lines,
        // and Avahi is restarted all the same.
        configure(SOURCE_DIR "/upnp/data", dir.filePath("no-such-dir"));
        CUpnpAdaptor outputMissing;
        QByteArray out, more;
        for (auto [adaptor, log] : {std::make_pair(&templatesMissing, &out), std::make_pair(&outputMissing, &more)})
            QCOMPARE(restarts(*adaptor, [&] { adaptor->configValueChanged("generic/name", "Kitchen", false); }, log), 1);
        out += more;
        QVERIFY2(out.contains("EE upnpadaptor.cpp        289 Failed to open  quarn-lud.upnp "), out);
        QVERIFY2(out.contains("EE upnpadaptor.cpp        289 Failed to open  quarn.avahi "), out);
        QVERIFY2(out.contains("EE upnpadaptor.cpp        306 Failed to open " + dir.filePath("no-such-dir").toUtf8()
                              + "/quarn.upnp for writing: "),
                 out);
    }

    void stagesAndNetworkEventsWaitForTheCoordinator()
    {
        auto event = [](const QString& interface, qint32 version = 1, qint32 state = 1) {
            NetworkConfig config;
            config.version = version;
            config.state = state;
            config.interfaceName = interface;
            return config.toByteArray();
        };
        CUpnpAdaptor adaptor;
        adaptor.configValueChanged("generic/name", "Hall", false);
        logging::__LoggingActive = true;
        QCOMPARE(adaptor.getRunStage(), 255);
        QByteArray out;
        // Avahi follows interfaces coming up, once for those that come together.
        QCOMPARE(restarts(adaptor, [&] {
                     adaptor.run(2);
                     adaptor.run(2);
                     adaptor.run(1); // no settings.json yet: the coordinator waits for it
                     adaptor.networkEvent(3, event("lo"), 1);
                     adaptor.networkEvent(3, event("gone0"), 1);
                     adaptor.networkEvent(5, event("gone0"), 1);      // up and down: nothing pending
                     adaptor.networkEvent(3, event("idle0", 1, 0), 1); // state 0: not acted on
                     adaptor.networkEvent(3, event("old0", 2), 1);    // wrong version: logged, acted on
                     adaptor.networkEvent(3, event("cut0").left(30), 1);
                     adaptor.networkEvent(7, event("other0"), 1);     // other codes: ignored
                 }, &out),
                 1);
        QVERIFY(out.contains("-- upnpadaptor.cpp        168 got run signal 2"));
        QCOMPARE(out.count("WW upnpadaptor.cpp        172 received same run stage twice 2"), 1);
        QVERIFY2(out.contains("upnpadaptor.cpp        325 delaying coordinator creation, "
                              + dir.filePath("www/settings.json").toUtf8()
                              + " does not exist yet"),
                 out);
        QVERIFY2(out.contains("EE networkconfig.cpp       97 Invalid NetworkConfig version 2"), out);
        QVERIFY2(out.contains("truncated network configuration"), out);
        QCOMPARE(adaptor.getRunStage(), 1);

        QFile settings(dir.filePath("www/settings.json"));
        QVERIFY(settings.open(QIODevice::WriteOnly)); // empty does not count
        settings.close();
        StdoutCapture retry;
        QTRY_VERIFY(retry.peek().contains("325 delaying coordinator creation"));
        QVERIFY(!adaptor.coordinator());
        QVERIFY(settings.open(QIODevice::WriteOnly));
        settings.write("{}");
        settings.close();
        QTRY_VERIFY_WITH_TIMEOUT(adaptor.coordinator(), 2000);
        QCOMPARE(adaptor.coordinator()->deviceTypes(), QList<QByteArray>{"urn:tessaline:device:Quarn:1"});
        QCOMPARE(adaptor.coordinator()->uuid(), adaptor.uuid().toString(QUuid::WithoutBraces).toLatin1());
        // What waited reaches it now.
        const QByteArray created = retry.take();
        QCOMPARE(created.count("addInterface"), 2);
        QVERIFY(created.contains("addInterface lo"));
        QVERIFY(created.contains("cannot find interface named old0"));
        QVERIFY(!(out + created).contains("gone0 ") && !(out + created).contains("idle0") && !(out + created).contains("other0"));

        // With the coordinator, events go straight to it.
        StdoutCapture more;
        adaptor.networkEvent(5, event("lo"), 1);
        QVERIFY(more.take().contains("removeInterface lo"));
        adaptor.run(0 + 2); // stage 2 after another stage is acted on again
        QCOMPARE(adaptor.getRunStage(), 2);
    }

private:
    QByteArray read(const QString& name) const
    {
        QFile file(dir.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    // Avahi restarts that action leads to; its log lines go to log.
    int restarts(CUpnpAdaptor& adaptor, const std::function<void()>& action, QByteArray* log = nullptr)
    {
        const bool detailed = logging::__LoggingActive;
        logging::__LoggingActive = true;
        StdoutCapture capture;
        QElapsedTimer clock;
        clock.start();
        action();
        // The event loop turns all the while: a restart never waits for systemctl.
        qint64 longestTurn = clock.elapsed();
        while (adaptor.isAvahiRestartPending() && clock.elapsed() < 5000) {
            const qint64 before = clock.elapsed();
            QTest::qWait(10);
            longestTurn = std::max(longestTurn, clock.elapsed() - before);
        }
        const QByteArray out = capture.take();
        if (longestTurn > 150 || adaptor.isAvahiRestartPending())
            return -1;
        logging::__LoggingActive = detailed;
        if (log)
            *log = out;
        return out.count("-- upnpadaptor.cpp        158 restartAvahi");
    }
    void configure(const QString& templates, const QString& output)
    {
        QSettings database("quarn", "database");
        database.setValue("socketDir", dir.path());
        database.setValue("data/constpath", templates);
        database.setValue("upnpConfigFileName", output + "/quarn.upnp");
        database.setValue("avahiConfigFileName", output + "/tessaline-quarn.service");
        WWWDir = dir.filePath("www");
        QDir().mkpath(WWWDir);
    }

    QTemporaryDir dir;
};

QTEST_GUILESS_MAIN(tst_UpnpAdaptor)
#include "tst_upnpadaptor.moc"
