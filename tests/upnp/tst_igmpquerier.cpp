// The querier's codec and state machine, with its sends recorded instead of
// written to a raw socket and its timings shrunk.
#include "igmpquerier.h"
#include "logginginterface.h"
#include "stdoutcapture.h"

#include <QtEndian>
#include <QtTest>

namespace {

const quint32 OwnAddress = 0xC000020A;  // 192.0.2.10
const quint32 LowerAddress = 0xC0000201;
const quint32 Group = 0xEFFFFFFA;       // 239.255.255.250
const quint32 AllHosts = 0xE0000001;

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
    QByteArray header = QByteArray::fromHex("45000000 00000000 01020000") + QByteArray(8, '\0'); // TTL 1, IGMP
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

// A querier on 192.0.2.10/24 whose messages land in a list.
struct RecordingQuerier
{
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
    // To all routers, naming the group in the message.
    void leave(quint32 group) { receive(OwnAddress + 5, 0xE0000002, hostMessage(IGMPQuerier::LeaveGroup, group)); }
    IGMPQuerier::GroupState state(quint32 group) const { return querier->groups().value(group).state; }
    const QMap<quint32, IGMPQuerier::MulticastGroup>& groups() const { return querier->groups(); }

    QElapsedTimer clock;
    QList<Sent> sent;
    std::unique_ptr<IGMPQuerier> querier;
};

// The query the querier sends for group: group-specific, or general for 0.
QByteArray membershipQuery(quint32 group)
{
    return IGMPQuerier::buildIGMPMessage(IGMPQuerier::MembershipQuery, group, group ? 1 : 10);
}

} // namespace

class tst_IGMPQuerier : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        initLogging(false, false, false, true);
        std::srand(7);
    }

    void checksumsAndQueriesCarryTheGoldenBytes()
    {
        // Odd lengths padded for the sum, the stored checksum ignored, carries folded twice.
        const struct
        {
            const char* hex;
            quint16 checksum;
        } rows[] = {{"", 0xFFFF}, {"12", 0xEDFF}, {"010203", 0xFEFD}, {"11641234 00000000", 0xEE9B},
                    {"ffff0000 ffffffff", 0x0000}, {"ffff0000 ffff0001", 0xFFFE}, {"16000000 effffffa 07", 0xF304}};
        for (const auto& row : rows) {
            QByteArray message = QByteArray::fromHex(row.hex);
            QCOMPARE(IGMPQuerier::calculateIGMPChecksum(message), row.checksum);
            if (message.size() >= 4) { // shorter ones never validate
                qToBigEndian(row.checksum, message.data() + 2);
                QVERIFY(IGMPQuerier::validateIGMPChecksum(message));
                message[0] = char(message.at(0) ^ 0x40);
            }
            QVERIFY(!IGMPQuerier::validateIGMPChecksum(message));
        }

        QCOMPARE(membershipQuery(0).toHex(' '), QByteArray("11 64 ee 9b 00 00 00 00"));
        // The response time is kept to 8 bits.
        QCOMPARE(IGMPQuerier::buildIGMPMessage(IGMPQuerier::MembershipQuery, 0, 26).toHex(' '),
                 QByteArray("11 04 ee fb 00 00 00 00"));
        // A group-specific query for 239.1.2.3: the group in network order, a
        // response time of 1 s. With 0 there, hosts would take it for IGMPv1's.
        QCOMPARE(membershipQuery(0xEF010203).toHex(' '), QByteArray("11 0a fd f0 ef 01 02 03"));
    }

    void malformedPacketsAreDroppedSilently_data()
    {
        QTest::addColumn<QByteArray>("packet");
        QTest::addColumn<bool>("accepted");
        const QByteArray report = hostMessage(IGMPQuerier::Version2MembershipReport, Group);
        const QByteArray valid = ipv4Packet(OwnAddress + 1, Group, report);
        QByteArray options = valid, longHeader = valid, badChecksum = valid, seven = report.left(7);
        options[0] = char(0x46); // four bytes of options in front of the message
        options.insert(20, QByteArray(4, '\0'));
        longHeader[0] = char(0x4F); // claims 60 bytes, has 28
        badChecksum[23] = char(badChecksum.at(23) ^ 1);
        qToBigEndian(IGMPQuerier::calculateIGMPChecksum(seven), seven.data() + 2);

        QTest::newRow("valid report") << valid << true;
        QTest::newRow("header with options") << options << true;
        QTest::newRow("header nibble 15, packet shorter") << longHeader << false;
        QTest::newRow("shorter than an IPv4 header") << valid.left(19) << false;
        QTest::newRow("message of 7 bytes, checksum right") << ipv4Packet(OwnAddress + 1, Group, seven) << false;
        QTest::newRow("bad checksum") << badChecksum << false;
        QTest::newRow("foreign subnet") << ipv4Packet(0xC6336401, Group, report) << false;
        QTest::newRow("report for all hosts") << ipv4Packet(OwnAddress + 1, AllHosts, hostMessage(0x16, AllHosts)) << false;
        QTest::newRow("report for no group") << ipv4Packet(OwnAddress + 1, OwnAddress, hostMessage(0x16, OwnAddress)) << false;
        QTest::newRow("unknown type") << ipv4Packet(OwnAddress + 1, Group, hostMessage(0x99, Group)) << false;
    }

    void malformedPacketsAreDroppedSilently()
    {
        QFETCH(QByteArray, packet);
        QFETCH(bool, accepted);
        RecordingQuerier recorder;
        StdoutCapture capture;
        recorder.querier->handlePacket(packet);
        QCOMPARE(capture.take(), QByteArray());
        QCOMPARE(!recorder.groups().isEmpty(), accepted);
        QCOMPARE(recorder.sent.size(), 1); // the start's general query only
    }

    void generalQueriesFollowTheScheduleAndTheElection()
    {
        IGMPTimings timings;
        timings.startupQueryInterval = 100;
        timings.queryInterval = 1000;
        timings.otherQuerierPresentInterval = 400;
        RecordingQuerier undisturbed(timings), recorder(timings);
        const QByteArray query = hostMessage(IGMPQuerier::MembershipQuery, 0);

        recorder.receive(OwnAddress, AllHosts, query); // our own, looped back
        recorder.receive(OwnAddress + 10, AllHosts, query);
        QVERIFY(recorder.querier->isQuerier());
        recorder.report(Group);
        recorder.receive(LowerAddress, AllHosts, query);
        QVERIFY(!recorder.querier->isQuerier());
        recorder.report(Group); // only the querier keeps the table
        QVERIFY(recorder.groups().isEmpty());

        // Back at once when the other has been quiet for the other-querier-present interval.
        const qint64 quiet = recorder.clock.elapsed();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.sent.size(), 2, 2000);
        QVERIFY(recorder.querier->isQuerier());
        QVERIFY(recorder.sent.last().at - quiet >= 370);
        // The election cut the startup phase short: the startup interval stays.
        QTRY_COMPARE_WITH_TIMEOUT(recorder.sent.size(), 3, 1000);
        QVERIFY(recorder.sent.at(2).at - recorder.sent.at(1).at < 600);

        // Undisturbed: at once, a startup interval later, then the query interval
        // (Qt's coarse timers may fire up to 5 % early, and the clock counts whole ms).
        QTRY_COMPARE_WITH_TIMEOUT(undisturbed.sent.size(), 3, 2000);
        for (const Sent& sent : undisturbed.sent + recorder.sent)
            QVERIFY(sent.destination == AllHosts && sent.message == membershipQuery(0));
        const qint64 first = undisturbed.sent.at(0).at, second = undisturbed.sent.at(1).at;
        QVERIFY2(first < 50 && second >= 90 && second < 300 && undisturbed.sent.at(2).at - second >= 940,
                 qPrintable(QString("%1 %2 %3").arg(first).arg(second).arg(undisturbed.sent.at(2).at)));
    }

    void reportsLeavesAndExpiriesDriveTheGroupStates()
    {
        IGMPTimings timings;
        timings.groupMembershipInterval = 800;
        timings.version1HostPresentInterval = 150;
        timings.lastMemberQueryInterval = 150;
        timings.leaveMembershipTimeout = 300;
        RecordingQuerier recorder(timings);
        const quint32 other = 0xEF000001;

        recorder.report(Group);
        QCOMPARE(recorder.state(Group), IGMPQuerier::MembersPresent);
        QCOMPARE(recorder.groups().value(Group).membershipTimeout, 800);
        recorder.report(other, IGMPQuerier::Version1MembershipReport);
        recorder.report(other); // a version 2 report leaves version 1 hosts present
        recorder.leave(other);  // not honoured while version 1 hosts are present
        QCOMPARE(recorder.state(other), IGMPQuerier::V1MembersPresent);
        recorder.leave(0xEF000099); // a group nobody reported
        QVERIFY(!recorder.groups().contains(0xEF000099));
        QCOMPARE(recorder.sent.size(), 1);

        // A leave is checked with a group-specific query; a report answers it.
        recorder.leave(Group);
        QCOMPARE(recorder.state(Group), IGMPQuerier::CheckingMembership);
        QCOMPARE(recorder.groups().value(Group).membershipTimeout, 300);
        QCOMPARE(recorder.sent.size(), 2);
        QCOMPARE(recorder.sent.last().destination, Group);
        QCOMPARE(recorder.sent.last().message, membershipQuery(Group));
        recorder.report(Group);
        QCOMPARE(recorder.state(Group), IGMPQuerier::MembersPresent);

        // Version 1 hosts gone quiet: the group falls back to version 2 members.
        QTRY_COMPARE_WITH_TIMEOUT(recorder.state(other), IGMPQuerier::MembersPresent, 1000);
        QVERIFY(recorder.clock.elapsed() >= 150);

        // Left without an answer: two group-specific queries an interval apart, then removal.
        const qint64 left = recorder.clock.elapsed();
        recorder.leave(Group);
        QTRY_VERIFY_WITH_TIMEOUT(!recorder.groups().contains(Group), 2000);
        const qint64 removed = recorder.clock.elapsed();
        QCOMPARE(recorder.sent.size(), 4);
        const Sent& first = recorder.sent.at(2);
        const Sent& second = recorder.sent.at(3);
        QVERIFY(first.destination == Group && second.destination == Group && second.message == first.message);
        QVERIFY(first.at - left < 50);
        QVERIFY2(second.at - first.at >= 150 && second.at - first.at < 290,
                 qPrintable(QString::number(second.at - first.at)));
        QVERIFY2(removed - left >= 300, qPrintable(QString::number(removed - left)));

        // No more reports: the other group lapses after the membership interval, no queries sent.
        QTRY_VERIFY_WITH_TIMEOUT(recorder.groups().isEmpty(), 2000);
        QVERIFY(recorder.clock.elapsed() >= 800);
        QCOMPARE(recorder.sent.size(), 4);

        // The table keeps a hundred groups at the most; the last report always
        // stays, eviction picks among the others.
        for (quint32 i = 0; i < 150; ++i)
            recorder.report(0xEF000000 + i);
        QCOMPARE(recorder.groups().size(), 100);
        QVERIFY(recorder.groups().contains(0xEF000000 + 149));
    }
};

QTEST_GUILESS_MAIN(tst_IGMPQuerier)
#include "tst_igmpquerier.moc"
