/* The physical limit: plain request/response and one-way streams over a
 * Unix-domain socket, with the byte sizes of the RPC benchmarks and nothing
 * else, no framing, no parsing.
 *
 *   rawsocket serve PATH REQUEST RESPONSE     answers every REQUEST bytes with RESPONSE bytes
 *   rawsocket pingpong PATH REQUEST RESPONSE SECONDS MAXCALLS
 *   rawsocket sink PATH                       reads until the end of the stream, answers the byte count
 *   rawsocket stream PATH SIZE SECONDS MAXMESSAGES
 *                                             one write per message of SIZE bytes, then waits for the count
 *
 * The servers take one client after another until they are killed. */
#include "benchclock.h"
#include "unixsocket.h"

#include <stdint.h>

static int serve(const char* path, size_t request, size_t response)
{
    char in[65536], out[65536] = {0};
    const int listener = unix_listen(path);
    if (listener < 0 || request > sizeof(in) || response > sizeof(out))
        return 1;
    for (;;) {
        const int client = accept(listener, NULL, NULL);
        if (client < 0)
            continue;
        while (bench_read_all(client, in, request) > 0 && bench_write_all(client, out, response) == 0) {
        }
        close(client);
    }
}

static int pingpong(const char* path, size_t request, size_t response, double seconds, long long maxCalls)
{
    char out[65536] = {0}, in[65536];
    long long* latencies = malloc(sizeof(long long) * (size_t)maxCalls);
    const int fd = unix_connect(path);
    if (fd < 0 || !latencies || request > sizeof(out) || response > sizeof(in))
        return 1;
    const long long start = bench_now_ns(), end = start + (long long)(seconds * 1e9);
    long long calls = 0, now = start;
    while (calls < maxCalls && now < end) {
        const long long sent = now;
        if (bench_write_all(fd, out, request) < 0 || bench_read_all(fd, in, response) <= 0)
            return 1;
        now = bench_now_ns();
        latencies[calls++] = now - sent;
    }
    bench_report(calls, now - start, latencies);
    return 0;
}

static int sink(const char* path)
{
    char in[65536];
    const int listener = unix_listen(path);
    if (listener < 0)
        return 1;
    for (;;) {
        const int client = accept(listener, NULL, NULL);
        if (client < 0)
            continue;
        uint64_t total = 0;
        ssize_t n;
        while ((n = read(client, in, sizeof(in))) > 0 || (n < 0 && errno == EINTR))
            total += n > 0 ? (uint64_t)n : 0;
        bench_write_all(client, &total, sizeof(total));
        close(client);
    }
}

static int stream(const char* path, size_t size, double seconds, long long maxMessages)
{
    char out[65536] = {0};
    const int fd = unix_connect(path);
    if (fd < 0 || size > sizeof(out) || size == 0)
        return 1;
    const long long start = bench_now_ns(), end = start + (long long)(seconds * 1e9);
    long long messages = 0;
    while (messages < maxMessages && (messages % 256 != 0 || bench_now_ns() < end)) {
        if (bench_write_all(fd, out, size) < 0)
            return 1;
        ++messages;
    }
    shutdown(fd, SHUT_WR);
    uint64_t received = 0;
    if (bench_read_all(fd, &received, sizeof(received)) <= 0 || received != (uint64_t)messages * size) {
        fprintf(stderr, "the sink counted %llu bytes of %llu\n", (unsigned long long)received,
                (unsigned long long)messages * size);
        return 1;
    }
    bench_report(messages, bench_now_ns() - start, NULL);
    return 0;
}

int main(int argc, char* argv[])
{
    if (argc == 5 && strcmp(argv[1], "serve") == 0)
        return serve(argv[2], (size_t)atol(argv[3]), (size_t)atol(argv[4]));
    if (argc == 7 && strcmp(argv[1], "pingpong") == 0)
        return pingpong(argv[2], (size_t)atol(argv[3]), (size_t)atol(argv[4]), atof(argv[5]), atoll(argv[6]));
    if (argc == 3 && strcmp(argv[1], "sink") == 0)
        return sink(argv[2]);
    if (argc == 6 && strcmp(argv[1], "stream") == 0)
        return stream(argv[2], (size_t)atol(argv[3]), atof(argv[4]), atoll(argv[5]));
    fprintf(stderr, "usage: rawsocket serve|pingpong|sink|stream PATH ...\n");
    return 2;
}
