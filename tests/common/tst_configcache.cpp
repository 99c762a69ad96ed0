// The configuration cache against a database that is absent, answers with
// the wrong types, sends its signals on request, and goes away.
#include "configcache.h"
#include "logginginterface.h"
#include "socketinterface.h"
#include "stdoutcapture.h"

#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

// Takes another service's signal, and what the cache held when it came.
class Receiver : public QObject
{
    Q_OBJECT

public:
    QStringList got;

public slots:
    void changed(QString text, int)
    {
        got << text + '/' + ConfigCache::instance()->getConfigValue("generic/name");
    }
};

class tst_ConfigCache : public QObject
{
    Q_OBJECT

private slots:
    void cacheOutlivesAnOddDatabase()
    {
        QTemporaryDir dir;
        qputenv("XDG_CONFIG_HOME", dir.filePath("config").toUtf8());
        QSettings("quarn", "database").setValue("socketDir", dir.path());
        initLogging(false, false, false, true);

        ConfigCache* cache = ConfigCache::instance();
        QSignalSpy changes(cache, &ConfigCache::valueChanged);

        // Absent: reads fail with two lines, writes still reach the cache.
        StdoutCapture absent;
        bool ok = true;
        const QString unknown = cache->getConfigValue("generic/name", &ok);
        const bool written = cache->setConfigValueNonblock("generic/serialNumber", "SN1", false);
        const bool connected = cache->connectToDatabase();
        const QByteArray absentOut = absent.take();
        QVERIFY(!ok && unknown.isEmpty() && !written && !connected);
        QVERIFY(absentOut.contains("failed to get config value for generic/name - not connected to database"));
        QVERIFY(absentOut.contains("failed to open interface to database ServerNotFoundError"));
        QCOMPARE(cache->getConfigValue("generic/serialNumber", &ok), QString("SN1"));
        QVERIFY(ok);

        QProcess database;
        database.start(BINARY_DIR "/tests/rpctestserver", {dir.path(), "local", "database"});
        QVERIFY(database.waitForReadyRead(5000));
        QVERIFY(cache->connectToDatabase());
        SocketInterface control(SocketConnection::LocalSocketType, "com.zan.ravo.database", dir.path());

        // A single change before the first batch is dropped on purpose. Another
        // service's signals are held for the batch, also when their interface is
        // dropped before the event loop has seen them (the system client at
        // stage 2): one parsed during a blocking call, one still unread.
        QProcess service;
        service.start(BINARY_DIR "/tests/rpctestserver", {dir.path(), "local"});
        QVERIFY(service.waitForReadyRead(5000));
        Receiver receiver;
        auto* events = new SocketInterface(SocketConnection::LocalSocketType, "com.zan.ravo.testserver", dir.path());
        QVERIFY(events->connectDynamicSignal("changed(QString,int)", &receiver, "changed(QString,int)"));
        events->call(SocketInterface::CallWithReturn, "notifyThenAnswer", QString("first"));
        SocketInterface(SocketConnection::LocalSocketType, "com.zan.ravo.testserver", dir.path())
            .call(SocketInterface::CallWithReturn, "notifyThenAnswer", QString("second"));
        events->deliverArrivedSignals();
        delete events;
        control.call(SocketInterface::CallWithReturn, "changed", QString("early"), QString("1"));
        // A non-string answer is cached as an empty string. The answer follows
        // the change signal on the cache's connection: the signal is in.
        StdoutCapture typed;
        const QString seven = cache->getConfigValue("early", &ok);
        const bool feature = cache->getFeatureSupport("wifi");
        const QByteArray typedOut = typed.take();
        QCoreApplication::processEvents();
        QVERIFY(changes.isEmpty() && receiver.got.isEmpty());
        QVERIFY(ok && seven.isEmpty() && !feature);
        QVERIFY(typedOut.contains("type is not string16 - returning default value type= 5"));
        QVERIFY(typedOut.contains("type is not bool - returning default value type= 1"));

        // The batch (its rules are the fuzz target's) comes first, then what was
        // held, and from now on single changes count. An odd one is named.
        StdoutCapture odd;
        control.call(SocketInterface::CallWithReturn, "batch", QStringList{"a", "1", "b"});
        QTRY_VERIFY(odd.peek().contains("configValueBatchUpdate received an odd-length list: 3"));
        control.call(SocketInterface::CallWithReturn, "batch", QStringList{"generic/name", "Hall", "generic/zan", "true"});
        QTRY_COMPARE(changes.count(), 2);
        QCOMPARE(receiver.got, QStringList({"first/Hall", "second/Hall"}));
        control.call(SocketInterface::CallWithReturn, "changed", QString("generic/name"), QString("Attic"));
        QTRY_COMPARE(changes.count(), 3);
        QCOMPARE(cache->getConfigValue("generic/name"), QString("Attic"));

        // The database goes: what is cached stays readable.
        control.call("leave");
        QVERIFY(database.waitForFinished(5000));
        QTRY_VERIFY(!cache->isConnected());
        QCOMPARE(cache->getConfigValue("generic/zan", &ok), QString("true"));
        QVERIFY(ok);
        ConfigCache::deleteInstance();
        service.kill();
        service.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(tst_ConfigCache)
#include "tst_configcache.moc"
