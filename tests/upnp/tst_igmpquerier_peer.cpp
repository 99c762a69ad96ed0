// The querier against what only real peers show: Linux kernels as IGMPv2
// hosts, a second querier on the link and one on another link, and tcpdump as
// an independent decoder of the wire. The device ("q") and two hosts ("h",
// which holds the link's bridge, and "m") share one link; "x" is on another.
#include "igmpquerier.h"
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"

#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* const QuerierNs = "q";
const char* const HostNs = "h";
const char* const MemberNs = "m";
const char* const OtherLinkNs = "x";
const char* const Group = "224.0.0.251"; // mDNS

// A membership of the calling thread's namespace in a group on one interface,
// held by a UDP socket the way any application holds one.
class Membership
{
public:
    Membership(const char* group, const char* interface)
    {
        descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        request.imr_multiaddr.s_addr = ::inet_addr(group);
        request.imr_ifindex = int(::if_nametoindex(interface));
        joined = ::setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0;
    }
    ~Membership() { ::close(descriptor); }
    bool leave() { return ::setsockopt(descriptor, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof(request)) == 0; }
    bool joined = false;

private:
    int descriptor = -1;
    ip_mreqn request = {};
};

} // namespace

class tst_IGMPQuerierPeer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { namespaces.reset(); }
    void leaveIsCheckedInRfcFormAndTheMemberStaysOnV2();
    void onlyALowerQuerierOnTheOwnLinkSilencesUs();

private:
    std::unique_ptr<IGMPQuerier> startQuerier(const char* ns, const char* interface,
                                              const QString& address, const IGMPTimings& timings);
    std::unique_ptr<NetworkNamespaces> namespaces;
};

void tst_IGMPQuerierPeer::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for network namespaces and raw sockets");
    if (QStandardPaths::findExecutable("tcpdump").isEmpty())
        QSKIP("needs tcpdump");
    initLogging(false, false, false, true);
}

void tst_IGMPQuerierPeer::init()
{
    namespaces.reset(new NetworkNamespaces);
    const QString noSnooping = "ip link add br0 type bridge mcast_snooping 0 && ip link set hq master br0 "
                               "&& ip link set hm master br0 && ip link set br0 up";
    QVERIFY2(namespaces->add(QuerierNs) && namespaces->add(HostNs) && namespaces->add(MemberNs)
                 && namespaces->add(OtherLinkNs) && namespaces->addVethPair(QuerierNs, "q0", HostNs, "hq")
                 && namespaces->addVethPair(MemberNs, "m0", HostNs, "hm")
                 && namespaces->run(HostNs, {"sh", "-c", noSnooping})
                 && namespaces->addAddress(QuerierNs, "q0", "192.0.2.2/24")
                 && namespaces->addAddress(HostNs, "br0", "192.0.2.3/24")
                 && namespaces->addAddress(MemberNs, "m0", "192.0.2.4/24")
                 // Another link with an overlapping subnet.
                 && namespaces->addLink(QuerierNs, "q1", "192.0.2.9/24", OtherLinkNs, "x0", "192.0.2.1/24"),
             qPrintable(namespaces->errorString()));
    // The hosts speak IGMPv2 and send their unsolicited reports at once on a join.
    for (const auto& host : {QPair<const char*, const char*>{HostNs, "br0"}, {MemberNs, "m0"}})
        QVERIFY2(namespaces->run(host.first, {"sysctl", "-qw", QString("net.ipv4.conf.%1.force_igmp_version=2").arg(host.second),
                                              QString("net.ipv4.conf.%1.igmpv2_unsolicited_report_interval=1").arg(host.second)}),
                 qPrintable(namespaces->errorString()));
}

std::unique_ptr<IGMPQuerier> tst_IGMPQuerierPeer::startQuerier(const char* ns, const char* interface,
                                                               const QString& address,
                                                               const IGMPTimings& timings)
{
    if (!namespaces->enter(ns))
        return nullptr;
    std::unique_ptr<IGMPQuerier> querier(new IGMPQuerier(QNetworkInterface::interfaceFromName(interface),
                                                         addressEntry(interface, address), nullptr, timings));
    namespaces->leave();
    return querier;
}

void tst_IGMPQuerierPeer::leaveIsCheckedInRfcFormAndTheMemberStaysOnV2()
{
    QProcess tcpdump;
    tcpdump.start("ip", {"netns", "exec", namespaces->fullName(MemberNs), "tcpdump", "-i", "m0", "-n",
                         "-v", "-tt", "-l", "igmp"});
    tcpdump.setReadChannel(QProcess::StandardError);
    QByteArray capture;
    while (!capture.contains("listening on") && tcpdump.waitForReadyRead(5000))
        capture += tcpdump.readAll();
    QVERIFY2(capture.contains("listening on"), capture);
    tcpdump.setReadChannel(QProcess::StandardOutput);

    // The kernel hands the querier only reports of groups the device is a
    // member of; the device's kernel keeps quiet about link-local groups here.
    QVERIFY2(namespaces->run(QuerierNs, {"sysctl", "-qw", "net.ipv4.igmp_link_local_mcast_reports=0"}),
             qPrintable(namespaces->errorString()));
    QVERIFY(namespaces->enter(QuerierNs));
    Membership device(Group, "q0");
    QVERIFY(namespaces->leave() && device.joined);
    std::unique_ptr<IGMPQuerier> querier = startQuerier(QuerierNs, "q0", "192.0.2.2", IGMPTimings());
    QVERIFY(querier);

    // m joins, then h, whose report m hears: h reported last and is the one
    // that sends a leave (RFC 2236, section 6).
    QVERIFY(namespaces->enter(MemberNs));
    Membership member(Group, "m0");
    const quint32 group = QHostAddress(Group).toIPv4Address();
    QTRY_VERIFY_WITH_TIMEOUT(querier->groups().contains(group), 2000);
    QVERIFY(namespaces->enter(HostNs));
    Membership leaving(Group, "br0");
    QVERIFY(namespaces->leave() && member.joined && leaving.joined);
    QTRY_VERIFY((capture += tcpdump.readAll()).contains("192.0.2.3 > 224.0.0.251: igmp v2 report"));
    QVERIFY(leaving.leave());

    // The group-specific query is RFC 2236's (response time 1 s, in tenths;
    // the group in network order): the member stays on version 2 and answers
    // with a v2 report.
    const QByteArray groupQuery = "192.0.2.2 > 224.0.0.251: igmp query v2 [max resp time 10] [gaddr 224.0.0.251]\n";
    const QByteArray answer = "192.0.2.4 > 224.0.0.251: igmp v2 report 224.0.0.251";
    QTRY_VERIFY2_WITH_TIMEOUT((capture += tcpdump.readAll()).contains(groupQuery)
                                  && capture.mid(capture.indexOf(groupQuery)).contains(answer),
                              capture, 4000);
    QVERIFY2(!capture.contains(" v1") && !capture.contains("bad"), capture);
    QCOMPARE(querier->groups().value(group).state, IGMPQuerier::MembersPresent);
    QByteArray igmp;
    QVERIFY(namespaces->run(MemberNs, {"cat", "/proc/net/igmp"}, &igmp));
    QVERIFY2(QRegularExpression("m0 *: *[0-9]+ *V2").match(QString::fromLatin1(igmp)).hasMatch(), igmp);
    tcpdump.kill();
    tcpdump.waitForFinished();
}

void tst_IGMPQuerierPeer::onlyALowerQuerierOnTheOwnLinkSilencesUs()
{
    IGMPTimings fast;
    fast.startupQueryInterval = 100;
    fast.queryInterval = 100;
    std::unique_ptr<IGMPQuerier> querier = startQuerier(QuerierNs, "q0", "192.0.2.2", IGMPTimings());
    std::unique_ptr<IGMPQuerier> onQ1 = startQuerier(QuerierNs, "q1", "192.0.2.9", IGMPTimings());
    std::unique_ptr<IGMPQuerier> otherLink = startQuerier(OtherLinkNs, "x0", "192.0.2.1", fast);
    QVERIFY(querier && onQ1 && otherLink);
    // The lower querier's queries reach the device, and silence the querier
    // of that link; the one on q0 goes on.
    QTRY_VERIFY_WITH_TIMEOUT(!onQ1->isQuerier(), 2000);
    QVERIFY(querier->isQuerier());

    QVERIFY(namespaces->addAddress(HostNs, "br0", "192.0.2.1/24"));
    std::unique_ptr<IGMPQuerier> lower = startQuerier(HostNs, "br0", "192.0.2.1", fast);
    QVERIFY(lower);
    QTRY_VERIFY_WITH_TIMEOUT(!querier->isQuerier(), 2000);
    QVERIFY(lower->isQuerier());
}

QTEST_GUILESS_MAIN(tst_IGMPQuerierPeer)
#include "tst_igmpquerier_peer.moc"
