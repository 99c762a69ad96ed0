/* Clock, latency percentiles and the one result line that every C benchmark
 * prints: "calls=N seconds=S rate=R p50_us=A p99_us=B", read by bench/run.py. */
#ifndef BENCHCLOCK_H
#define BENCHCLOCK_H

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static inline long long bench_now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}

static int bench_compare(const void* a, const void* b)
{
    const long long x = *(const long long*)a, y = *(const long long*)b;
    return x < y ? -1 : x > y;
}

/* latencies may be NULL (throughput only); it is sorted in place. */
static inline void bench_report(long long calls, long long elapsed_ns, long long* latencies)
{
    double p50 = 0, p99 = 0;
    if (latencies && calls > 0) {
        qsort(latencies, (size_t)calls, sizeof(long long), bench_compare);
        p50 = latencies[calls / 2] / 1000.0;
        p99 = latencies[calls * 99 / 100] / 1000.0;
    }
    printf("calls=%lld seconds=%.6f rate=%.1f p50_us=%.2f p99_us=%.2f\n", calls, elapsed_ns / 1e9,
           elapsed_ns > 0 ? calls * 1e9 / elapsed_ns : 0.0, p50, p99);
    fflush(stdout);
}

/* All of length bytes, or -1. */
static inline int bench_write_all(int fd, const void* data, size_t length)
{
    const char* p = (const char*)data;
    while (length > 0) {
        ssize_t n = write(fd, p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        p += n;
        length -= (size_t)n;
    }
    return 0;
}

/* Exactly length bytes; 0 at a clean end of stream before the first byte, -1 on error. */
static inline int bench_read_all(int fd, void* data, size_t length)
{
    char* p = (char*)data;
    size_t got = 0;
    while (got < length) {
        ssize_t n = read(fd, p + got, length - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0 && got == 0)
            return 0;
        if (n <= 0)
            return -1;
        got += (size_t)n;
    }
    return 1;
}

#endif
