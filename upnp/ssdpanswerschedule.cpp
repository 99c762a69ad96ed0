#include "ssdpanswerschedule.h"

#include <QTimerEvent>

#include <algorithm>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

// A schedule that held this many answers at once was flooded.
constexpr size_t FloodAnswers = 4096;
// A full socket is tried again after this pause.
constexpr int RetryMs = 2;
// How long the host with the most pending answers is taken as known before
// the hosts are counted again; the count is only needed while the budget is spent.
constexpr qint64 LargestHostRecountMs = 50;

} // namespace

SsdpAnswerSchedule::SsdpAnswerSchedule(Sender sender, int budget, QObject* parent)
    : QObject(parent), send(std::move(sender)), budget(budget)
{
    clock.start();
}

SsdpAnswerSchedule::~SsdpAnswerSchedule()
{
    qDeleteAll(hosts);
}

bool SsdpAnswerSchedule::schedule(const QHostAddress& address, quint16 port, int target, qint64 delayMs)
{
    Host*& host = hosts[address];
    if (!host)
        host = new Host{address};
    if (pending >= budget) {
        Host* victim = largestHost();
        if (!victim || victim->pending <= host->pending) {
            remove(host); // only when it holds nothing
            return false;
        }
        // The newcomer takes the place of the largest holder's answer due first.
        --victim->pending;
        ++victim->evicted;
        --pending;
    }
    ++host->pending;
    ++pending;
    if (!largest || host->pending > largest->pending)
        largest = host;
    const quint32 order = nextOrder++;
    heap.push_back({clock.elapsed() + std::max<qint64>(delayMs, 0), host, order, port, quint8(target)});
    std::push_heap(heap.begin(), heap.end(), DueLater());
    if (heap.front().order == order)
        arm();
    return true;
}

int SsdpAnswerSchedule::pendingCount(const QHostAddress& address) const
{
    const Host* host = hosts.value(address);
    return host ? host->pending : 0;
}

SsdpAnswerSchedule::Host* SsdpAnswerSchedule::largestHost()
{
    const qint64 now = clock.elapsed();
    if (largest && largest->pending > 0 && largestCheckedAt >= 0 && now - largestCheckedAt < LargestHostRecountMs)
        return largest;
    largest = nullptr;
    for (Host* host : qAsConst(hosts))
        if (!largest || host->pending > largest->pending)
            largest = host;
    largestCheckedAt = now;
    return largest;
}

void SsdpAnswerSchedule::remove(Host* host)
{
    if (host->pending > 0 || host->evicted > 0)
        return;
    hosts.remove(host->address);
    if (largest == host)
        largest = nullptr;
    delete host;
}

void SsdpAnswerSchedule::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != timer.timerId()) {
        QObject::timerEvent(event);
        return;
    }
    timer.stop(); // one shot: onTimeout() arms it again when answers remain
    onTimeout();
}

void SsdpAnswerSchedule::onTimeout()
{
    const qint64 now = clock.elapsed();
    for (int sent = 0; sent < AnswersPerTurn && !heap.empty() && heap.front().due <= now;) {
        const Answer answer = heap.front();
        Host* host = answer.host;
        if (host->evicted > 0) {
            --host->evicted;
        } else if (send(host->address, answer.port, answer.target)) {
            --host->pending;
            --pending;
            ++sent;
        } else {
            timer.start(RetryMs, Qt::PreciseTimer, this);
            return;
        }
        std::pop_heap(heap.begin(), heap.end(), DueLater());
        heap.pop_back();
        remove(host);
    }
    if (heap.empty()) {
        // Back to the idle footprint once drained.
        const bool afterFlood = heap.capacity() >= FloodAnswers;
        std::vector<Answer>().swap(heap);
        hosts = QHash<QHostAddress, Host*>();
        largest = nullptr;
#ifdef __GLIBC__
        // The C library keeps what a flood freed for its next allocations (up
        // to its trim threshold at the top of the heap, and all of it below);
        // handed back once the flood is over, the daemon's memory returns to
        // its idle level instead of staying at the flood's.
        if (afterFlood)
            malloc_trim(0);
#endif
    }
    arm();
}

void SsdpAnswerSchedule::arm()
{
    if (heap.empty()) {
        timer.stop();
        return;
    }
    timer.start(int(std::max<qint64>(0, heap.front().due - clock.elapsed())), Qt::PreciseTimer, this);
}
