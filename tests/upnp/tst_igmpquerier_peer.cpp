// The querier's election against real queriers, as only real links show it:
// the device ("q") shares one link with a host ("h") and has a second link to
// another host ("x") whose subnet overlaps the first. (The daemon's own test
// checks a leave with real kernels as member hosts.)
#include "igmpquerier.h"
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"

#include <QtTest>

#include <unistd.h>

class tst_IGMPQuerierPeer : public QObject
{
    Q_OBJECT

private slots:
    void onlyALowerQuerierOnTheOwnLinkSilencesUs()
    {
        if (::geteuid() != 0)
            QSKIP("needs root for network namespaces and raw sockets");
        initLogging(false, false, false, true);
        QVERIFY2(namespaces.add("q") && namespaces.add("h") && namespaces.add("x")
                     && namespaces.addLink("q", "q0", "192.0.2.2/24", "h", "h0", "192.0.2.3/24")
                     && namespaces.addLink("q", "q1", "192.0.2.9/24", "x", "x0", "192.0.2.1/24"),
                 qPrintable(namespaces.errorString()));
        IGMPTimings fast;
        fast.startupQueryInterval = 100;
        fast.queryInterval = 100;
        std::unique_ptr<IGMPQuerier> querier = startQuerier("q", "q0", "192.0.2.2");
        std::unique_ptr<IGMPQuerier> onQ1 = startQuerier("q", "q1", "192.0.2.9");
        std::unique_ptr<IGMPQuerier> otherLink = startQuerier("x", "x0", "192.0.2.1", fast);
        QVERIFY(querier && onQ1 && otherLink);
        // The lower querier's queries reach the device, and silence the querier
        // of that link; the one on q0 goes on.
        QTRY_VERIFY_WITH_TIMEOUT(!onQ1->isQuerier(), 2000);
        QVERIFY(querier->isQuerier());

        QVERIFY(namespaces.addAddress("h", "h0", "192.0.2.1/24"));
        std::unique_ptr<IGMPQuerier> lower = startQuerier("h", "h0", "192.0.2.1", fast);
        QVERIFY(lower);
        QTRY_VERIFY_WITH_TIMEOUT(!querier->isQuerier(), 2000);
        QVERIFY(lower->isQuerier());
    }

private:
    std::unique_ptr<IGMPQuerier> startQuerier(const char* ns, const char* interface, const QString& address,
                                              const IGMPTimings& timings = IGMPTimings())
    {
        if (!namespaces.enter(ns))
            return nullptr;
        std::unique_ptr<IGMPQuerier> querier(new IGMPQuerier(QNetworkInterface::interfaceFromName(interface),
                                                             addressEntry(interface, address), nullptr, timings));
        namespaces.leave();
        return querier;
    }

    NetworkNamespaces namespaces;
};

QTEST_GUILESS_MAIN(tst_IGMPQuerierPeer)
#include "tst_igmpquerier_peer.moc"
