// The querier's codec and state machine, with its sends recorded instead of
// written to a raw socket and its timings shrunk.
#include "igmpquerier.h"
#include "logginginterface.h"
#include "stdoutcapture.h"

#include <QtEndian>
#include <QtTest>

namespace {

const quint32 OwnAddress = 0x0A4D000A;  // 10.77.0.10
const quint32 LowerAddress = 0x0A4D0001;
const quint32 HigherAddress = 0x0A4D0014;
const quint32 Group = 0xEFFFFFFA;       // 239.255.255.250
const quint32 AllHosts = 0xE0000001;
const quint32 AllRouters = 0xE0000002;

// An IGMP message of the given type with the group in network order, as hosts send it.
QByteArray hostMessage(quint8 type, quint32 group)
{
    QByteArray message(8, '\0');
    message[0] = char(type);
    qToBigEndian(group, message.data() + 4);
    qToBigEndian(IGMPQuerier::calculateIGMPChecksum(message), message.data() + 2);
    return message;
}

// A 20-byte IPv4 header (no options) in front of payload.
QByteArray ipv4Packet(quint32 source, quint32 destination, const QByteArray& payload)
{
    QByteArray header(20, '\0');
    header[0] = char(0x45);
    header[8] = 1;
    header[9] = 2; // IGMP
    qToBigEndian(source, header.data() + 12);
    qToBigEndian(destination, header.data() + 16);
    return header + payload;
}

struct Sent
{
    QByteArray message;
    quint32 destination;
    qint64 at;
};

// A querier on 10.77.0.10/24 whose messages land in a list.
class RecordingQuerier
{
public:
    explicit RecordingQuerier(const IGMPTimings& timings = IGMPTimings())
    {
        clock.start();
        QNetworkAddressEntry entry;
        entry.setIp(QHostAddress(OwnAddress));
        entry.setPrefixLength(24);
        querier.reset(new IGMPQuerier(QNetworkInterface(), entry, nullptr, timings,
                                      [this](const QByteArray& message, quint32 destination) {
                                          sent.append({message, destination, clock.elapsed()});
                                          return true;
                                      }));
    }

    void receive(quint32 source, quint32 destination, const QByteArray& message)
    {
        querier->handlePacket(ipv4Packet(source, destination, message));
    }
    void report(quint32 group, quint8 type = IGMPQuerier::Version2MembershipReport)
    {
        receive(OwnAddress + 5, group, hostMessage(type, group));
    }
    void leave(quint32 group) { receive(OwnAddress + 5, AllRouters, hostMessage(IGMPQuerier::LeaveGroup, group)); }
    IGMPQuerier::GroupState state(quint32 group) const { return querier->groups().value(group).state; }

    QElapsedTimer clock;
    QList<Sent> sent;
    std::unique_ptr<IGMPQuerier> querier;
};

} // namespace

class tst_IGMPQuerier : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void messagesCarryTheGoldenBytes();
    void checksumCoversOddShortAndCarryingMessages_data();
    void checksumCoversOddShortAndCarryingMessages();
    void malformedPacketsAreDroppedSilently_data();
    void malformedPacketsAreDroppedSilently();
    void generalQueriesFollowTheStartupSchedule();
    void reportsAndLeavesDriveTheGroupStates();
    void leftGroupIsQueriedTwiceThenRemoved();
    void groupsLapseWithoutReports();
    void lowerQuerierSilencesUsUntilItGoesQuiet();
    void tableKeepsAtMostOneHundredGroups();
};

void tst_IGMPQuerier::initTestCase()
{
    initLogging(false, false, false, true);
    std::srand(7);
}

void tst_IGMPQuerier::messagesCarryTheGoldenBytes()
{
    if (QSysInfo::ByteOrder != QSysInfo::LittleEndian)
        QSKIP("the group bytes are those of a little-endian machine");
    const struct
    {
        quint32 group;
        quint8 maxResponse;
        const char* bytes;
    } queries[] = {
        {0, 10, "11 64 ee 9b 00 00 00 00"},          // general query
        {0xEF010203, 0, "11 00 ea 0e 03 02 01 ef"}, // 239.1.2.3 stays in host byte order, as peers know it
        {0, 26, "11 04 ee fb 00 00 00 00"},          // response time kept to 8 bits
    };
    for (const auto& query : queries) {
        const QByteArray message = IGMPQuerier::buildIGMPMessage(IGMPQuerier::MembershipQuery, query.group,
                                                                 query.maxResponse);
        QCOMPARE(message.toHex(' '), QByteArray(query.bytes));
        QVERIFY(IGMPQuerier::validateIGMPChecksum(message));
    }
}

void tst_IGMPQuerier::checksumCoversOddShortAndCarryingMessages_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<int>("checksum");
    QTest::newRow("empty") << QByteArray() << 0xFFFF;
    QTest::newRow("one byte") << QByteArray::fromHex("12") << 0xEDFF;
    QTest::newRow("odd length, padded for the sum") << QByteArray::fromHex("010203") << 0xFEFD;
    QTest::newRow("stored checksum ignored") << QByteArray::fromHex("11641234 00000000") << 0xEE9B;
    QTest::newRow("carries folded") << QByteArray::fromHex("ffff0000 ffffffff") << 0x0000;
    QTest::newRow("odd length report") << QByteArray::fromHex("16000000 effffffa 07") << 0xF304;
}

void tst_IGMPQuerier::checksumCoversOddShortAndCarryingMessages()
{
    QFETCH(QByteArray, message);
    QFETCH(int, checksum);
    QCOMPARE(int(IGMPQuerier::calculateIGMPChecksum(message)), checksum);
    if (message.size() < 4) {
        QVERIFY(!IGMPQuerier::validateIGMPChecksum(message));
        return;
    }
    qToBigEndian(quint16(checksum), message.data() + 2);
    QVERIFY(IGMPQuerier::validateIGMPChecksum(message));
    message[0] = char(message.at(0) ^ 0x40);
    QVERIFY(!IGMPQuerier::validateIGMPChecksum(message));
}

void tst_IGMPQuerier::malformedPacketsAreDroppedSilently_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<bool>("accepted");

    const QByteArray report = hostMessage(IGMPQuerier::Version2MembershipReport, Group);
    const QByteArray valid = ipv4Packet(OwnAddress + 1, Group, report);
    QTest::newRow("valid report") << valid << true;

    QByteArray options = valid;
    options[0] = char(0x46); // four bytes of options in front of the message
    options.insert(20, QByteArray(4, '\0'));
    QTest::newRow("header with options") << options << true;

    QByteArray longHeader = valid;
    longHeader[0] = char(0x4F); // claims 60 bytes, has 28
    QTest::newRow("header nibble 15, packet shorter") << longHeader << false;
    // Read behind a 4-byte header, these bytes would make a valid report.
    QByteArray tail = hostMessage(IGMPQuerier::Version2MembershipReport, Group) + QByteArray(8, '\0');
    qToBigEndian(OwnAddress + 1, tail.data() + 8);
    qToBigEndian(Group, tail.data() + 12);
    qToBigEndian(IGMPQuerier::calculateIGMPChecksum(tail), tail.data() + 2);
    QTest::newRow("header nibble 1") << QByteArray::fromHex("41000000") + tail << false;
    QTest::newRow("shorter than an IPv4 header") << valid.left(19) << false;
    QByteArray seven = report.left(7);
    qToBigEndian(IGMPQuerier::calculateIGMPChecksum(seven), seven.data() + 2);
    QTest::newRow("message of 7 bytes, checksum right") << ipv4Packet(OwnAddress + 1, Group, seven) << false;
    QByteArray badChecksum = valid;
    badChecksum[23] = char(badChecksum.at(23) ^ 1);
    QTest::newRow("bad checksum") << badChecksum << false;
    QTest::newRow("foreign subnet") << ipv4Packet(0x0A4E0001, Group, report) << false;
    QTest::newRow("unknown type") << ipv4Packet(OwnAddress + 1, Group, hostMessage(0x99, Group)) << false;
}

void tst_IGMPQuerier::malformedPacketsAreDroppedSilently()
{
    QFETCH(QByteArray, packet);
    QFETCH(bool, accepted);
    RecordingQuerier recorder;
    StdoutCapture capture;
    recorder.querier->handlePacket(packet);
    QCOMPARE(capture.take(), QByteArray());
    QCOMPARE(recorder.querier->groups().contains(Group), accepted);
    QCOMPARE(recorder.sent.size(), 1); // the start's general query only
}

void tst_IGMPQuerier::generalQueriesFollowTheStartupSchedule()
{
    IGMPTimings timings;
    timings.startupQueryInterval = 100;
    timings.queryInterval = 400;
    RecordingQuerier recorder(timings);
    QCOMPARE(recorder.sent.size(), 1); // at once
    QTRY_COMPARE_WITH_TIMEOUT(recorder.sent.size(), 3, 2000);
    for (const Sent& query : qAsConst(recorder.sent)) {
        QCOMPARE(query.destination, AllHosts);
        QCOMPARE(query.message, IGMPQuerier::buildIGMPMessage(IGMPQuerier::MembershipQuery, 0, 10));
    }
    // Startup: two queries a startup interval apart, then the query interval
    // (Qt's coarse timers may fire up to 5 % early).
    QVERIFY(recorder.sent.at(0).at < 50);
    QVERIFY(recorder.sent.at(1).at >= 95 && recorder.sent.at(1).at < 300);
    QVERIFY2(recorder.sent.at(2).at - recorder.sent.at(1).at >= 380,
             qPrintable(QString::number(recorder.sent.at(2).at)));
}

void tst_IGMPQuerier::reportsAndLeavesDriveTheGroupStates()
{
    RecordingQuerier recorder;
    const quint32 other = 0xEF000001;

    recorder.report(Group);
    QCOMPARE(recorder.state(Group), IGMPQuerier::MembersPresent);
    QCOMPARE(recorder.querier->groups().value(Group).membershipTimeout, 260000);

    recorder.report(other, IGMPQuerier::Version1MembershipReport);
    QCOMPARE(recorder.state(other), IGMPQuerier::V1MembersPresent);
    recorder.report(other); // a version 2 report leaves version 1 hosts present
    QCOMPARE(recorder.state(other), IGMPQuerier::V1MembersPresent);
    recorder.leave(other); // not honoured while version 1 hosts are present
    QCOMPARE(recorder.state(other), IGMPQuerier::V1MembersPresent);
    QCOMPARE(recorder.sent.size(), 1);

    recorder.leave(Group);
    QCOMPARE(recorder.state(Group), IGMPQuerier::CheckingMembership);
    QCOMPARE(recorder.querier->groups().value(Group).membershipTimeout, 2000);
    QCOMPARE(recorder.sent.size(), 2);
    QCOMPARE(recorder.sent.last().destination, Group);
    QCOMPARE(recorder.sent.last().message, IGMPQuerier::buildIGMPMessage(IGMPQuerier::MembershipQuery, Group, 0));

    recorder.report(Group); // a member answered
    QCOMPARE(recorder.state(Group), IGMPQuerier::MembersPresent);
    recorder.leave(0xEF000099); // a group nobody reported
    QVERIFY(!recorder.querier->groups().contains(0xEF000099));
    QCOMPARE(recorder.sent.size(), 2);
}

void tst_IGMPQuerier::leftGroupIsQueriedTwiceThenRemoved()
{
    IGMPTimings timings;
    timings.lastMemberQueryInterval = 150;
    timings.leaveMembershipTimeout = 300;
    RecordingQuerier recorder(timings);
    recorder.report(Group);
    const qint64 left = recorder.clock.elapsed();
    recorder.leave(Group);
    QTRY_VERIFY_WITH_TIMEOUT(!recorder.querier->groups().contains(Group), 2000);
    const qint64 removed = recorder.clock.elapsed();

    QCOMPARE(recorder.sent.size(), 3);
    const Sent& first = recorder.sent.at(1);
    const Sent& second = recorder.sent.at(2);
    QCOMPARE(first.destination, Group);
    QCOMPARE(second.message, first.message);
    QVERIFY(first.at - left < 50);
    QVERIFY2(second.at - first.at >= 150 && second.at - first.at < 290,
             qPrintable(QString::number(second.at - first.at)));
    QVERIFY2(removed - left >= 300, qPrintable(QString::number(removed - left)));
}

void tst_IGMPQuerier::groupsLapseWithoutReports()
{
    IGMPTimings timings;
    timings.groupMembershipInterval = 400;
    timings.version1HostPresentInterval = 150;
    RecordingQuerier recorder(timings);
    recorder.report(Group, IGMPQuerier::Version1MembershipReport);
    recorder.report(0xEF000001);

    // Version 1 hosts gone quiet: the group falls back to version 2 members.
    QTRY_COMPARE_WITH_TIMEOUT(recorder.state(Group), IGMPQuerier::MembersPresent, 1000);
    QVERIFY(recorder.clock.elapsed() >= 150);
    QVERIFY(recorder.querier->groups().contains(0xEF000001));
    // No more reports: both lapse after the membership interval, no queries sent.
    QTRY_VERIFY_WITH_TIMEOUT(recorder.querier->groups().isEmpty(), 2000);
    QVERIFY(recorder.clock.elapsed() >= 400);
    QCOMPARE(recorder.sent.size(), 1);
}

void tst_IGMPQuerier::lowerQuerierSilencesUsUntilItGoesQuiet()
{
    IGMPTimings timings;
    timings.startupQueryInterval = 100;
    timings.queryInterval = 5000;
    timings.otherQuerierPresentInterval = 400;
    RecordingQuerier recorder(timings);
    const QByteArray query = hostMessage(IGMPQuerier::MembershipQuery, 0);

    recorder.receive(OwnAddress, AllHosts, query); // our own, looped back
    recorder.receive(HigherAddress, AllHosts, query);
    QVERIFY(recorder.querier->isQuerier());
    recorder.report(Group);

    recorder.receive(LowerAddress, AllHosts, query);
    QVERIFY(!recorder.querier->isQuerier());
    QVERIFY(recorder.querier->groups().isEmpty());
    recorder.report(Group); // only the querier keeps the table
    QVERIFY(recorder.querier->groups().isEmpty());

    // Silent while the other querier keeps querying...
    const int before = recorder.sent.size();
    for (int i = 0; i < 3; ++i) {
        QTest::qWait(200);
        recorder.receive(LowerAddress, AllHosts, query);
    }
    QCOMPARE(recorder.sent.size(), before);
    QVERIFY(!recorder.querier->isQuerier());

    // ...and back at once when it has been quiet for the other-querier-present interval.
    const qint64 quiet = recorder.clock.elapsed();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.sent.size(), before + 1, 2000);
    QVERIFY(recorder.querier->isQuerier());
    QVERIFY(recorder.sent.last().at - quiet >= 380);
    // The startup phase was cut short by the election: it keeps the startup
    // interval rather than the query interval.
    QTRY_COMPARE_WITH_TIMEOUT(recorder.sent.size(), before + 2, 1000);
    QVERIFY(recorder.sent.last().at - recorder.sent.at(before).at < 1000);
}

void tst_IGMPQuerier::tableKeepsAtMostOneHundredGroups()
{
    RecordingQuerier recorder;
    for (quint32 i = 0; i < 150; ++i) {
        recorder.report(0xEF000000 + i);
        QVERIFY(recorder.querier->groups().size() <= 100);
    }
    QCOMPARE(recorder.querier->groups().size(), 100);
    // The last report always stays: eviction picks among the first hundred.
    QVERIFY(recorder.querier->groups().contains(0xEF000000 + 149));
}

QTEST_GUILESS_MAIN(tst_IGMPQuerier)
#include "tst_igmpquerier.moc"
