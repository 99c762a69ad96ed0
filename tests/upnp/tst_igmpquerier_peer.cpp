// The querier against real IGMP peers: the Linux kernel of a second network
// namespace as the host (forced to IGMPv2), a second querier on the same link,
// and tcpdump as an independent decoder of what goes over the wire.
#include "igmpquerier.h"
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"

#include <QProcess>
#include <QSocketNotifier>
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

// The IGMP queries that reach the calling thread's namespace, with the time they came.
class QuerySniffer : public QObject
{
public:
    explicit QuerySniffer(const char* interface)
    {
        descriptor = ::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_IGMP);
        ip_mreqn allHosts = {};
        allHosts.imr_multiaddr.s_addr = ::inet_addr("224.0.0.1");
        allHosts.imr_ifindex = int(::if_nametoindex(interface));
        ::setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &allHosts, sizeof(allHosts));
        notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, [this] {
            uchar packet[2000];
            const ssize_t size = ::recv(descriptor, packet, sizeof(packet), 0);
            const int header = (packet[0] & 0x0F) * 4;
            if (size >= header + 8 && packet[header] == IGMPQuerier::MembershipQuery)
                queries.append({QHostAddress(qFromBigEndian<quint32>(packet + 12)).toString(), clock.elapsed()});
        });
        clock.start();
    }
    ~QuerySniffer() override { ::close(descriptor); }
    // When the queries from source came, since a time.
    QList<qint64> from(const QString& source, qint64 since = 0) const
    {
        QList<qint64> times;
        for (const auto& query : queries)
            if (query.first == source && query.second >= since)
                times << query.second;
        return times;
    }

    QElapsedTimer clock;
    QList<QPair<QString, qint64>> queries;

private:
    int descriptor = -1;
    QSocketNotifier* notifier = nullptr;
};

} // namespace

class tst_IGMPQuerierPeer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void kernelHostIsTrackedAndItsLeaveChecked();
    void lowerQuerierSilencesUsUntilItGoes();

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
    QVERIFY2(namespaces->add(QuerierNs) && namespaces->add(HostNs)
                 && namespaces->addLink(QuerierNs, "q0", "10.77.0.2/24", HostNs, "h0", "10.77.0.3/24"),
             qPrintable(namespaces->errorString()));
    // The host speaks IGMPv2 and sends its unsolicited reports at once on a join.
    QVERIFY2(namespaces->run(HostNs, {"sysctl", "-qw", "net.ipv4.conf.h0.force_igmp_version=2",
                                      "net.ipv4.conf.h0.igmpv2_unsolicited_report_interval=1"}),
             qPrintable(namespaces->errorString()));
}

void tst_IGMPQuerierPeer::cleanup()
{
    namespaces.reset();
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

void tst_IGMPQuerierPeer::kernelHostIsTrackedAndItsLeaveChecked()
{
    QProcess tcpdump;
    tcpdump.start("ip", {"netns", "exec", namespaces->fullName(HostNs), "tcpdump", "-i", "h0", "-n",
                         "-v", "-tt", "-l", "igmp"});
    tcpdump.setReadChannel(QProcess::StandardError);
    QByteArray tcpdumpErrors;
    while (!tcpdumpErrors.contains("listening on") && tcpdump.waitForReadyRead(5000))
        tcpdumpErrors += tcpdump.readAll();
    QVERIFY2(tcpdumpErrors.contains("listening on"), tcpdumpErrors);

    // The application on the host joins the group, and so does this device:
    // the kernel hands the querier only reports of groups the device is a
    // member of. The device's kernel keeps quiet about link-local groups here,
    // so the host is the one that answers queries, and the one that leaves
    // (an IGMPv2 host that heard another member's report leaves silently).
    QVERIFY2(namespaces->run(QuerierNs, {"sysctl", "-qw", "net.ipv4.igmp_link_local_mcast_reports=0"}),
             qPrintable(namespaces->errorString()));
    QVERIFY(namespaces->enter(QuerierNs));
    Membership device(Group, "q0");
    QVERIFY(namespaces->enter(HostNs));
    Membership application(Group, "h0");
    QVERIFY(namespaces->leave());
    QVERIFY(application.joined && device.joined);
    QTest::qWait(300); // the host's unsolicited reports are over

    std::unique_ptr<IGMPQuerier> querier = startQuerier(QuerierNs, "q0", "10.77.0.2", IGMPTimings());
    QVERIFY(querier);
    // The general query asks for reports within 10 s.
    const quint32 group = QHostAddress(Group).toIPv4Address();
    QTRY_VERIFY_WITH_TIMEOUT(querier->groups().contains(group), 12000);
    QCOMPARE(querier->groups().value(group).state, IGMPQuerier::MembersPresent);

    QVERIFY(application.leave());
    QTRY_COMPARE_WITH_TIMEOUT(querier->groups().value(group).state, IGMPQuerier::CheckingMembership, 2000);
    QElapsedTimer checking;
    checking.start();
    QTRY_VERIFY_WITH_TIMEOUT(!querier->groups().contains(group), 4000);
    QVERIFY2(checking.elapsed() >= 1800 && checking.elapsed() < 3000, qPrintable(QString::number(checking.elapsed())));

    tcpdump.terminate();
    QVERIFY(tcpdump.waitForFinished(5000));
    const QByteArray capture = tcpdump.readAllStandardOutput();
    const QList<QByteArray> lines = capture.split('\n');
    // tcpdump -v prints the IPv4 header on one line and the IGMP decode on the next.
    QList<double> generalQueries, groupQueries;
    int reportsAfterQuery = 0, leaves = 0;
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray decoded = lines.at(i).trimmed();
        const double at = lines.at(i - 1).split(' ').value(0).toDouble();
        QVERIFY2(!decoded.contains("bad"), decoded);
        if (decoded == "10.77.0.2 > 224.0.0.1: igmp query v2") {
            QVERIFY2(lines.at(i - 1).contains("length 28"), lines.at(i - 1));
            generalQueries << at;
        } else if (decoded == "10.77.0.2 > 224.0.0.251: igmp query v1 [gaddr 251.0.0.224]") {
            // Response time 0 reads as version 1; the group in host order, as peers know it.
            groupQueries << at;
        } else if (decoded == "10.77.0.3 > 224.0.0.251: igmp v2 report 224.0.0.251") {
            reportsAfterQuery += !generalQueries.isEmpty() && at > generalQueries.first();
        } else if (decoded == "10.77.0.3 > 224.0.0.2: igmp leave 224.0.0.251") {
            ++leaves;
        }
    }
    QCOMPARE(generalQueries.size(), 1);
    QVERIFY2(reportsAfterQuery >= 1, capture);
    QCOMPARE(leaves, 1);
    QCOMPARE(groupQueries.size(), 2);
    QVERIFY2(groupQueries.at(1) - groupQueries.at(0) > 0.9 && groupQueries.at(1) - groupQueries.at(0) < 1.3,
             qPrintable(QString::number(groupQueries.at(1) - groupQueries.at(0))));
}

void tst_IGMPQuerierPeer::lowerQuerierSilencesUsUntilItGoes()
{
    QVERIFY(namespaces->addAddress(HostNs, "h0", "10.77.0.1/24"));
    QVERIFY(namespaces->enter(HostNs));
    QuerySniffer sniffer("h0");
    QVERIFY(namespaces->leave());

    IGMPTimings ours;
    ours.startupQueryInterval = 300;
    ours.otherQuerierPresentInterval = 1500;
    std::unique_ptr<IGMPQuerier> querier = startQuerier(QuerierNs, "q0", "10.77.0.2", ours);
    QVERIFY(querier);
    QTRY_VERIFY_WITH_TIMEOUT(!sniffer.from("10.77.0.2").isEmpty(), 2000);

    IGMPTimings theirs;
    theirs.startupQueryInterval = 300;
    theirs.queryInterval = 300;
    std::unique_ptr<IGMPQuerier> lower = startQuerier(HostNs, "h0", "10.77.0.1", theirs);
    QVERIFY(lower);
    QTRY_VERIFY_WITH_TIMEOUT(!querier->isQuerier(), 2000);
    QVERIFY(lower->isQuerier());

    // Silent for as long as the lower querier queries.
    const qint64 silentFrom = sniffer.clock.elapsed() + 50;
    QTest::qWait(2000);
    QCOMPARE(sniffer.from("10.77.0.2", silentFrom).size(), 0);
    QVERIFY(sniffer.from("10.77.0.1", silentFrom).size() >= 5);

    // It goes; ours takes over once the other-querier-present interval has passed.
    lower.reset();
    const qint64 gone = sniffer.clock.elapsed();
    QTRY_VERIFY_WITH_TIMEOUT(!sniffer.from("10.77.0.2", gone).isEmpty(), 4000);
    QVERIFY(querier->isQuerier());
    const qint64 resumed = sniffer.from("10.77.0.2", gone).first();
    QVERIFY2(resumed - gone >= 1500 - 300 - 100, qPrintable(QString::number(resumed - gone)));
}

QTEST_GUILESS_MAIN(tst_IGMPQuerierPeer)
#include "tst_igmpquerier_peer.moc"
