// One rescan of the coordinator with many addresses on one interface, in a
// network namespace that bench/run.py prepares.
//
//   rescanbench INTERFACE REPEATS
//
// Prints "addresses=N endpoints=E apply_us=A rescan_us=MEDIAN min_us=MIN max_us=MAX":
// A is the rescan that applies the change and makes the endpoints, the others
// are rescans of an interface whose addresses stay as they are.
#include "upnpcoordinator.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkInterface>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

void runEventsFor(int ms)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, ms);
}

qint64 timedRescan(UpnpCoordinator& coordinator)
{
    QElapsedTimer clock;
    clock.start();
    coordinator.rescanInterfaces();
    return clock.nsecsElapsed();
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QString name = app.arguments().value(1);
    const int repeats = app.arguments().value(2).toInt();
    if (name.isEmpty() || repeats < 1) {
        std::fprintf(stderr, "usage: rescanbench INTERFACE REPEATS\n");
        return 2;
    }
    UpnpTimings timings;
    timings.rescanInterval = 24 * 3600 * 1000; // rescans come from here only
    UpnpCoordinator coordinator("00000000-0000-4000-8000-0000000000b0", "http://%1:80/quarn.upnp", false, nullptr,
                                timings);
    coordinator.addInterface(name);
    int addresses = 0;
    for (const QNetworkAddressEntry& entry : QNetworkInterface::interfaceFromName(name).addressEntries())
        addresses += UpnpCoordinator::isUsableAddress(entry) ? 1 : 0;

    coordinator.rescanInterfaces(); // the change, seen once
    const qint64 apply = timedRescan(coordinator);
    int endpoints = 0;
    coordinator.onAllAdvertisers([&endpoints](UpnpInterfaceHandler*) { ++endpoints; });
    runEventsFor(400); // the endpoints' first announcements go out

    std::vector<qint64> rescans;
    for (int i = 0; i < repeats; ++i) {
        rescans.push_back(timedRescan(coordinator));
        QCoreApplication::processEvents();
    }
    std::sort(rescans.begin(), rescans.end());
    std::printf("addresses=%d endpoints=%d apply_us=%.1f rescan_us=%.1f min_us=%.1f max_us=%.1f\n", addresses,
                endpoints, apply / 1e3, rescans[rescans.size() / 2] / 1e3, rescans.front() / 1e3,
                rescans.back() / 1e3);
    return endpoints == addresses ? 0 : 1;
}
