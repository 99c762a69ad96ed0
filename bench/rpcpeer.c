/* Plain C peers that speak the backend's RPC wire format for one call,
 * echo(QString, int) -> QString, written and checked byte by byte against
 * the golden messages of benchwire.h: what the project's client and server
 * would cost if they did nothing but this one call.
 *
 *   rpcpeer serve PATH                       the reference server: answers every call
 *   rpcpeer call PATH SECONDS MAXCALLS       the reference client: calls with return, one after another
 *
 * Any byte that differs from the golden messages ends the program with status 1. */
#include "benchclock.h"
#include "benchwire.h"
#include "unixsocket.h"

#include <stdint.h>

static int same_except_query_id(const unsigned char* received, const unsigned char* golden, size_t length)
{
    return memcmp(received, golden, BENCH_QUERY_ID_OFFSET) == 0
           && memcmp(received + BENCH_QUERY_ID_OFFSET + 2, golden + BENCH_QUERY_ID_OFFSET + 2,
                     length - BENCH_QUERY_ID_OFFSET - 2) == 0;
}

static void dump(const char* what, const unsigned char* bytes, size_t length)
{
    fprintf(stderr, "%s:", what);
    for (size_t i = 0; i < length; ++i)
        fprintf(stderr, " %02X", bytes[i]);
    fprintf(stderr, "\n");
}

static int serve(const char* path)
{
    unsigned char request[sizeof(BenchCall)], answer[sizeof(BenchReturn)];
    const int listener = unix_listen(path);
    if (listener < 0)
        return 1;
    memcpy(answer, BenchReturn, sizeof(answer));
    for (;;) {
        const int client = accept(listener, NULL, NULL);
        if (client < 0)
            continue;
        while (bench_read_all(client, request, sizeof(request)) > 0) {
            if (!same_except_query_id(request, BenchCall, sizeof(request))) {
                dump("unexpected call", request, sizeof(request));
                return 1;
            }
            memcpy(answer + BENCH_QUERY_ID_OFFSET, request + BENCH_QUERY_ID_OFFSET, 2);
            if (bench_write_all(client, answer, sizeof(answer)) < 0)
                break;
        }
        close(client);
    }
}

static int call(const char* path, double seconds, long long maxCalls)
{
    unsigned char request[sizeof(BenchCall)], answer[sizeof(BenchReturn)];
    long long* latencies = malloc(sizeof(long long) * (size_t)maxCalls);
    const int fd = unix_connect(path);
    if (fd < 0 || !latencies)
        return 1;
    memcpy(request, BenchCall, sizeof(request));
    const long long start = bench_now_ns(), end = start + (long long)(seconds * 1e9);
    long long calls = 0, now = start;
    uint16_t queryId = 0;
    while (calls < maxCalls && now < end) {
        request[BENCH_QUERY_ID_OFFSET] = (unsigned char)(queryId & 0xFF);
        request[BENCH_QUERY_ID_OFFSET + 1] = (unsigned char)(queryId >> 8);
        const long long sent = now;
        if (bench_write_all(fd, request, sizeof(request)) < 0 || bench_read_all(fd, answer, sizeof(answer)) <= 0) {
            fprintf(stderr, "the server went after %lld calls\n", calls);
            return 1;
        }
        if (!same_except_query_id(answer, BenchReturn, sizeof(answer))
            || memcmp(answer + BENCH_QUERY_ID_OFFSET, request + BENCH_QUERY_ID_OFFSET, 2) != 0) {
            dump("unexpected answer", answer, sizeof(answer));
            return 1;
        }
        now = bench_now_ns();
        latencies[calls++] = now - sent;
        ++queryId;
    }
    bench_report(calls, now - start, latencies);
    return 0;
}

int main(int argc, char* argv[])
{
    if (argc == 3 && strcmp(argv[1], "serve") == 0)
        return serve(argv[2]);
    if (argc == 5 && strcmp(argv[1], "call") == 0)
        return call(argv[2], atof(argv[3]), atoll(argv[4]));
    fprintf(stderr, "usage: rpcpeer serve PATH | call PATH SECONDS MAXCALLS\n");
    return 2;
}
