// One SSDP endpoint on a veth link between two private network namespaces:
// the device's ("d") and a control point's ("c").
#include "igmpquerier.h"
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"
#include "ssdppeer.h"
#include "stdoutcapture.h"
#include "upnpcoordinator.h"
#include "upnpinterfacehandler.h"

#include <QtTest>

#include <unistd.h>

namespace {

const char* const Device = "d";
const char* const ControlPoint = "c";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";
const QByteArray TypeA = "urn:tessaline:device:Quarn:1";
const QByteArray TypeB = "urn:tessaline:device:Helper:1";
const QHostAddress Ipv4Group("239.255.255.250");

QList<QByteArray> headerValues(const QList<SsdpPeer::Received>& received, const QByteArray& name)
{
    QList<QByteArray> values;
    for (const SsdpPeer::Received& item : received)
        values << ssdpHeader(item.datagram.data(), name);
    return values;
}

} // namespace

class tst_UpnpInterfaceHandler : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void aliveUpdateAndByeByeBursts();
    void endpointGoneWithin100msSendsOnlyByeBye();
    void searchesAreAnsweredPerTarget_data();
    void searchesAreAnsweredPerTarget();
    void answersArriveWithinTheSearchersMx();
    void ipv6EndpointAnnouncesOnTheLinkLocalGroup();
    void joinFailuresAreLoggedOncePerWindow();

private:
    // An endpoint of the device for one of its addresses, made in its namespace.
    UpnpInterfaceHandler* endpoint(const QString& interfaceName, const QString& address, const QHostAddress& group);
    std::unique_ptr<SsdpPeer> peer(const QString& interfaceName, const QHostAddress& group);

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<UpnpCoordinator> coordinator;
};

void tst_UpnpInterfaceHandler::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for network namespaces");
    initLogging(false, false, false, true);
}

void tst_UpnpInterfaceHandler::init()
{
    namespaces.reset(new NetworkNamespaces);
    QVERIFY2(namespaces->add(Device) && namespaces->add(ControlPoint)
                 && namespaces->addVethPair(Device, "d0", ControlPoint, "c0")
                 && namespaces->addVethPair(Device, "d1", ControlPoint, "c1")
                 && namespaces->addAddress(Device, "d0", "10.78.0.2/24")
                 && namespaces->addAddress(ControlPoint, "c0", "10.78.0.3/24")
                 && namespaces->addAddress(Device, "d1", "10.79.0.2/24")
                 && namespaces->addAddress(ControlPoint, "c1", "10.79.0.3/24"),
             qPrintable(namespaces->errorString()));
    UpnpTimings timings;
    timings.aliveRepeatMinimum = 400;
    timings.aliveRepeatSteps = 3;
    timings.aliveRepeatStep = 100;
    coordinator.reset(new UpnpCoordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings));
    coordinator->addDeviceType(TypeA);
    coordinator->addDeviceType(TypeB);
}

void tst_UpnpInterfaceHandler::cleanup()
{
    coordinator.reset();
    namespaces.reset();
}

UpnpInterfaceHandler* tst_UpnpInterfaceHandler::endpoint(const QString& interfaceName, const QString& address,
                                                         const QHostAddress& group)
{
    if (!namespaces->enter(Device))
        return nullptr;
    const QNetworkInterface interface = QNetworkInterface::interfaceFromName(interfaceName);
    QHostAddress scopedGroup = group;
    if (group.protocol() == QAbstractSocket::IPv6Protocol)
        scopedGroup.setScopeId(interface.name());
    const QByteArray location = "http://" + address.toLatin1() + ":80/quarn.upnp";
    auto* handler = new UpnpInterfaceHandler(interface, addressEntry(interfaceName, address), scopedGroup,
                                             location, coordinator.get());
    namespaces->leave();
    return handler;
}

std::unique_ptr<SsdpPeer> tst_UpnpInterfaceHandler::peer(const QString& interfaceName, const QHostAddress& group)
{
    if (!namespaces->enter(ControlPoint))
        return nullptr;
    std::unique_ptr<SsdpPeer> result(new SsdpPeer(interfaceName, group));
    namespaces->leave();
    return result->isValid() ? std::move(result) : nullptr;
}

void tst_UpnpInterfaceHandler::aliveUpdateAndByeByeBursts()
{
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0", Ipv4Group);
    QVERIFY(controlPoint);
    UpnpInterfaceHandler* handler = endpoint("d0", "10.78.0.2", Ipv4Group);
    QVERIFY(handler);

    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 8, 2000);
    const QList<SsdpPeer::Received> alive = controlPoint->notifiesWith("ssdp:alive");
    // The first burst 100 ms after creation, the second 50 to 149 ms later.
    QVERIFY2(alive.at(0).at >= 90 && alive.at(0).at < 300, qPrintable(QString::number(alive.at(0).at)));
    const qint64 pause = alive.at(4).at - alive.at(0).at;
    QVERIFY2(pause >= 45 && pause < 250, qPrintable(QString::number(pause)));

    const QByteArray u = "uuid:" + Udn;
    const QList<QByteArray> expectedNt{"upnp:rootdevice", u, TypeA, TypeB};
    const QList<QByteArray> expectedUsn{u + "::upnp:rootdevice", u, u + "::" + TypeA, u + "::" + TypeB};
    for (int burst = 0; burst < 2; ++burst) {
        for (int i = 0; i < 4; ++i) {
            const QNetworkDatagram& datagram = alive.at(burst * 4 + i).datagram;
            QCOMPARE(datagram.data(),
                     Ssdp::notifyMessage("239.255.255.250", "http://10.78.0.2:80/quarn.upnp", expectedNt.at(i),
                                         "ssdp:alive", coordinator->serverString(), expectedUsn.at(i),
                                         coordinator->bootId(), 0xFFFFFFFF));
            QCOMPARE(datagram.senderAddress(), QHostAddress("10.78.0.2"));
            QCOMPARE(datagram.senderPort(), 1900);
            QCOMPARE(datagram.hopLimit(), 2);
        }
    }

    // The next alive burst comes after the (shrunk) re-announcement interval.
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 16, 2000);
    const qint64 repeat = controlPoint->notifiesWith("ssdp:alive").at(8).at - alive.at(0).at;
    QVERIFY2(repeat >= 380 && repeat < 900, qPrintable(QString::number(repeat)));

    // An update burst goes out twice too; a byebye twice back to back.
    coordinator->setConfigId(77);
    handler->sendUpdate();
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:update").size(), 8, 2000);
    handler->sendByeBye();
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:byebye").size(), 8, 2000);
    QTest::qWait(300);
    QCOMPARE(headerValues(controlPoint->notifiesWith("ssdp:update"), "CONFIGID.UPNP.ORG").count("77"), 8);
    const QList<SsdpPeer::Received> byebye = controlPoint->notifiesWith("ssdp:byebye");
    QCOMPARE(byebye.size(), 8);
    QVERIFY(byebye.last().at - byebye.first().at < 40);
    QCOMPARE(headerValues(byebye, "NT").mid(0, 4), headerValues(byebye, "NT").mid(4, 4));
    QCOMPARE(ssdpHeader(byebye.first().datagram.data(), "LOCATION"), QByteArray("http://10.78.0.2:80/quarn.upnp"));
}

void tst_UpnpInterfaceHandler::endpointGoneWithin100msSendsOnlyByeBye()
{
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0", Ipv4Group);
    QVERIFY(controlPoint);
    UpnpInterfaceHandler* handler = endpoint("d0", "10.78.0.2", Ipv4Group);
    QVERIFY(handler);
    QTest::qWait(50);
    // A search it has scheduled answers for: they die with the endpoint.
    QNetworkDatagram search("", Ipv4Group, 1900);
    search.setSender(QHostAddress("10.78.0.3"), controlPoint->searchPort());
    search.setInterfaceIndex(uint(handler->networkInterface().index()));
    handler->handleMSearch(search, {{"man", "\"ssdp:discover\""}, {"mx", "1"}, {"st", "ssdp:all"}});
    handler->sendByeBye();
    delete handler;

    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:byebye").size(), 8, 2000);
    QTest::qWait(1200);
    QCOMPARE(controlPoint->notifiesWith().size(), 8);
    QCOMPARE(controlPoint->answers.size(), 0);
}

void tst_UpnpInterfaceHandler::searchesAreAnsweredPerTarget_data()
{
    QTest::addColumn<QByteArray>("search");
    QTest::addColumn<QList<QByteArray>>("targets");

    auto search = [](const QByteArray& st, const QByteArray& extra = QByteArray()) {
        return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\nST: " + st
               + "\r\n" + extra + "\r\n";
    };
    const QByteArray u = "uuid:" + Udn;
    const QList<QByteArray> all{TypeB, TypeA, "upnp:rootdevice", u};
    QTest::newRow("ssdp:all: every target with its own ST") << search("ssdp:all") << all;
    QTest::newRow("root device") << search("upnp:rootdevice") << QList<QByteArray>{"upnp:rootdevice"};
    QTest::newRow("device UUID") << search(u) << QList<QByteArray>{u};
    QTest::newRow("device type") << search(TypeA) << QList<QByteArray>{TypeA};
    QTest::newRow("UUID in other case") << search(u.toUpper()) << QList<QByteArray>();
    QTest::newRow("other version of the type") << search("urn:tessaline:device:Quarn:2") << QList<QByteArray>();
    QTest::newRow("MAN without quotes")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nMAN: ssdp:discover\r\nMX: 1\r\nST: ssdp:all\r\n\r\n")
        << QList<QByteArray>();
    QTest::newRow("no MX") << QByteArray("M-SEARCH * HTTP/1.1\r\nMAN: \"ssdp:discover\"\r\nST: ssdp:all\r\n\r\n")
                           << QList<QByteArray>();
    // One datagram the parser drops; its table carries the rules.
    QTest::newRow("blank before a colon") << QByteArray("M-SEARCH * HTTP/1.1\r\nMAN : \"ssdp:discover\"\r\nMX: 1\r\n"
                                                        "ST: ssdp:all\r\n\r\n")
                                          << QList<QByteArray>();
    QTest::newRow("a NOTIFY is no search")
        << QByteArray("NOTIFY * HTTP/1.1\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\nST: ssdp:all\r\n\r\n")
        << QList<QByteArray>();
    QTest::newRow("huge datagram") << search("ssdp:all", "X-PAD: " + QByteArray(60000, 'p') + "\r\n") << all;
}

void tst_UpnpInterfaceHandler::searchesAreAnsweredPerTarget()
{
    QFETCH(QByteArray, search);
    QFETCH(QList<QByteArray>, targets);
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0", Ipv4Group);
    QVERIFY(controlPoint);
    UpnpInterfaceHandler* handler = endpoint("d0", "10.78.0.2", Ipv4Group);
    // Shares the group's port: searches from d0's link are left to d0's endpoint.
    QVERIFY(handler && endpoint("d1", "10.79.0.2", Ipv4Group));
    QTest::qWait(50); // the endpoints have joined the group

    controlPoint->send(search);
    QTest::qWait(1300); // MX 1: every answer within a second
    QList<QByteArray> answered = headerValues(controlPoint->answers, "ST");
    std::sort(answered.begin(), answered.end());
    std::sort(targets.begin(), targets.end());
    QCOMPARE(answered, targets);
    for (const SsdpPeer::Received& answer : qAsConst(controlPoint->answers)) {
        const QByteArray st = ssdpHeader(answer.datagram.data(), "ST");
        const QByteArray usn = st == "uuid:" + Udn ? st : "uuid:" + Udn + "::" + st;
        QCOMPARE(answer.datagram.data(), handler->buildSearchReply(st, usn));
        QCOMPARE(answer.datagram.senderPort(), 1900);
    }
}

void tst_UpnpInterfaceHandler::answersArriveWithinTheSearchersMx()
{
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0", Ipv4Group);
    QVERIFY(controlPoint);
    QVERIFY(endpoint("d0", "10.78.0.2", Ipv4Group));
    QTest::qWait(50);

    struct Round
    {
        QByteArray mx;
        qint64 span;
    };
    // Five searches of four targets give twenty independent delays per round.
    for (const Round& round : {Round{"1", 1000}, Round{"120", 5000}, Round{"soon", 3000}}) {
        controlPoint->answers.clear();
        const qint64 sent = controlPoint->clock.elapsed();
        for (int i = 0; i < 5; ++i)
            controlPoint->search("ssdp:all", round.mx);
        QTRY_COMPARE_WITH_TIMEOUT(controlPoint->answers.size(), 20, int(round.span) + 1000);
        qint64 latest = 0;
        for (const SsdpPeer::Received& answer : qAsConst(controlPoint->answers))
            latest = std::max(latest, answer.at - sent);
        QVERIFY2(latest < round.span + 100, qPrintable(round.mx + ": " + QByteArray::number(latest)));
        // Twenty draws all below 60 % of the span would be very unlikely.
        if (round.span > 1000)
            QVERIFY2(latest > round.span * 6 / 10, qPrintable(round.mx + ": " + QByteArray::number(latest)));
    }
}

void tst_UpnpInterfaceHandler::ipv6EndpointAnnouncesOnTheLinkLocalGroup()
{
    QVERIFY(namespaces->enter(Device));
    const QString linkLocal = linkLocalAddress("d0");
    QVERIFY(namespaces->leave() && !linkLocal.isEmpty());

    const QHostAddress group("ff02::c");
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0", group);
    QVERIFY(controlPoint);
    UpnpInterfaceHandler* handler = endpoint("d0", linkLocal, group);
    QVERIFY(handler);
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 8, 2000);
    const QNetworkDatagram first = controlPoint->notifiesWith("ssdp:alive").first().datagram;
    QCOMPARE(ssdpHeader(first.data(), "HOST"), QByteArray("[ff02::c]:1900"));
    QCOMPARE(first.senderAddress().toString().section('%', 0, 0), linkLocal);
    QCOMPARE(first.hopLimit(), 2);

    controlPoint->search("upnp:rootdevice", "1");
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->answers.size(), 1, 2000);
    QCOMPARE(ssdpHeader(controlPoint->answers.first().datagram.data(), "LOCATION"), handler->location());

    handler->setEnableIGMPQuerier(true);
    QVERIFY(!handler->igmpQuerier());
}

void tst_UpnpInterfaceHandler::joinFailuresAreLoggedOncePerWindow()
{
    // No group memberships allowed: every join fails with ENOBUFS.
    QVERIFY(namespaces->run(Device, {"sysctl", "-qw", "net.ipv4.igmp_max_memberships=0"}));
    UpnpTimings timings;
    timings.joinRetryInterval = 40;
    timings.joinErrorLogInterval = 500;
    coordinator.reset(new UpnpCoordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings));

    StdoutCapture capture;
    const bool created = endpoint("d0", "10.78.0.2", Ipv4Group);
    QTest::qWait(1200);
    const bool allowed = namespaces->run(Device, {"sysctl", "-qw", "net.ipv4.igmp_max_memberships=20"});
    QTest::qWait(300);
    const QList<QByteArray> lines = capture.take().split('\n');
    QVERIFY(created && allowed);

    QList<QByteArray> joinLines;
    for (const QByteArray& line : lines)
        if (line.contains("multicast group") || line.contains("previous message"))
            joinLines << line.mid(line.indexOf(" d0 ") + 1);
    // Failures every 40 ms for 1.2 s: an error line at the start and one per
    // 500 ms window after it, each later one followed by the number it hid.
    const QString error = "^d0 failed to join multicast group 239.255.255.250 : 105 No buffer space available $";
    const QString suppressed = "^d0 \\(previous message suppressed ([0-9]+) times\\) $";
    const QStringList expected{
        error, error, suppressed, error, suppressed,
        "^d0 multicast group 239.255.255.250 joined successfully after suppressing ([0-9]+) errors $"};
    QCOMPARE(joinLines.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const QRegularExpressionMatch match = QRegularExpression(expected.at(i)).match(joinLines.at(i));
        QVERIFY2(match.hasMatch(), joinLines.at(i));
        // Errors every 40 ms: at least 8 hidden in the first window.
        QVERIFY(i != 2 || match.captured(1).toInt() >= 8);
        QVERIFY(i != 5 || match.captured(1).toInt() >= 1);
    }
}

QTEST_GUILESS_MAIN(tst_UpnpInterfaceHandler)
#include "tst_upnpinterfacehandler.moc"
