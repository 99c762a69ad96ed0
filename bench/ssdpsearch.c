/* The searcher of the SSDP benchmarks: sends M-SEARCH ssdp:all to
 * 239.255.255.250:1900 at a steady rate and counts the answers of each
 * responder, told apart by the UUID in their USN.
 *
 *   ssdpsearch --interface IF --rate PER_SECOND --count N [--mx MX] [--quiet-ms MS]
 *              [--max-seconds S] [--until-answered] NAME=UUID...
 *
 * After the last search it listens until no answer came for --quiet-ms
 * (default 1500), at most --max-seconds in all. With --until-answered it stops
 * searching as soon as every responder answered (a readiness probe). Prints
 * "sent=N elapsed_ms=T" and per responder
 * "responder=NAME answers=A per_search=P last_ms=L" (L: ms from the first
 * search to that responder's last answer). */
#define _GNU_SOURCE
#include "benchclock.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>

#define MAX_RESPONDERS 8
#define BATCH 64

struct Responder
{
    const char* name;
    char uuid[64];
    long long answers;
    long long lastNs;
};

static struct Responder responders[MAX_RESPONDERS];
static int responderCount;

/* The responder whose UUID the USN header of this answer names. */
static struct Responder* answerer(const char* text, size_t length)
{
    for (size_t i = 0; i + 10 < length; ++i) {
        if ((text[i] != '\n') || strncasecmp(text + i + 1, "usn:", 4) != 0)
            continue;
        const char* p = text + i + 5;
        const char* end = text + length;
        while (p < end && *p == ' ')
            ++p;
        if (end - p > 5 && strncasecmp(p, "uuid:", 5) == 0)
            p += 5;
        for (int r = 0; r < responderCount; ++r) {
            const size_t n = strlen(responders[r].uuid);
            if ((size_t)(end - p) >= n && strncasecmp(p, responders[r].uuid, n) == 0)
                return &responders[r];
        }
        return NULL;
    }
    return NULL;
}

static int everyoneAnswered(void)
{
    for (int r = 0; r < responderCount; ++r)
        if (responders[r].answers == 0)
            return 0;
    return 1;
}

int main(int argc, char* argv[])
{
    const char* interface = NULL;
    double rate = 1000, maxSeconds = 30;
    long long count = 1000;
    int mx = 1, quietMs = 1500, untilAnswered = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--interface") == 0 && i + 1 < argc)
            interface = argv[++i];
        else if (strcmp(argv[i], "--rate") == 0 && i + 1 < argc)
            rate = atof(argv[++i]);
        else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc)
            count = atoll(argv[++i]);
        else if (strcmp(argv[i], "--mx") == 0 && i + 1 < argc)
            mx = atoi(argv[++i]);
        else if (strcmp(argv[i], "--quiet-ms") == 0 && i + 1 < argc)
            quietMs = atoi(argv[++i]);
        else if (strcmp(argv[i], "--max-seconds") == 0 && i + 1 < argc)
            maxSeconds = atof(argv[++i]);
        else if (strcmp(argv[i], "--until-answered") == 0)
            untilAnswered = 1;
        else if (strchr(argv[i], '=') && responderCount < MAX_RESPONDERS) {
            struct Responder* r = &responders[responderCount++];
            r->name = argv[i];
            *strchr(argv[i], '=') = '\0';
            snprintf(r->uuid, sizeof(r->uuid), "%s", argv[i] + strlen(argv[i]) + 1);
        } else {
            fprintf(stderr, "ssdpsearch: bad argument %s\n", argv[i]);
            return 2;
        }
    }
    if (!interface || rate <= 0 || responderCount == 0) {
        fprintf(stderr, "usage: ssdpsearch --interface IF --rate R --count N NAME=UUID...\n");
        return 2;
    }

    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    struct ip_mreqn out = {0};
    out.imr_ifindex = (int)if_nametoindex(interface);
    const int ttl = 2, buffer = 64 << 20;
    if (fd < 0 || out.imr_ifindex == 0 || setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out)) < 0
        || setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) < 0) {
        perror("ssdpsearch: socket");
        return 1;
    }
    /* Answers of every responder to a flood must wait here unread meanwhile. */
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer));
    char search[256];
    const int searchLength = snprintf(search, sizeof(search),
                                      "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n"
                                      "MX: %d\r\nST: ssdp:all\r\n\r\n", mx);
    struct sockaddr_in group = {0};
    group.sin_family = AF_INET;
    group.sin_port = htons(1900);
    inet_pton(AF_INET, "239.255.255.250", &group.sin_addr);

    static char buffers[BATCH][2048];
    struct mmsghdr messages[BATCH];
    struct iovec vectors[BATCH];
    const double interval = 1e9 / rate;
    const long long start = bench_now_ns(), deadline = start + (long long)(maxSeconds * 1e9);
    long long sent = 0, lastAnswer = start, lastSent = start, now = start;
    for (;;) {
        now = bench_now_ns();
        if (now >= deadline)
            break;
        if (untilAnswered && everyoneAnswered())
            break;
        while (sent < count && now >= start + (long long)(sent * interval)) {
            if (sendto(fd, search, (size_t)searchLength, 0, (struct sockaddr*)&group, sizeof(group)) < 0) {
                if (errno == EAGAIN || errno == ENOBUFS)
                    break; /* tried again with the next turn */
                perror("ssdpsearch: sendto");
                return 1;
            }
            ++sent;
            lastSent = now;
        }
        if (sent >= count && now - (lastAnswer > lastSent ? lastAnswer : lastSent) > quietMs * 1000000LL)
            break;
        for (int i = 0; i < BATCH; ++i) {
            vectors[i].iov_base = buffers[i];
            vectors[i].iov_len = sizeof(buffers[i]) - 1;
            memset(&messages[i].msg_hdr, 0, sizeof(messages[i].msg_hdr));
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int received = recvmmsg(fd, messages, BATCH, 0, NULL);
        if (received > 0) {
            now = bench_now_ns();
            for (int i = 0; i < received; ++i) {
                struct Responder* r = answerer(buffers[i], messages[i].msg_len);
                if (r) {
                    ++r->answers;
                    r->lastNs = now;
                    lastAnswer = now;
                }
            }
            continue;
        }
        /* Nothing to read: sleep until the next search is due, or a little. */
        long long wait = sent < count ? start + (long long)(sent * interval) - now : 1000000;
        if (wait > 1000000)
            wait = 1000000;
        if (wait > 0) {
            struct pollfd readable = {fd, POLLIN, 0};
            struct timespec timeout = {0, (long)wait};
            ppoll(&readable, 1, &timeout, NULL);
        }
    }
    printf("sent=%lld elapsed_ms=%.1f\n", sent, (now - start) / 1e6);
    for (int r = 0; r < responderCount; ++r)
        printf("responder=%s answers=%lld per_search=%.3f last_ms=%.1f\n", responders[r].name, responders[r].answers,
               sent > 0 ? (double)responders[r].answers / (double)sent : 0.0,
               responders[r].answers ? (responders[r].lastNs - start) / 1e6 : 0.0);
    fflush(stdout);
    return 0;
}
