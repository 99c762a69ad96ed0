#!/usr/bin/python3
"""Runs the benchmark suite: the project beside the physical limit and its peers.

bench/run.py [--smoke] [--rounds N] [--output FILE] [--before DIR]

Needs root (network namespaces, taskset on other processes) and the programs
that scripts/bench.sh builds in build-bench/. Every area runs in interleaved
rounds; each figure is reported as median (min-max) over the rounds, and each
comparison as the median (min-max) of its per-round ratios. Prints one table,
writes the report (docs/PERFORMANCE.md, or build-bench/PERFORMANCE-smoke.md
with --smoke) and the raw figures as JSON beside the build.
"""
import argparse
import json
import os
import platform
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build-bench")
BENCH = os.path.join(BUILD, "bench")

# The device and the peers each answer under their own UUID, so the searcher
# can tell their answers apart. The daemon's comes from the MAC of wlan0.
DAEMON_UUID = "33221100-5511-4433-0011-443311332211"
MINISSDPD_UUID = "00000000-0000-4000-8000-00000000d001"
GSSDP_UUID = "00000000-0000-4000-8000-00000000d002"
DEVICE_TYPE = "urn:tessaline:device:Quarn:1"
LOCATION = "http://192.0.2.2:80/quarn.upnp"
# The daemon under test; --daemon replaces it (to compare two builds).
DAEMON = os.path.join(BUILD, "upnp", "upnp")
RESPONDERS = (("upnp", DAEMON_UUID), ("minissdpd", MINISSDPD_UUID), ("gssdp", GSSDP_UUID))
# The RPC and parser benchmarks of an earlier build (--before), run in the same
# rounds as this build's, so that a tuning is judged by ratios per round.
BEFORE = None


class Suite:
    """Processes and namespaces of one run; all of them go in cleanup()."""

    def __init__(self, smoke):
        self.smoke = smoke
        self.processes = []
        self.namespaces = []
        self.work = tempfile.mkdtemp(prefix="upnp-bench.")
        self.tag = str(os.getpid())

    # --- processes

    def spawn(self, command, env=None, stdout=subprocess.PIPE):
        process = subprocess.Popen(command, stdout=stdout, stderr=subprocess.STDOUT if stdout else None,
                                   env=env, start_new_session=True)
        self.processes.append(process)
        return process

    def wait_for_line(self, process, text, seconds=20):
        """Reads the process's output until a line holds text; False after seconds."""
        deadline = time.monotonic() + seconds
        os.set_blocking(process.stdout.fileno(), False)
        buffered = ""
        while time.monotonic() < deadline:
            try:
                chunk = os.read(process.stdout.fileno(), 65536).decode(errors="replace")
            except BlockingIOError:
                chunk = ""
            if chunk:
                buffered += chunk
                if text in buffered:
                    return True
            elif process.poll() is not None:
                break
            time.sleep(0.05)
        sys.stderr.write("waiting for %r from %s: %s\n" % (text, process.args[0], buffered[-2000:]))
        return False

    def stop(self, process):
        if process.poll() is None:
            try:
                os.killpg(process.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
            try:
                process.wait(3)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()

    def run(self, command, seconds=120, env=None):
        """The output of a command that ends by itself; an error when it fails."""
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=seconds,
                                env=env)
        if result.returncode != 0:
            raise RuntimeError("%s failed (%d): %s%s" % (" ".join(command), result.returncode, result.stdout,
                                                         result.stderr))
        return result.stdout

    # --- namespaces

    def netns(self, name):
        full = "upnpbench%s-%s" % (self.tag, name)
        self.run(["ip", "netns", "add", full])
        self.namespaces.append(full)
        self.run(["ip", "netns", "exec", full, "sysctl", "-q", "-w", "net.ipv6.conf.all.accept_dad=0",
                  "net.ipv6.conf.default.accept_dad=0"])
        self.run(["ip", "-n", full, "link", "set", "lo", "up"])
        return full

    def cleanup(self):
        for process in reversed(self.processes):
            self.stop(process)
        for full in self.namespaces:
            pids = subprocess.run(["ip", "netns", "pids", full], stdout=subprocess.PIPE, text=True).stdout.split()
            for pid in pids:
                try:
                    os.kill(int(pid), signal.SIGKILL)
                except (ProcessLookupError, ValueError):
                    pass
        time.sleep(0.2)
        for full in self.namespaces:
            subprocess.run(["ip", "netns", "delete", full], stderr=subprocess.DEVNULL)
        shutil.rmtree(self.work, ignore_errors=True)


# --- what the kernel tells about a process

def per_thread_sum(pid, name, field, value):
    """The sum over all threads of pid of value(line) for the lines of /proc/<pid>/task/*/<name> that start
    with one of field."""
    total = 0
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/%s" % (pid, tid, name)) as lines:
                total += sum(value(line) for line in lines if line.startswith(field))
        except FileNotFoundError:
            pass  # the thread ended meanwhile
    return total


def cpu_ns(pid):
    """CPU time of all threads of pid, in ns, from the scheduler's own account."""
    return per_thread_sum(pid, "sched", "se.sum_exec_runtime", lambda line: float(line.split(":")[1]) * 1e6)


def switches(pid):
    """Voluntary and involuntary context switches of all threads of pid."""
    return per_thread_sum(pid, "status", ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"),
                          lambda line: int(line.split()[1]))


def memory_kib(pid):
    """(resident, private) KiB from smaps_rollup."""
    fields = {}
    with open("/proc/%d/smaps_rollup" % pid) as rollup:
        for line in rollup:
            parts = line.split()
            if len(parts) >= 2 and parts[0].endswith(":"):
                fields[parts[0][:-1]] = int(parts[1])
    return fields.get("Rss", 0), fields.get("Private_Clean", 0) + fields.get("Private_Dirty", 0)


def parse(line):
    return {key: float(value) for key, value in re.findall(r"(\w+)=([-\d.]+)", line)}


def idlest_cpu():
    def sample():
        with open("/proc/stat") as stat:
            return {fields[0]: int(fields[4]) for fields in (line.split() for line in stat)
                    if re.match(r"cpu\d+$", fields[0])}
    before = sample()
    time.sleep(0.5)
    after = sample()
    return int(max(after, key=lambda cpu: after[cpu] - before[cpu])[3:])


def set_affinity(pid, cpus):
    subprocess.run(["taskset", "-a", "-p", "-c", cpus, str(pid)], stdout=subprocess.DEVNULL, check=True)


def stats(values):
    values = [v for v in values if v is not None]
    if not values:
        return None
    return statistics.median(values), min(values), max(values)


# --- the areas

def rpc(suite, rounds, cpu):
    """Calls with return, signals and one-way calls, pinned to one CPU and unpinned."""
    work = suite.work
    seconds = 0.25 if suite.smoke else 1.0
    signal_count = 5000 if suite.smoke else 50000
    max_calls = 2000000
    call_size, return_size = 34, 24  # the golden call and its answer

    bus_address = "unix:path=%s/bus" % work
    env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=bus_address)
    pinned = ["taskset", "-c", str(cpu)]
    servers = {
        "raw": suite.spawn(pinned + [BENCH + "/rawsocket", "serve", work + "/raw", str(call_size), str(return_size)]),
        "sink": suite.spawn(pinned + [BENCH + "/rawsocket", "sink", work + "/sink"]),
        "cref": suite.spawn(pinned + [BENCH + "/rpcpeer", "serve", work + "/com.zan.ravo.cref"]),
        "project": suite.spawn(pinned + [BENCH + "/rpcbench", "serve", work]),
        "qt": suite.spawn(pinned + [BENCH + "/rpcbench", "qtserve", work + "/qt"]),
        "bus": suite.spawn(pinned + ["dbus-daemon", "--session", "--nofork", "--address=" + bus_address]),
    }
    if BEFORE:
        os.makedirs(work + "/before")
        servers["project_before"] = suite.spawn(pinned + [BEFORE + "/rpcbench", "serve", work + "/before"])
    for name in ("project", "qt") + (("project_before",) if BEFORE else ()):
        if not suite.wait_for_line(servers[name], "ready"):
            raise RuntimeError("the %s server did not start" % name)
    for _ in range(100):
        if os.path.exists(work + "/bus"):
            break
        time.sleep(0.05)
    servers["sdbus"] = suite.spawn(pinned + [BENCH + "/sdbusbench", "serve"], env=env)
    servers["qtdbus"] = suite.spawn(pinned + [BENCH + "/dbusbench", "serve"], env=env)
    for name in ("sdbus", "qtdbus"):
        if not suite.wait_for_line(servers[name], "ready"):
            raise RuntimeError("the %s service did not start" % name)

    calls = {
        "raw": ([BENCH + "/rawsocket", "pingpong", work + "/raw", str(call_size), str(return_size)], ["raw"]),
        "client": ([BENCH + "/rpcbench", "call", work, "com.zan.ravo.cref"], ["cref"]),
        "server": ([BENCH + "/rpcpeer", "call", work + "/com.zan.ravo.bench"], ["project"]),
        "qt": ([BENCH + "/rpcbench", "qtcall", work + "/qt"], ["qt"]),
        "sdbus": ([BENCH + "/sdbusbench", "call"], ["sdbus", "bus"]),
        "qtdbus": ([BENCH + "/dbusbench", "call"], ["qtdbus", "bus"]),
    }
    streams = {
        "signals": ([BENCH + "/rpcbench", "signals", work, str(signal_count), "30"], ["project"]),
        "sdbus_signals": ([BENCH + "/sdbusbench", "signals", str(signal_count), "30"], ["sdbus", "bus"]),
        "qtdbus_signals": ([BENCH + "/dbusbench", "signals", str(signal_count), "30"], ["qtdbus", "bus"]),
        "raw_signal_stream": ([BENCH + "/rawsocket", "stream", work + "/sink", "35", str(seconds),
                               str(signal_count * 4)], ["sink"]),
        "oneway": ([BENCH + "/rpcbench", "oneway", work, str(signal_count), "30"], ["project"]),
        "raw_call_stream": ([BENCH + "/rawsocket", "stream", work + "/sink", "32", str(seconds),
                             str(signal_count * 4)], ["sink"]),
    }
    if BEFORE:
        calls["client_before"] = ([BEFORE + "/rpcbench", "call", work, "com.zan.ravo.cref"], ["cref"])
        calls["server_before"] = ([BENCH + "/rpcpeer", "call", work + "/before/com.zan.ravo.bench"],
                                  ["project_before"])
        streams["signals_before"] = ([BEFORE + "/rpcbench", "signals", work + "/before", str(signal_count), "30"],
                                     ["project_before"])
        streams["oneway_before"] = ([BEFORE + "/rpcbench", "oneway", work + "/before", str(signal_count), "30"],
                                    ["project_before"])
    results = {}
    all_cpus = "0-%d" % (os.cpu_count() - 1)
    for mode in ("pinned", "unpinned"):
        affinity = str(cpu) if mode == "pinned" else all_cpus
        for server in servers.values():
            set_affinity(server.pid, affinity)
        prefix = pinned if mode == "pinned" else []
        for round_number in range(rounds):
            order = list(calls) + list(streams)
            # Each round starts elsewhere in the list, so no variant always runs first.
            shift = round_number % len(order)
            for name in order[shift:] + order[:shift]:
                if name in calls:
                    command, serving = calls[name]
                    command = command + [str(seconds), str(max_calls)]
                else:
                    command, serving = streams[name]
                before = {s: cpu_ns(servers[s].pid) for s in serving}
                line = suite.run(prefix + command, env=env)
                figures = parse(line)
                figures["server_cpu_ns"] = sum(cpu_ns(servers[s].pid) - before[s] for s in serving)
                results.setdefault(mode, {}).setdefault(name, []).append(figures)
    for server in servers.values():
        suite.stop(server)
    return results


def parser(suite, rounds, cpu):
    counts = ["10000", "100000", "1000000"]
    results = {}
    builds = [("", BENCH)] + ([(" before", BEFORE)] if BEFORE else [])
    for round_number in range(rounds):
        # The two builds take turns in going first.
        for suffix, directory in builds[round_number % len(builds):] + builds[:round_number % len(builds)]:
            for line in suite.run(["taskset", "-c", str(cpu), directory + "/parserbench",
                                   "1" if suite.smoke else "3"] + counts).splitlines():
                figures = parse(line)
                key = "%d %s%s" % (figures["messages"], line.split("delivery=")[1].split()[0], suffix)
                results.setdefault(key, []).append(figures)
    return results


def coordinator(suite, rounds):
    ns = suite.netns("rescan")
    suite.run(["ip", "-n", ns, "link", "add", "bench0", "type", "veth", "peer", "name", "bench0p"])
    suite.run(["ip", "netns", "exec", ns, "sysctl", "-q", "-w", "net.ipv6.conf.bench0.disable_ipv6=1"])
    for link in ("bench0", "bench0p"):
        suite.run(["ip", "-n", ns, "link", "set", link, "up"])
    results = {}
    repeats = "20" if suite.smoke else "200"
    for _ in range(rounds):
        for count in (1, 16, 128):
            suite.run(["ip", "-n", ns, "address", "flush", "dev", "bench0"])
            batch = "".join("address add 198.18.%d.1/24 dev bench0\n" % i for i in range(count))
            subprocess.run(["ip", "-n", ns, "-batch", "-"], input=batch, text=True, check=True)
            line = suite.run(["ip", "netns", "exec", ns, BENCH + "/rescanbench", "bench0", repeats])
            results.setdefault(str(count), []).append(parse(line))
    return results


def register_with_minissdpd(path, server):
    """The same three entries as the daemon's, through minissdpd's socket."""
    def length(n):
        prefix = bytes(((n >> shift) | 0x80) & 0xFF for shift in (28, 21, 14, 7) if n >= 1 << shift)
        return prefix + bytes([n & 0x7F])

    udn = "uuid:" + MINISSDPD_UUID
    for target, usn in (("upnp:rootdevice", udn + "::upnp:rootdevice"), (udn, udn),
                        (DEVICE_TYPE, udn + "::" + DEVICE_TYPE)):
        request = b"\x04"  # submit a service: target, USN, server, location
        for text in (target, usn, server, LOCATION):
            request += length(len(text.encode())) + text.encode()
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.connect(path)
            connection.sendall(request)


def unread(process):
    """What a process has written and no one has read yet."""
    os.set_blocking(process.stdout.fileno(), False)
    try:
        return os.read(process.stdout.fileno(), 1 << 20).decode(errors="replace")
    except BlockingIOError:
        return ""


def tail(path, size=6000):
    with open(path, errors="replace") as text:
        return text.read()[-size:]


def rescan_interval(suite):
    """The daemon's rescan interval in ms: its default, shortened for a brief run."""
    return 1000 if suite.smoke else 10000


def start_ssdp(suite, peers=True, wrapper=(), rescan=None):
    """The daemon (run as the tests run it) and, with peers, minissdpd and GSSDP in namespace dev,
    the searcher's namespace cp beside it. Returns the pids and a search function."""
    work = suite.work
    dev, cp = suite.netns("dev"), suite.netns("cp")
    suite.run(["ip", "link", "add", "dev0", "netns", dev, "type", "veth", "peer", "name", "cp0", "netns", cp])
    suite.run(["ip", "link", "add", "wlan0", "netns", dev, "type", "veth", "peer", "name", "wl0p", "netns", dev])
    suite.run(["ip", "-n", dev, "link", "set", "wlan0", "address", "00:11:22:33:44:55"])
    suite.run(["ip", "-n", dev, "address", "add", "192.0.2.2/24", "dev", "dev0"])
    suite.run(["ip", "-n", cp, "address", "add", "192.0.2.3/24", "dev", "cp0"])
    for ns, link in ((dev, "dev0"), (cp, "cp0"), (dev, "wlan0"), (dev, "wl0p")):
        suite.run(["ip", "-n", ns, "link", "set", link, "up"])

    # The daemon's settings, as the tests and the demo write them.
    for sub in ("sockets", "www", "files", "config/quarn", "bin"):
        os.makedirs(os.path.join(work, sub), exist_ok=True)
    rescan = rescan or rescan_interval(suite)
    files = {
        "config/quarn/database.conf": "[General]\nsocketDir=%s/sockets\nsocketType=local\n"
                                      "upnpConfigFileName=%s/files/quarn.upnp\n"
                                      "avahiConfigFileName=%s/files/tessaline-quarn.service\n"
                                      "[data]\nwwwpath=%s/www\nconstpath=%s/upnp/data\n" % (work, work, work, work, ROOT),
        "config/quarn/upnp.conf": "[timing]\nrescanInterval=%d\n" % rescan,
        "database.txt": "generic/name=Living room\ngeneric/serialNumber=SN-0815\ngeneric/zan=false\n"
                        "network/igmpquerier=false\ndebug/enableLogging=false\n",
        "www/settings.json": "{}",
        "bin/systemctl": "#!/bin/sh\nexit 0\n",
    }
    for name, content in files.items():
        with open(os.path.join(work, name), "w") as out:
            out.write(content)
    os.chmod(os.path.join(work, "bin/systemctl"), 0o755)

    sink = suite.spawn([BUILD + "/tools/syslogsink", work + "/log.sock"],
                       stdout=open(work + "/syslog.txt", "w"))
    for _ in range(100):
        if os.path.exists(work + "/log.sock"):
            break
        time.sleep(0.05)
    backend = suite.spawn(["ip", "netns", "exec", dev, BUILD + "/tools/simbackend", "--socket-dir", work + "/sockets",
                           "--config", work + "/database.txt", "--stages", "--interface", "dev0"])
    if not suite.wait_for_line(backend, "ready"):
        raise RuntimeError("simbackend did not start")
    env = dict(os.environ, XDG_CONFIG_HOME=work + "/config", PATH=work + "/bin:" + os.environ["PATH"])
    daemon = suite.spawn(["ip", "netns", "exec", dev, ROOT + "/scripts/with-private-devlog.sh", work + "/log.sock"]
                         + list(wrapper) + [DAEMON], env=env, stdout=None)
    pids = {"upnp": daemon.pid}
    responders = ["%s=%s" % pair for pair in RESPONDERS if peers or pair[0] == "upnp"]
    if peers:
        pids.update(start_peers(suite, dev, work))

    def search(rate, count, quiet_ms=1500):
        output = suite.run(["ip", "netns", "exec", cp, BENCH + "/ssdpsearch", "--interface", "cp0", "--rate",
                            str(rate), "--count", str(count), "--quiet-ms", str(quiet_ms), "--max-seconds", "60"]
                           + responders)
        answers = {}
        for line in output.splitlines():
            figures = parse(line)
            if line.startswith("responder="):
                answers[line.split()[0].split("=")[1]] = figures
        return answers

    # Ready once every responder answers; the daemon's endpoint comes with its second rescan.
    probe = suite.run(["ip", "netns", "exec", cp, BENCH + "/ssdpsearch", "--interface", "cp0", "--rate", "4",
                       "--count", "1000", "--quiet-ms", "100", "--max-seconds", str(3 * rescan / 1000 + 30),
                       "--until-answered"] + responders)
    if "answers=0 " in probe:
        raise RuntimeError("not every responder answered:\n%s\nthe daemon %s\nthe backend said:\n%s\nthe log:\n%s"
                           % (probe, "runs" if daemon.poll() is None else "ended with %s" % daemon.returncode,
                              unread(backend), tail(work + "/syslog.txt")))
    time.sleep(2)  # late answers of the probe
    return pids, search


def start_peers(suite, dev, work):
    server = "%s/%s, UPnP/2.0, Pellinor/3.5.3" % (platform.system(), platform.release())
    suite.run(["ip", "netns", "exec", dev, ROOT + "/scripts/with-private-devlog.sh", work + "/log.sock",
               "/usr/sbin/minissdpd", "-i", "dev0", "-s", work + "/minissdpd.sock", "-p", work + "/minissdpd.pid"])
    for _ in range(100):
        if os.path.exists(work + "/minissdpd.sock") and os.path.exists(work + "/minissdpd.pid"):
            break
        time.sleep(0.05)
    register_with_minissdpd(work + "/minissdpd.sock", server)
    with open(work + "/minissdpd.pid") as pidfile:
        minissdpd = int(pidfile.read().split()[0])
    gssdp = suite.spawn(["ip", "netns", "exec", dev, "/usr/bin/python3", ROOT + "/bench/gssdp-publish", "--interface",
                         "dev0", "--uuid", GSSDP_UUID, "--location", LOCATION, "--server", server, "--seconds", "3600"])
    if not suite.wait_for_line(gssdp, "ready"):
        raise RuntimeError("the GSSDP resource group did not start")
    return {"minissdpd": minissdpd, "gssdp": gssdp.pid}


def ssdp(suite, rounds):
    pids, search = start_ssdp(suite)
    results = {"idle": {}, "rounds": [], "rescan_ms": rescan_interval(suite)}
    idle_seconds = 5 if suite.smoke else 60
    before = {name: switches(pid) for name, pid in pids.items()}
    time.sleep(idle_seconds)
    for name, pid in pids.items():
        resident, private = memory_kib(pid)
        results["idle"][name] = {"wakeups_per_min": (switches(pid) - before[name]) * 60.0 / idle_seconds,
                                 "rss_kib": resident, "private_kib": private}

    moderate = 500 if suite.smoke else 3000
    for _ in range(rounds):
        figures = {}
        cpu_before = {name: cpu_ns(pid) for name, pid in pids.items()}
        answers = search(1000, moderate)
        for name, pid in pids.items():
            figures[name] = {"cpu_ms_per_1000": (cpu_ns(pid) - cpu_before[name]) / 1e6 * 1000 / moderate,
                             "replies_1000": answers[name]["per_search"]}
        memory_before = {name: memory_kib(pid) for name, pid in pids.items()}
        cpu_before = {name: cpu_ns(pid) for name, pid in pids.items()}
        flood_start = time.monotonic()
        answers = search(10000, 10000)
        memory_after = {name: memory_kib(pid) for name, pid in pids.items()}
        for name, pid in pids.items():
            figures[name].update({"cpu_ms_per_1000_flood": (cpu_ns(pid) - cpu_before[name]) / 1e6 / 10,
                                  "replies_flood": answers[name]["per_search"],
                                  "last_answer_s": answers[name]["last_ms"] / 1000,
                                  "before_flood_kib": memory_before[name], "after_flood_kib": memory_after[name]})
        last_answer = flood_start + max(a["last_ms"] for a in answers.values()) / 1000
        time.sleep(max(0.0, last_answer + 10 - time.monotonic()))
        for name, pid in pids.items():
            figures[name]["after_10s_kib"] = memory_kib(pid)
        results["rounds"].append(figures)
    return results


def profile_ssdp(suite, rate, count):
    """The daemon alone under callgrind while it answers count searches at rate; returns the
    annotated profile of the load only."""
    out = os.path.join(BUILD, "profile")
    os.makedirs(out, exist_ok=True)
    for old in os.listdir(out):
        os.remove(os.path.join(out, old))
    wrapper = ["valgrind", "--tool=callgrind", "--callgrind-out-file=%s/callgrind.out.%%p" % out]
    pids, search = start_ssdp(suite, peers=False, wrapper=wrapper, rescan=1000)
    suite.run(["callgrind_control", "-z", str(pids["upnp"])])
    answers = search(rate, count, quiet_ms=3000)
    suite.run(["callgrind_control", "-d", "load", str(pids["upnp"])])
    dumps = sorted(f for f in os.listdir(out) if f.count(".") >= 3)  # callgrind.out.PID.DUMP
    profile = os.path.join(out, dumps[-1]) if dumps else None
    report = "answers per search: %.3f\n" % answers["upnp"]["per_search"]
    if profile:
        report += suite.run(["callgrind_annotate", "--inclusive=yes", profile])
        report += suite.run(["callgrind_annotate", profile])
    return report


# --- the table

def compare_builds(area, results):
    """This build against the one given with --before, from the same rounds: the ratio per round of their rates
    (and, for the RPC, of each one's rate to the raw ping-pong or stream of that round)."""
    lines = ["| figure | this build | before | this / before per round |", "|---|---|---|---|"]
    if area == "rpc":
        r = results["pinned"]
        rate = {name: [f["rate"] for f in runs] for name, runs in r.items()}
        for name, reference, unit in (("client", "raw", "x raw"), ("server", "raw", "x raw"),
                                      ("signals", "sdbus_signals", "x sd-bus"), ("oneway", "raw_call_stream", "x raw")):
            lines.append("| %s, one CPU | %s, %s | %s, %s | %s |" % (
                name, figure(rate[name], "/s", 0), figure(ratios(rate[name], rate[reference]), unit, 2),
                figure(rate[name + "_before"], "/s", 0),
                figure(ratios(rate[name + "_before"], rate[reference]), unit, 2),
                figure(ratios(rate[name], rate[name + "_before"]), "x", 2)))
            if name in ("client", "server"):
                lines.append("|   p99/p50 | %s | %s | |" % (
                    figure([f["p99_us"] / f["p50_us"] for f in r[name] if f["p50_us"]], "x", 2),
                    figure([f["p99_us"] / f["p50_us"] for f in r[name + "_before"] if f["p50_us"]], "x", 2)))
    else:
        for key in sorted((k for k in results if not k.endswith(" before")), key=lambda k: (k.split()[1], int(k.split()[0]))):
            now, before = results[key], results[key + " before"]
            lines.append("| parser, %s messages, %s | %s | %s | %s |" % (
                format(int(key.split()[0]), ","), key.split()[1], figure([f["rate"] / 1e6 for f in now], "M/s", 2),
                figure([f["rate"] / 1e6 for f in before], "M/s", 2),
                figure(ratios([f["rate"] for f in now], [f["rate"] for f in before]), "x", 2)))
    return "\n".join(lines)


def figure(values, unit="", digits=1):
    s = stats(values)
    if s is None:
        return "-"
    fmt = "{:,.%df}" % digits
    return "%s%s (%s-%s)" % (fmt.format(s[0]), unit, fmt.format(s[1]), fmt.format(s[2]))


def ratios(numerators, denominators):
    return [n / d if d else None for n, d in zip(numerators, denominators)]


def table(results):
    rows = []
    rpc_results = results["rpc"]
    for mode in ("pinned", "unpinned"):
        r = rpc_results[mode]
        rate = {name: [f["rate"] for f in runs] for name, runs in r.items()}
        label = "one CPU" if mode == "pinned" else "unpinned"
        for name, what in (("client", "project client vs C server"), ("server", "project server vs C client")):
            rows.append(("RPC call with return, %s, %s" % (what, label), figure(rate[name], "/s", 0),
                         "raw ping-pong " + figure(rate["raw"], "/s", 0), figure(ratios(rate[name], rate["raw"]), "x", 2),
                         ">= 0.55x"))
            p50 = [f["p50_us"] for f in r[name]]
            p99 = [f["p99_us"] for f in r[name]]
            rows.append(("  latency p50 / p99, %s" % label, figure(p50, " us", 1) + " / " + figure(p99, " us", 1),
                         "raw p50 " + figure([f["p50_us"] for f in r["raw"]], " us", 1),
                         "p99/p50 " + figure(ratios(p99, p50), "x", 2), "p99 < 2x p50"))
        for name, what in (("qt", "plain Qt local-socket ping-pong"), ("sdbus", "sd-bus"), ("qtdbus", "QtDBus")):
            rows.append(("  %s, %s" % (what, label), figure(rate[name], "/s", 0), "",
                         figure(ratios(rate[name], rate["raw"]), "x", 2) + " of raw", ""))
        if mode == "pinned":
            per_1000 = {name: [f["server_cpu_ns"] / f["calls"] * 1000 / 1e6 for f in runs if f["calls"]]
                        for name, runs in r.items() if name in ("server", "qt", "raw", "sdbus", "qtdbus")}
            rows.append(("RPC server CPU per 1,000 calls, one CPU", figure(per_1000["server"], " ms", 2),
                         "plain Qt " + figure(per_1000["qt"], " ms", 2) + "; raw C " + figure(per_1000["raw"], " ms", 2),
                         figure(ratios(per_1000["server"], per_1000["qt"]), "x", 2) + " of Qt", ""))
        rows.append(("Signals to one subscriber, %s" % label, figure(rate["signals"], "/s", 0),
                     "sd-bus " + figure(rate["sdbus_signals"], "/s", 0) + "; QtDBus "
                     + figure(rate["qtdbus_signals"], "/s", 0) + "; raw stream "
                     + figure(rate["raw_signal_stream"], "/s", 0),
                     figure(ratios(rate["signals"], rate["sdbus_signals"]), "x", 2) + " of sd-bus", ">= 2x sd-bus"))
        rows.append(("Pipelined calls without return, %s" % label, figure(rate["oneway"], "/s", 0),
                     "raw stream " + figure(rate["raw_call_stream"], "/s", 0),
                     figure(ratios(rate["oneway"], rate["raw_call_stream"]), "x", 2) + " of raw", ""))

    p = results["parser"]
    for key in ("10000 one", "100000 one", "1000000 one", "10000 4k", "100000 4k", "1000000 4k"):
        count, delivery = key.split()
        runs = p[key]
        rows.append(("Parser, %s messages, %s" % (format(int(count), ","), "one buffer" if delivery == "one"
                                                   else "4 KiB chunks"),
                     figure([f["rate"] / 1e6 for f in runs], "M msg/s", 2),
                     figure([f["mbytes_per_s"] for f in runs], " MB/s", 0),
                     figure([f["ns_per_message"] for f in runs], " ns/msg", 1),
                     ">= 10M msg/s" if delivery == "one" else ""))
    for delivery in ("one", "4k"):
        small, large = p["10000 " + delivery], p["1000000 " + delivery]
        rows.append(("  linearity 1M vs 10k, %s" % ("one buffer" if delivery == "one" else "4 KiB chunks"),
                     figure(ratios([f["ns_per_message"] for f in large], [f["ns_per_message"] for f in small]), "x", 2),
                     "", "ns per message, 1M / 10k", "about 1x"))

    s = results["ssdp"]
    per = {name: {key: [r[name][key] for r in s["rounds"]] for key in s["rounds"][0][name]} for name, _ in RESPONDERS}
    rows.append(("SSDP CPU per 1,000 ssdp:all searches (MX 1, 1,000/s)", figure(per["upnp"]["cpu_ms_per_1000"], " ms", 1),
                 "minissdpd " + figure(per["minissdpd"]["cpu_ms_per_1000"], " ms", 1) + "; GSSDP "
                 + figure(per["gssdp"]["cpu_ms_per_1000"], " ms", 1),
                 figure(ratios(per["upnp"]["cpu_ms_per_1000"], per["minissdpd"]["cpu_ms_per_1000"]), "x", 2)
                 + " of minissdpd", "<= minissdpd"))
    rows.append(("  the same in the 10,000/s flood", figure(per["upnp"]["cpu_ms_per_1000_flood"], " ms", 1),
                 "minissdpd " + figure(per["minissdpd"]["cpu_ms_per_1000_flood"], " ms", 1) + "; GSSDP "
                 + figure(per["gssdp"]["cpu_ms_per_1000_flood"], " ms", 1),
                 figure(ratios(per["upnp"]["cpu_ms_per_1000_flood"], per["minissdpd"]["cpu_ms_per_1000_flood"]), "x", 2)
                 + " of minissdpd", ""))
    for key, what in (("replies_1000", "at 1,000/s"), ("replies_flood", "in the 10,000/s flood")):
        rows.append(("SSDP replies per search %s" % what, figure(per["upnp"][key], "", 3),
                     "minissdpd " + figure(per["minissdpd"][key], "", 3) + "; GSSDP " + figure(per["gssdp"][key], "", 3),
                     "", "3.0"))
    for index, what in ((0, "resident"), (1, "private")):
        for key, when in (("before_flood_kib", "before the flood"), ("after_flood_kib", "after the flood"),
                          ("after_10s_kib", "10 s after the last answer")):
            rows.append(("SSDP %s memory %s" % (what, when), figure([m[index] for m in per["upnp"][key]], " KiB", 0),
                         "minissdpd " + figure([m[index] for m in per["minissdpd"][key]], " KiB", 0) + "; GSSDP "
                         + figure([m[index] for m in per["gssdp"][key]], " KiB", 0), "",
                         "back to idle" if key == "after_10s_kib" and index == 1 else ""))
    idle = s["idle"]
    rows.append(("Idle private memory", "%d KiB" % idle["upnp"]["private_kib"],
                 "minissdpd %d KiB; GSSDP %d KiB" % (idle["minissdpd"]["private_kib"], idle["gssdp"]["private_kib"]),
                 "%.2fx of GSSDP" % (idle["upnp"]["private_kib"] / max(1, idle["gssdp"]["private_kib"])),
                 "<= GSSDP"))
    rows.append(("Idle wakeups per minute", "%.1f" % idle["upnp"]["wakeups_per_min"],
                 "minissdpd %.1f; GSSDP %.1f" % (idle["minissdpd"]["wakeups_per_min"], idle["gssdp"]["wakeups_per_min"]),
                 "", "the daemon's own timers"))

    c = results["coordinator"]
    for count in ("1", "16", "128"):
        rows.append(("Coordinator rescan, %s address%s on one interface" % (count, "" if count == "1" else "es"),
                     figure([f["rescan_us"] for f in c[count]], " us", 1),
                     "applying rescan (makes the endpoints) " + figure([f["apply_us"] for f in c[count]], " us", 0),
                     figure(ratios([f["rescan_us"] for f in c[count]], [f["rescan_us"] for f in c["1"]]), "x", 1)
                     + " of 1 address", ""))
    return rows


def targets(results, rescan_ms=10000, heartbeat_ms=120000):
    """The issue's targets against this run: (target, this run, met)."""
    rows = []
    pinned = results["rpc"]["pinned"]
    rate = {name: [f["rate"] for f in runs] for name, runs in pinned.items()}
    for name, what in (("server", "server"), ("client", "client")):
        ratio = stats(ratios(rate[name], rate["raw"]))[0]
        rows.append(("RPC call with return, one CPU, the project's %s: >= 0.55x the raw ping-pong" % what,
                     "%.2fx" % ratio, ratio >= 0.55))
        p99_over_p50 = stats([f["p99_us"] / f["p50_us"] for f in pinned[name] if f["p50_us"]])[0]
        rows.append(("  its p99 below 2x its p50", "%.2fx" % p99_over_p50, p99_over_p50 < 2))
    ratio = stats(ratios(rate["signals"], rate["sdbus_signals"]))[0]
    rows.append(("Signals to one subscriber, one CPU: >= 2x sd-bus", "%.2fx" % ratio, ratio >= 2))
    parser_results = results["parser"]
    one = stats([f["rate"] for f in parser_results["1000000 one"]])[0]
    rows.append(("Parser: >= 10 million calls a second in one buffer", "%.1f million (1M messages)" % (one / 1e6),
                 one >= 10e6))
    growth = max(stats(ratios([f["ns_per_message"] for f in parser_results["1000000 " + d]],
                              [f["ns_per_message"] for f in parser_results["10000 " + d]]))[0] for d in ("one", "4k"))
    rows.append(("Parser: linear from 10k to 1M messages (time per message at 1M within 1.25x of 10k)",
                 "%.2fx" % growth, growth <= 1.25))
    rounds = results["ssdp"]["rounds"]
    ratio = stats([r["upnp"]["cpu_ms_per_1000"] / r["minissdpd"]["cpu_ms_per_1000"] for r in rounds])[0]
    rows.append(("SSDP CPU per 1,000 searches <= minissdpd's", "%.2fx" % ratio, ratio <= 1))
    for key, what in (("replies_1000", "at 1,000/s"), ("replies_flood", "in the 10,000/s flood")):
        worst = min(r["upnp"][key] for r in rounds)
        rows.append(("SSDP 3.0 replies per search %s, every round" % what, "%.3f at the least" % worst,
                     worst >= 2.9995))
    excess = max(r["upnp"]["after_10s_kib"][1] - r["upnp"]["before_flood_kib"][1] for r in rounds)
    rows.append(("SSDP private memory back to its level before the flood 10 s after the last answer",
                 "%+d KiB at the most" % excess, excess <= 0))
    idle = results["ssdp"]["idle"]
    rows.append(("Idle private memory <= GSSDP's", "%d KiB vs %d KiB" % (idle["upnp"]["private_kib"],
                                                                        idle["gssdp"]["private_kib"]),
                 idle["upnp"]["private_kib"] <= idle["gssdp"]["private_kib"]))
    own = 60000.0 / rescan_ms + 60000.0 / heartbeat_ms
    rows.append(("Idle wakeups no more than the daemon's own timers need (rescan every %d s, heartbeat every %d s:"
                 " %.1f a minute)" % (rescan_ms / 1000, heartbeat_ms / 1000, own),
                 "%.1f a minute" % idle["upnp"]["wakeups_per_min"], idle["upnp"]["wakeups_per_min"] <= own + 1))
    lines = ["| target | this run | met |", "|---|---|---|"]
    lines += ["| %s | %s | %s |" % (target, value, "yes" if met else "**no**") for target, value, met in rows]
    return "\n".join(lines)


def render(rows):
    header = ("figure", "project: median (min-max)", "references in the same rounds", "ratio per round", "target")
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    for row in rows:
        lines.append("| " + " | ".join(row) + " |")
    return "\n".join(lines)


def machine(cpu, started, load_before):
    with open("/proc/cpuinfo") as info:
        model = next((line.split(":", 1)[1].strip() for line in info if line.startswith("model name")), "?")
    busiest = subprocess.run(["ps", "-eo", "pcpu,comm", "--sort=-pcpu", "--no-headers"], stdout=subprocess.PIPE,
                             text=True).stdout.splitlines()[:6]
    return ("%d CPUs (%s), Linux %s, %s. Load average %s at the start, %s at the end; CPU %d (the idlest at the start) "
            "took the pinned runs. Busiest processes at the end (ps, each one's CPU share over its lifetime): %s. "
            "Run started %s." % (
                os.cpu_count(), model, platform.release(), "Qt " + qt_version(), load_before,
                " ".join(open("/proc/loadavg").read().split()[:3]), cpu,
                "; ".join(" ".join(line.split()) for line in busiest), started))


def qt_version():
    result = subprocess.run(["dpkg-query", "-W", "-f=${Version}", "libqt5core5a"], stdout=subprocess.PIPE, text=True)
    return result.stdout.strip() or "?"


def main():
    parser_ = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser_.add_argument("--smoke", action="store_true", help="everything once, briefly (for CI)")
    parser_.add_argument("--rounds", type=int)
    parser_.add_argument("--output")
    parser_.add_argument("--daemon", help="the upnp binary to measure (default: the one built beside)")
    parser_.add_argument("--render", action="store_true",
                         help="write the report again from the figures of the last full run, without measuring")
    parser_.add_argument("--profile-ssdp", metavar="RATE,COUNT",
                         help="the daemon alone under callgrind, answering COUNT searches at RATE a second")
    parser_.add_argument("--only", choices=("rpc", "parser", "coordinator", "ssdp"),
                         help="one area alone, its figures printed as JSON (for profiling and tuning)")
    parser_.add_argument("--before", metavar="DIR",
                         help="with --only rpc or parser: also run rpcbench and parserbench from DIR (an earlier"
                              " build) in the same rounds, and print this build against it")
    args = parser_.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench/run.py needs root (network namespaces, taskset)")
    rounds = args.rounds or (1 if args.smoke else 5)
    if args.daemon:
        global DAEMON
        DAEMON = os.path.abspath(args.daemon)
    if args.before:
        global BEFORE
        BEFORE = os.path.abspath(args.before)
    output = args.output or (os.path.join(BUILD, "PERFORMANCE-smoke.md") if args.smoke
                             else os.path.join(ROOT, "docs", "PERFORMANCE.md"))
    if args.render:
        with open(os.path.join(BUILD, "bench-results.json")) as saved:
            results = json.load(saved)
        write_report(results, output, results["machine"], rounds=len(results["ssdp"]["rounds"]))
        return
    suite = Suite(args.smoke)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    started = time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())
    load_before = " ".join(open("/proc/loadavg").read().split()[:3])
    results = {}
    if args.profile_ssdp:
        rate, count = args.profile_ssdp.split(",")
        try:
            print(profile_ssdp(suite, int(rate), int(count)))
        finally:
            suite.cleanup()
        return
    if args.only:
        try:
            cpu = idlest_cpu()
            area = {"rpc": lambda: rpc(suite, rounds, cpu), "parser": lambda: parser(suite, rounds, cpu),
                    "coordinator": lambda: coordinator(suite, rounds), "ssdp": lambda: ssdp(suite, rounds)}
            figures = area[args.only]()
            print(json.dumps(figures, indent=1))
            if BEFORE and args.only in ("rpc", "parser"):
                print(compare_builds(args.only, figures))
        finally:
            suite.cleanup()
        return
    try:
        cpu = idlest_cpu()
        print("RPC (%d rounds, pinned to CPU %d, then unpinned)..." % (rounds, cpu), flush=True)
        results["rpc"] = rpc(suite, rounds, cpu)
        print("parser...", flush=True)
        results["parser"] = parser(suite, rounds, cpu)
        print("coordinator...", flush=True)
        results["coordinator"] = coordinator(suite, rounds)
        print("SSDP (daemon, minissdpd and GSSDP side by side)...", flush=True)
        results["ssdp"] = ssdp(suite, rounds)
    finally:
        suite.cleanup()
    results["machine"] = machine(cpu, started, load_before)
    with open(os.path.join(BUILD, "bench-results%s.json" % ("-smoke" if args.smoke else "")), "w") as out:
        json.dump(results, out, indent=1)
    write_report(results, output, results["machine"], rounds)


def write_report(results, output, machine_text, rounds):
    text = render(table(results))
    print(text)
    with open(os.path.join(ROOT, "bench", "PERFORMANCE.md.in")) as template:
        report = template.read()
    with open(output, "w") as out:
        out.write(report.replace("@MACHINE@", machine_text).replace("@ROUNDS@", str(rounds)).replace("@TABLE@", text)
                  .replace("@TARGETS@", targets(results, results["ssdp"].get("rescan_ms", 10000))))
    print("written: %s" % os.path.relpath(output, ROOT))


if __name__ == "__main__":
    main()
