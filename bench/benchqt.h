// What the Qt benchmarks share: the result line that bench/run.py reads
// ("calls=N seconds=S rate=R p50_us=A p99_us=B", as the C references print
// it), a loop of timed calls, and a counter of received signals.
#ifndef BENCHQT_H
#define BENCHQT_H

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <vector>

inline void benchReport(qint64 calls, qint64 elapsedNs, std::vector<qint64>* latencies = nullptr)
{
    double p50 = 0, p99 = 0;
    if (latencies && !latencies->empty()) {
        std::sort(latencies->begin(), latencies->end());
        p50 = latencies->at(latencies->size() / 2) / 1000.0;
        p99 = latencies->at(latencies->size() * 99 / 100) / 1000.0;
    }
    std::printf("calls=%lld seconds=%.6f rate=%.1f p50_us=%.2f p99_us=%.2f\n", static_cast<long long>(calls),
                elapsedNs / 1e9, elapsedNs > 0 ? calls * 1e9 / elapsedNs : 0.0, p50, p99);
    std::fflush(stdout);
}

// Makes calls one after another, each timed, until seconds pass or maxCalls
// are made, and prints the result line. call(n) makes call number n and
// returns false when it failed: the loop then ends with status 1.
template <typename Call>
int benchTimedCalls(double seconds, qint64 maxCalls, Call call)
{
    std::vector<qint64> latencies;
    latencies.reserve(size_t(maxCalls));
    QElapsedTimer clock;
    clock.start();
    qint64 calls = 0, now = 0;
    while (calls < maxCalls && now < qint64(seconds * 1e9)) {
        const qint64 sent = now;
        if (!call(calls)) {
            std::fprintf(stderr, "call %lld failed\n", static_cast<long long>(calls));
            return 1;
        }
        now = clock.nsecsElapsed();
        latencies.push_back(now - sent);
        ++calls;
    }
    benchReport(calls, now, &latencies);
    return 0;
}

class BenchSignalCounter : public QObject
{
    Q_OBJECT

public:
    qint64 count = 0;

public slots:
    void onChanged(const QString& text, int number)
    {
        Q_UNUSED(text);
        Q_UNUSED(number);
        ++count;
    }
};

#endif // BENCHQT_H
