// The RPC parser alone: a stream of typical calls, echo("Living room", 42)
// with return, parsed as the server parses what it reads from a client,
// delivered in one buffer and in 4 KiB reads.
//
//   parserbench REPEATS COUNT...
//
// One line per count and delivery:
// "messages=N delivery=one|4k ns_per_message=T rate=R mbytes_per_s=B"
// (T and R from the median of REPEATS runs).
#include "benchwire.h"
#include "parserfeed.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

QByteArray callStream(qint64 count)
{
    QByteArray stream;
    stream.reserve(int(count * qint64(sizeof(BenchCall))));
    QByteArray call(reinterpret_cast<const char*>(BenchCall), sizeof(BenchCall));
    for (qint64 i = 0; i < count; ++i) {
        call[BENCH_QUERY_ID_OFFSET] = char(i & 0xFF);
        call[BENCH_QUERY_ID_OFFSET + 1] = char((i >> 8) & 0xFF);
        stream += call;
    }
    return stream;
}

// Nanoseconds to parse the stream, or -1 when not every call came out whole.
qint64 parse(const QByteArray& stream, qint64 count, int chunk)
{
    ParserFeed feed;
    QElapsedTimer clock;
    clock.start();
    for (int offset = 0; offset < stream.size(); offset += chunk)
        feed.feed(stream.constData() + offset, std::min(chunk, stream.size() - offset));
    const qint64 elapsed = clock.nsecsElapsed();
    if (feed.calls() != count || feed.firstSignature() != "echo(QString,int)") {
        std::fprintf(stderr, "parsed %lld of %lld calls, first %s\n", static_cast<long long>(feed.calls()),
                     static_cast<long long>(count), feed.firstSignature().constData());
        return -1;
    }
    return elapsed;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int repeats = args.value(1).toInt();
    if (args.size() < 3 || repeats < 1) {
        std::fprintf(stderr, "usage: parserbench REPEATS COUNT...\n");
        return 2;
    }
    for (int a = 2; a < args.size(); ++a) {
        const qint64 count = args[a].toLongLong();
        const QByteArray stream = callStream(count);
        for (const int chunk : {stream.size(), 4096}) {
            std::vector<qint64> runs;
            for (int r = 0; r < repeats; ++r) {
                const qint64 ns = parse(stream, count, std::max(chunk, 1));
                if (ns < 0)
                    return 1;
                runs.push_back(ns);
            }
            std::sort(runs.begin(), runs.end());
            const double median = double(runs[runs.size() / 2]);
            std::printf("messages=%lld delivery=%s ns_per_message=%.2f rate=%.0f mbytes_per_s=%.1f\n",
                        static_cast<long long>(count), chunk == 4096 ? "4k" : "one", median / double(count),
                        double(count) * 1e9 / median, double(stream.size()) * 1e3 / median);
            std::fflush(stdout);
        }
    }
    return 0;
}
