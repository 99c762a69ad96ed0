/* The messages that the RPC benchmarks exchange, byte for byte as they travel
 * between backend processes: the call echo("Living room", 42) with return, its
 * answer, the same call without return, and the signal changed("Living room", 42).
 * The C references write and check these bytes by hand; the project's client and
 * server must produce and accept exactly them. Plain C, shared with C++. */
#ifndef BENCHWIRE_H
#define BENCHWIRE_H

/* Both the call with return and its answer carry the query id, little-endian,
 * at this offset; it is 0 here. */
#define BENCH_QUERY_ID_OFFSET 5

/* sync word, type 0, query id, "echo" NUL, QString "Living room", int 42, end tag */
static const unsigned char BenchCall[] = {
    0x45, 0xBF, 0xD7, 0xA3, 0x00, 0x00, 0x00, 'e', 'c', 'h', 'o', 0x00,
    0x01, 0x0B, 0x00, 0x00, 0x00, 'L', 'i', 'v', 'i', 'n', 'g', ' ', 'r', 'o', 'o', 'm',
    0x05, 0x2A, 0x00, 0x00, 0x00, 0x00};

/* sync word, type 3, query id, success, QString "Living room" (no end tag) */
static const unsigned char BenchReturn[] = {
    0x45, 0xBF, 0xD7, 0xA3, 0x03, 0x00, 0x00, 0x01,
    0x01, 0x0B, 0x00, 0x00, 0x00, 'L', 'i', 'v', 'i', 'n', 'g', ' ', 'r', 'o', 'o', 'm'};

/* sync word, type 1, "echo" NUL, the same values, end tag */
static const unsigned char BenchOneWayCall[] = {
    0x45, 0xBF, 0xD7, 0xA3, 0x01, 'e', 'c', 'h', 'o', 0x00,
    0x01, 0x0B, 0x00, 0x00, 0x00, 'L', 'i', 'v', 'i', 'n', 'g', ' ', 'r', 'o', 'o', 'm',
    0x05, 0x2A, 0x00, 0x00, 0x00, 0x00};

/* sync word, type 2, "changed" NUL, the same values, end tag */
static const unsigned char BenchSignal[] = {
    0x45, 0xBF, 0xD7, 0xA3, 0x02, 'c', 'h', 'a', 'n', 'g', 'e', 'd', 0x00,
    0x01, 0x0B, 0x00, 0x00, 0x00, 'L', 'i', 'v', 'i', 'n', 'g', ' ', 'r', 'o', 'o', 'm',
    0x05, 0x2A, 0x00, 0x00, 0x00, 0x00};

#endif
