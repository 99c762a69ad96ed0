/* sd-bus beside the project's RPC, on the private dbus-daemon that
 * DBUS_SESSION_BUS_ADDRESS names.
 *
 *   sdbusbench serve                     the service org.quarn.SdBench: Echo(si) -> s, Emit(u) sends u Changed(si)
 *   sdbusbench call SECONDS MAXCALLS     Echo("Living room", 42) round trips
 *   sdbusbench signals COUNT SECONDS     Changed signals per second to one subscriber */
#include "benchclock.h"

#include <stdint.h>
#include <string.h>
#include <systemd/sd-bus.h>

#define SERVICE "org.quarn.SdBench"
#define PATH "/bench"
#define INTERFACE "org.quarn.Bench"

static int onEcho(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    (void)userdata;
    (void)error;
    const char* text = NULL;
    int32_t number = 0;
    const int r = sd_bus_message_read(message, "si", &text, &number);
    return r < 0 ? r : sd_bus_reply_method_return(message, "s", text);
}

static int onEmit(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    (void)userdata;
    (void)error;
    uint32_t count = 0;
    int r = sd_bus_message_read(message, "u", &count);
    sd_bus* bus = sd_bus_message_get_bus(message);
    for (uint32_t i = 0; r >= 0 && i < count; ++i) {
        r = sd_bus_emit_signal(bus, PATH, INTERFACE, "Changed", "si", "Living room", (int32_t)i);
        if (r >= 0 && i % 64 == 63)
            r = sd_bus_flush(bus); /* keeps the write queue within its limit */
    }
    return r < 0 ? r : sd_bus_reply_method_return(message, "");
}

static const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "si", "s", onEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Emit", "u", "", onEmit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("Changed", "si", 0),
    SD_BUS_VTABLE_END,
};

static sd_bus* openBus(void)
{
    sd_bus* bus = NULL;
    const int r = sd_bus_open_user(&bus);
    if (r < 0) {
        fprintf(stderr, "cannot connect to the bus: %s\n", strerror(-r));
        return NULL;
    }
    return bus;
}

static int serve(void)
{
    sd_bus* bus = openBus();
    if (!bus || sd_bus_add_object_vtable(bus, NULL, PATH, INTERFACE, vtable, NULL) < 0
        || sd_bus_request_name(bus, SERVICE, 0) < 0)
        return 1;
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        const int r = sd_bus_process(bus, NULL);
        if (r < 0)
            return 1;
        if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)
            return 1;
    }
}

static int call(double seconds, long long maxCalls)
{
    sd_bus* bus = openBus();
    long long* latencies = malloc(sizeof(long long) * (size_t)maxCalls);
    if (!bus || !latencies)
        return 1;
    const long long start = bench_now_ns(), end = start + (long long)(seconds * 1e9);
    long long calls = 0, now = start;
    while (calls < maxCalls && now < end) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = NULL;
        const char* text = NULL;
        const long long sent = now;
        if (sd_bus_call_method(bus, SERVICE, PATH, INTERFACE, "Echo", &error, &reply, "si", "Living room", 42) < 0
            || sd_bus_message_read(reply, "s", &text) < 0 || strcmp(text, "Living room") != 0) {
            fprintf(stderr, "Echo failed: %s\n", error.message ? error.message : "wrong answer");
            return 1;
        }
        sd_bus_message_unref(reply);
        now = bench_now_ns();
        latencies[calls++] = now - sent;
    }
    bench_report(calls, now - start, latencies);
    return 0;
}

static int onChanged(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    (void)message;
    (void)error;
    ++*(long long*)userdata;
    return 0;
}

static int signals(long long count, double seconds)
{
    long long received = 0;
    sd_bus* bus = openBus();
    if (!bus || sd_bus_match_signal(bus, NULL, SERVICE, PATH, INTERFACE, "Changed", onChanged, &received) < 0)
        return 1;
    const long long start = bench_now_ns(), end = start + (long long)(seconds * 1e9);
    if (sd_bus_call_method_async(bus, NULL, SERVICE, PATH, INTERFACE, "Emit", NULL, NULL, "u", (uint32_t)count) < 0)
        return 1;
    long long now = start;
    while (received < count && now < end) {
        const int r = sd_bus_process(bus, NULL);
        if (r < 0)
            return 1;
        if (r == 0)
            sd_bus_wait(bus, 100000);
        now = bench_now_ns();
    }
    if (received < count)
        fprintf(stderr, "%lld of %lld signals in time\n", received, count);
    bench_report(received, now - start, NULL);
    return 0;
}

int main(int argc, char* argv[])
{
    if (argc == 2 && strcmp(argv[1], "serve") == 0)
        return serve();
    if (argc == 4 && strcmp(argv[1], "call") == 0)
        return call(atof(argv[2]), atoll(argv[3]));
    if (argc == 4 && strcmp(argv[1], "signals") == 0)
        return signals(atoll(argv[2]), atof(argv[3]));
    fprintf(stderr, "usage: sdbusbench serve | call SECONDS MAXCALLS | signals COUNT SECONDS\n");
    return 2;
}
