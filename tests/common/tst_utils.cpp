#include "internalid.h"
#include "logginginterface.h"
#include "profiler.h"
#include "spinlock.h"
#include "stdoutcapture.h"
#include "upnpadaptor.h"
#include "utils.h"

#include <QtTest>

class tst_Utils : public QObject
{
    Q_OBJECT

private slots:
    void deviceUuidComesFromTheWlanMac_data();
    void deviceUuidComesFromTheWlanMac();
    void escapeXmlKeepsTheDoubleEscaping();
    void profilerTableIsSortedByTheChosenColumn();
    void spinLockTakenTwiceOnOneThreadIsReportedNotDeadlocked();
    void defaultInternalIdIsInvalid();
};

void tst_Utils::escapeXmlKeepsTheDoubleEscaping()
{
    const char* const rows[][2] = {{"Living room", "Living room"},
                                   {"A&B", "A&amp;B"},
                                   {"<x>", "&amp;lt;x&amp;gt;"}, // angle brackets escaped twice
                                   {"it's \"on\"", "it&apos;s &quot;on&quot;"},
                                   {"&amp;", "&amp;amp;"}};
    for (const auto& row : rows)
        QCOMPARE(Utils::escapeXml(row[0]), QString(row[1]));
}

void tst_Utils::profilerTableIsSortedByTheChosenColumn()
{
    Profiler profiler;
    profiler.addCall("rescan", 3000000);
    profiler.addCall("rescan", 1000000);
    profiler.addCall("invoke", 5000000);
    for (int i = 0; i < 3; ++i)
        profiler.addCall("announce", 500000);

    auto order = [&profiler](int column) {
        QStringList names;
        const QStringList lines = profiler.statistics(column).split('\n', Qt::SkipEmptyParts);
        for (const QString& line : lines.mid(1, 3))
            names << line.section(' ', 0, 0);
        return names;
    };
    QCOMPARE(order(Profiler::NameColumn), QStringList({"announce", "invoke", "rescan"}));
    QCOMPARE(order(Profiler::CallsColumn), QStringList({"announce", "rescan", "invoke"}));
    QCOMPARE(order(Profiler::TotalColumn), QStringList({"invoke", "rescan", "announce"}));
    QCOMPARE(order(Profiler::LastColumn), QStringList({"invoke", "rescan", "announce"}));
    QCOMPARE(order(Profiler::MeanColumn), QStringList({"invoke", "rescan", "announce"}));
    QCOMPARE(order(42), order(Profiler::NameColumn));

    const QStringList lines = profiler.statistics(Profiler::NameColumn).split('\n');
    QVERIFY(lines.at(0).startsWith("name"));
    // rescan: 2 calls, 4 ms in all, 3 ms the longest, 2 ms on average, 1 ms the last.
    QCOMPARE(lines.at(3).simplified(), QString("rescan 2 4.000 3.000 2.000 1.000"));
    QVERIFY(Profiler::peakResidentKiB() > 0);
    QVERIFY2(QRegularExpression("^peak memory: [1-9][0-9]* KiB resident").match(lines.at(4)).hasMatch(),
             qPrintable(lines.at(4)));
}

void tst_Utils::spinLockTakenTwiceOnOneThreadIsReportedNotDeadlocked()
{
    initLogging(false, false, false, true);
    SpinLock lock("call lock");
    StdoutCapture capture;
    QByteArray holder;
    bool lockedWhileNested = false;
    {
        SpinLocker outer(lock, "call: getConfigValue(QString)");
        holder = lock.holder();
        SpinLocker inner(lock, "call: setConfigValue(QString,QString,bool)");
        lockedWhileNested = lock.isLocked();
    }
    const bool releasedAfterBoth = !lock.isLocked();
    lock.unlock();
    const QByteArray out = capture.take();
    QCOMPARE(holder, QByteArray("call: getConfigValue(QString)"));
    QVERIFY(lockedWhileNested && releasedAfterBoth);
    QVERIFY2(out.contains("spin lock call lock taken again by call: setConfigValue(QString,QString,bool) "
                          "while held by call: getConfigValue(QString)")
                 && out.contains("spin lock call lock released while not held"),
             out);
}

void tst_Utils::defaultInternalIdIsInvalid()
{
    InternalId id;
    QVERIFY(!id.isValid());
    id.kind = InternalId::Device;
    id.serialNumber = 4711;
    QVERIFY(id.isValid());
    QCOMPARE(id.toString(), QString("1:0-4711:0.0"));
}

void tst_Utils::deviceUuidComesFromTheWlanMac_data()
{
    QTest::addColumn<QString>("mac");
    QTest::addColumn<QString>("uuid");
    QTest::newRow("as the kernel writes it") << "00:11:22:33:44:55\n" << "33221100-5511-4433-0011-443311332211";
    QTest::newRow("upper case") << "AA:BB:CC:DD:EE:FF" << "ddccbbaa-ffbb-eedd-aabb-eeddbbddccbb";
    QTest::newRow("invalid pair reads as 0") << "zz:11:22:33:44:55" << "33221100-5511-4433-0011-443311332211";
    QTest::newRow("too short") << "01:02" << "00000201-0002-0000-0102-000002000002";
}

void tst_Utils::deviceUuidComesFromTheWlanMac()
{
    QFETCH(QString, mac);
    QFETCH(QString, uuid);
    QCOMPARE(CUpnpAdaptor::makeDeviceUuid(mac).toString(QUuid::WithoutBraces), uuid);
    QCOMPARE(CUpnpAdaptor::makeDeviceUuid(mac), CUpnpAdaptor::makeDeviceUuid(mac));

    initLogging(false, false, false, true);
    StdoutCapture capture;
    const QUuid first = CUpnpAdaptor::makeDeviceUuid(QString());
    const QUuid second = CUpnpAdaptor::makeDeviceUuid(QString());
    const QByteArray out = capture.take();
    QVERIFY(first != second);
    QCOMPARE(out.count("WW upnpadaptor.cpp         48 Failed to get wlan mac address, generating random UDN"), 2);

    qputenv("RAVO_MACHINE", "imx8mp-quarn");
    QCOMPARE(Utils::wlanInterfaceName(), QString("mlan0"));
    qputenv("RAVO_MACHINE", "quarn-a");
    QCOMPARE(Utils::wlanInterfaceName(), QString("wlan0"));
}

QTEST_GUILESS_MAIN(tst_Utils)
#include "tst_utils.moc"
