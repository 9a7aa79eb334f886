# SPDX-License-Identifier: Apache-2.0
# What is measured, and the figures that come of it. Each function takes a Plan and adds rows to a Report.

import contextlib
import dataclasses
import json
import pathlib
import statistics
import subprocess
import time

import world
from report import Aim

# How long a query sleeps before it looks again whether all have answered.
TICK_NANOSECONDS = 10e6
# Idle threads of the daemon end after 3 s.
SETTLE_SECONDS = 5


@dataclasses.dataclass
class Plan:
    build: pathlib.Path
    processors: list
    # A quick run shows that everything works; its figures mean nothing.
    quick: bool

    def amount(self, usual, quick):
        return quick if self.quick else usual

    def placements(self):
        """Name, the caller's processor and the servers'."""
        first = self.processors[0]
        yield "one processor", first, first
        if len(self.processors) > 1:
            yield "two processors", first, self.processors[1]


def median_quotient(dividends, divisors):
    """A block in which nothing could be counted says nothing."""
    return statistics.median(dividend / divisor for dividend, divisor in zip(dividends, divisors) if divisor)


def ratio(contender, reference):
    """Of blocks that ran at about the same time, so that what disturbed one disturbed both."""
    return median_quotient(contender["block_medians_ns"], reference["block_medians_ns"])


def primitives(plan, report):
    report.section("Work queues", ["time"])
    command = [plan.build / "bench/bench-primitives", "--benchmark_format=json",
               f"--benchmark_min_time={plan.amount(0.5, 0.01)}"]
    results = {benchmark["name"].split("/")[0]: benchmark
               for benchmark in world.measure(command, plan.processors[0])["benchmarks"]}
    names = {
        "mutexLock": "lock and unlock a std::mutex",
        "syncOnIdleQueue": "sync on an idle queue",
        "threadHopAndBack": "hop to a thread and back, by std::condition_variable",
        "asyncHopAndBack": "hop to a queue and back, by async and a semaphore",
        "asyncItemsInARow": "1,000 items by async on one queue",
        "thousandBlockedThreads": "1,000 blocked std::threads, started and ended",
        "thousandBlockedQueues": "1,000 blocked queues, begun and ended",
    }
    for name, text in names.items():
        benchmark = results[name]
        unit = {"ns": 1, "ms": 1e6}[benchmark["time_unit"]]
        report.row(f"primitives.{name}", text, [report.duration(benchmark["real_time"] * unit)])


def round_trips(plan, report):
    for placement, caller, server in plan.placements():
        report.section(f"The thinnest request, {placement}",
                       ["p50", "p99", "to peer to peer", "to one hop", "to a broker"])
        with world.Daemon(plan.build, server), world.Broker(server) as broker, \
                world.Echo(plan.build, "direct", world.SCRATCH / "direct", server) as direct, \
                world.Echo(plan.build, "hop", world.SCRATCH / "hop", server) as hop, \
                world.Echo(plan.build, "broker", broker.socket, server):
            results = world.measure([
                plan.build / "bench/bench-round-trips", plan.amount(60, 2), plan.amount(100, 10),
                f"direct,call,{direct.socket}", f"direct_echo,echo,{direct.socket}",
                f"hop,call,{hop.socket}", f"hop_echo,echo,{hop.socket}",
                f"broker,brokered-call,{broker.socket}", f"broker_echo,brokered-echo,{broker.socket}",
                f"kelvaned,call,{world.DAEMON_SOCKET}",
            ], caller)
        names = {
            "direct": "peer to peer, answered with nothing",
            "direct_echo": "peer to peer, answered with the message",
            "hop": "with one worker hop, answered with nothing",
            "hop_echo": "with one worker hop, answered with the message",
            "broker": "through dbus-daemon, answered with nothing",
            "broker_echo": "through dbus-daemon, answered with the message",
            "kelvaned": "kelvaned: clientCancelPurge, answered with nothing",
        }
        for name, text in names.items():
            result = results[name]
            figures = [ratio(result, results[other]) for other in ("direct_echo", "hop_echo", "broker_echo")]
            cells = [report.duration(result["p50_ns"]), report.duration(result["p99_ns"]),
                     *(f"{figure:.2f}" for figure in figures)]
            aim = Aim("at most 1.2 times the echo with one hop", figures[1] <= 1.2) if name == "kelvaned" else None
            report.row(f"round_trips.{placement}.{name}", text, cells, aim, {
                "p50_ns": result["p50_ns"], "p99_ns": result["p99_ns"], "to_direct_echo": figures[0],
                "to_hop_echo": figures[1], "to_broker_echo": figures[2],
                "to_hop": ratio(result, results["hop"])})


def idle_connections(plan, report):
    report.section("The thinnest request beside idle connections, one processor", ["p50", "p99", "to none"])
    counts = [0, plan.amount(1000, 20), plan.amount(2000, 40)]
    with world.Daemon(plan.build, plan.processors[0]):
        results = world.measure([
            plan.build / "bench/bench-round-trips", plan.amount(12, 2), plan.amount(300, 10),
            *(f"{count},call,{world.DAEMON_SOCKET},{count}" for count in counts)], plan.processors[0])
    for count in counts:
        result = results[str(count)]
        figure = ratio(result, results["0"])
        aim = Aim("within a tenth", abs(figure - 1) <= 0.1) if count else None
        report.row(f"idle_connections.{count}", f"{count:,} idle connections",
                   [report.duration(result["p50_ns"]), report.duration(result["p99_ns"]), f"{figure:.2f}"], aim,
                   {"p50_ns": result["p50_ns"], "p99_ns": result["p99_ns"], "to_none": figure})


def purges(plan, report):
    for placement, caller, server in plan.placements():
        report.section(f"A purge at urgency 1, for each servicePurge sent, {placement}",
                       ["purge", "bare calls", "ratio", "calls", "rounds", "incomplete"])
        per_call = {}
        figures = {}
        for count, rounds in ((10, 200), (100, 40), (1000, 8)):
            rounds = plan.amount(rounds, 2)
            with world.Daemon(plan.build, server), world.Services(plan.build, count, caller) as services:
                result = world.measure([plan.build / "bench/bench-purges", count, rounds, world.VOLUME, 16,
                                        world.DAEMON_SOCKET, services.socket], caller)
            if not result["calls"]:
                raise RuntimeError("no purge was complete")
            purge = median_quotient(result["purge_ns"], result["calls"])
            bare = median_quotient(result["bare_ns"], result["calls"])
            figure = median_quotient(result["purge_ns"], result["bare_ns"])
            per_call[count] = purge
            figures[count] = figure
            report.row(f"purges.{placement}.{count}", f"{count:,} services",
                       [report.duration(purge), report.duration(bare), f"{figure:.2f}",
                        f"{statistics.median(result['calls']):.0f}", str(len(result["calls"])),
                        str(len(result["incomplete"]))],
                       Aim("at most 3", figure <= 3),
                       {"purge_ns": purge, "bare_ns": bare, "ratio": figure, **result})
        # More sockets are dearer to anybody, and the rounds of different counts are seconds apart: so it is the ratio
        # that has to stay.
        growth = {"purge": per_call[1000] / per_call[10], "ratio": figures[1000] / figures[10]}
        report.row(f"purges.{placement}.growth", "1,000 services to 10",
                   [f"{growth['purge']:.2f}", "", f"{growth['ratio']:.2f}"],
                   Aim("ratio rises by a tenth at most", growth["ratio"] <= 1.1), growth)


def takings(plan, report):
    """What purges take, and how hard they have to ask, while some of the services have nothing."""
    page = 4096
    needed = 512 * page
    report.section("Purges of 2 MiB where some services have nothing",
                   ["at urgency 1", "taken beside", "at most", "escalates to"])
    for count, rich, absent in ((2, 1, 0), (2, 1, 8), (2, 2, 0), (3, 1, 0), (3, 3, 0), (10, 1, 0), (10, 5, 8),
                                (10, 10, 0), (1000, 1, 0), (1000, 500, 8), (1000, 1000, 0)):
        rounds = plan.amount(200 if count < 1000 else 40, 2)
        if plan.quick and count == 1000:
            continue
        world.describe(absent)
        with world.Daemon(plan.build), \
                world.Services(plan.build, count, pages=min(512, 100_000 // rich), rich=rich) as services:
            single = [purge_for_takings(plan, services, needed, "--urgency=1", "--timeout=60", "--single")
                      for _ in range(rounds)]
            escalating = [purge_for_takings(plan, services, needed) for _ in range(max(rounds // 10, 1))]
        world.describe(0)
        satisfied = sum(taken >= needed for taken, _ in single)
        beside = [max(taken - needed, 0) // page for taken, _ in single]
        urgency = max(urgency for _, urgency in escalating)
        report.row(f"takings.{count}.{rich}.{absent}",
                   f"{count:,} services, {rich:,} with plenty, {absent} described and not there",
                   [f"{satisfied} of {rounds}", f"{statistics.mean(beside):.1f} pages", f"{max(beside)} pages",
                    f"urgency {urgency}"],
                   Aim("all, and at most a page a service beside", satisfied == rounds and max(beside) <= count),
                   {"satisfied": satisfied, "rounds": rounds, "pages_beside": beside, "urgency": urgency})


def purge_for_takings(plan, services, needed, *options):
    """Bytes that the volume gained when all was over, and the highest urgency that was allowed."""
    services.refill()
    before = world.available()
    purge = world.Process([plan.build / "tools/kelvanectl/kelvanectl", "purge", "--json", *options, world.VOLUME, needed],
                          stdout=subprocess.PIPE)
    with purge:
        output = purge.process.stdout.read()
    result = json.loads(output)
    return world.available() - before, max(request["urgency_limit"] for request in result["requests"])


def warm_queries(plan, report):
    for placement, caller, server in plan.placements():
        report.section(f"A query answered from the record, {placement}",
                       ["p50", "p99", "to a broker", "to a broker, as long"])
        for count, blocks, calls in plan.amount(((10, 60, 100), (100, 30, 30), (1000, 10, 10)), ((10, 2, 5),)):
            with world.Daemon(plan.build, server) as daemon, world.Services(plan.build, count, caller) as services, \
                    world.Broker(server) as broker, world.Echo(plan.build, "broker", broker.socket, server):
                cold_query_rounds(plan, daemon, services, count, 0, caller)
                results = world.measure([
                    plan.build / "bench/bench-round-trips", blocks, calls,
                    f"echo,brokered-echo,{broker.socket}", f"long,brokered-entries{count + 2},{broker.socket}",
                    f"query,query,{world.DAEMON_SOCKET}"], caller)
            if count == 10:
                report.row(f"warm_queries.{placement}.echo", "through dbus-daemon, answered with the message",
                           [report.duration(results["echo"]["p50_ns"]), report.duration(results["echo"]["p99_ns"])],
                           None, {name: results["echo"][name] for name in ("p50_ns", "p99_ns")})
            query = results["query"]
            figures = [ratio(query, results[other]) for other in ("echo", "long")]
            aim = Aim("at most the echo through a broker", figures[0] <= 1) if count == 10 else None
            report.row(f"warm_queries.{placement}.{count}", f"{count:,} services",
                       [report.duration(query["p50_ns"]), report.duration(query["p99_ns"]),
                        *(f"{figure:.2f}" for figure in figures)], aim,
                       {"p50_ns": query["p50_ns"], "p99_ns": query["p99_ns"], "to_broker_echo": figures[0],
                        "to_broker_echo_as_long": figures[1]})


def cold_query_rounds(plan, daemon, services, count, rounds, caller):
    """Leaves the record warm."""
    return world.measure([plan.build / "bench/bench-queries", count, rounds, world.VOLUME, daemon.process.pid,
                          world.DAEMON_SOCKET, services.socket], caller)


def cold_queries(plan, report):
    for placement, caller, server in plan.placements():
        report.section(f"A query that has to ask everybody, {placement}",
                       ["query", "bare calls", "ratio but for a tick", "without the record", "daemon, a service",
                        "of it the record", "incomplete"])
        growing = {}
        for count, rounds in plan.amount(((10, 60), (100, 40), (1000, 12)), ((2, 2), (10, 2))):
            results = {}
            for name, preferences in (("with", contextlib.nullcontext()), ("without", world.no_preferences())):
                with preferences, world.Daemon(plan.build, server) as daemon, \
                        world.Services(plan.build, count, caller) as services:
                    results[name] = cold_query_rounds(plan, daemon, services, count, rounds, caller)
                if not results[name]["query_ns"]:
                    raise RuntimeError("no query asked everybody")
            result = results["with"]
            ratios = {name: ratio_but_for_a_tick(measured) for name, measured in results.items()}
            # Time on a processor, as most of a query is sleep.
            each = {name: statistics.median(measured["daemon_ns"]) / count for name, measured in results.items()}
            growing[count] = median_quotient(results["without"]["daemon_ns"], results["without"]["bare_ns"])
            report.row(f"cold_queries.{placement}.{count}", f"{count:,} services",
                       [report.duration(statistics.median(result["query_ns"])),
                        report.duration(statistics.median(result["bare_ns"])), f"{ratios['with']:.2f}",
                        f"{ratios['without']:.2f}", report.duration(each["with"]),
                        report.duration(max(each["with"] - each["without"], 0)), str(result["incomplete"])],
                       Aim("at most 3", ratios["with"] <= 3) if count == 1000 else None,
                       {"ratio_but_for_a_tick": ratios, "daemon_ns": each, **results})
        # As for purges, each to the bare calls of its time.
        growth = growing[count] / next(iter(growing.values()))
        report.row(f"cold_queries.{placement}.growth",
                   f"{count:,} services to {next(iter(growing))}, without the record, to bare calls",
                   ["", "", "", "", f"{growth:.2f}"], Aim("rises by a tenth at most", growth <= 1.1),
                   {"ratio": growth})


def ratio_but_for_a_tick(result):
    """A query that was answered before it slept is counted as no time at all."""
    return statistics.median(max(query - TICK_NANOSECONDS, 0) / bare
                             for query, bare in zip(result["query_ns"], result["bare_ns"]))


def record(plan, report):
    report.section("An answer put into the record, one processor", ["time", "to 1"])
    results = world.measure([plan.build / "bench/bench-record", world.VOLUME, "--benchmark_format=json",
                             f"--benchmark_min_time={plan.amount(0.5, 0.01)}"], plan.processors[0])["benchmarks"]
    times = {tuple(result["name"].removesuffix("/process_time").split("/")): 1e9 / result["items_per_second"]
             for result in results}
    for name, duration in times.items():
        if name[0] != "recordUpdate" or name[2] != "0":
            continue
        count = int(name[1])
        report.row(f"record.{count}", f"{count:,} services in it" if count > 1 else "1 service in it",
                   [report.duration(duration), f"{duration / times['recordUpdate', '1', '0']:.1f}"],
                   Aim("near 50 µs", duration < 60e3) if count == 1000 else None, {"ns": duration})
    report.section("The same and a set in memory, by how many keys are stored, one processor", ["time", "to none"])
    for name, duration in times.items():
        keys = name[-1]
        none = times[*name[:-1], "0"]
        if keys != "0":
            what = "a set" if name[0] == "stateSet" else f"an answer, {name[1]} in the record"
            report.row("keys." + ".".join(name[:-1]) + ".0", f"{what}, no keys", [report.duration(none), "1.00"], None, {"ns": none})
            report.row("keys." + ".".join(name), f"{what}, {int(keys):,} keys of 100 bytes",
                       [report.duration(duration), f"{duration / none:.2f}"],
                       Aim("at most 1.2", duration <= 1.2 * none), {"ns": duration})


def state(plan, report):
    """The state store, on a file system that is on a disk."""
    for kind in ("disk", "loop") if world.may_mount_files() else ("disk",):
        for placement, caller, server in plan.placements():
            state_on(plan, report, kind, placement, caller, server)


def state_on(plan, report, kind, placement, caller, server):
    directory = plan.build / "bench"
    results = {}
    for clients in (1, plan.amount(64, 4)):
        with world.preferences_on(directory, kind) as file_system, world.Daemon(plan.build, server) as daemon, \
                world.Echo(plan.build, "direct", world.SCRATCH / "direct", server) as direct, \
                world.Echo(plan.build, "hop", world.SCRATCH / "hop", server) as hop:
            results[clients] = world.measure([
                plan.build / "bench/bench-state", plan.amount(12, 2), plan.amount(50, 5), clients,
                daemon.process.pid, world.DAEMON_SOCKET, direct.socket, hop.socket, world.SLOT,
                world.PREFERENCES / "flushed"], caller)
    where = f"{file_system} in a file" if kind == "loop" else file_system
    report.section(f"State on {where}, {placement}",
                   ["a second", "to the echo", "to one hop", "to the flush", "daemon, a call"])
    names = {
        "direct_echo": "peer to peer, answered with the message",
        "hop_echo": "with one worker hop, answered with the message",
        "flush": "a flush shared by all who wait",
        "get": "clientGetState",
        "set": "clientSetState, answered when durable",
    }
    for clients, result in results.items():
        least = [min(pair) for pair in zip(result["direct_echo"], result["flush"])]
        share = median_quotient(result["set"], least)
        for name, text in names.items():
            figures = [median_quotient(result[name], result[other]) for other in ("direct_echo", "hop_echo", "flush")]
            cells = [f"{statistics.median(result[name]):,.0f}", *(f"{figure:.2f}" for figure in figures)]
            if name in ("set", "get"):
                cells.append(report.duration(statistics.median(result[f"{name}_daemon_ns"])))
            if name == "flush":
                text += f", {result['record_bytes']:,} bytes"
            aim = Aim("at least 0.5 of the lesser of echo and flush", share >= 0.5) if name == "set" else None
            report.row(f"state.{kind}.{placement}.{clients}.{name}", f"{clients} × {text}", cells, aim, {
                "per_second": result[name], "to_direct_echo": figures[0], "to_hop_echo": figures[1],
                "to_flush": figures[2], **({"to_lesser": share} if name == "set" else {})})


def start_up(plan, report):
    report.section("Start-up", ["median", "slowest", "resident", "of it not shared"])
    for count in (0, plan.amount(1000, 10)):
        world.describe(count)
        times = []
        for _ in range(plan.amount(15, 2)):
            with world.Daemon(plan.build) as daemon:
                times.append(daemon.start_milliseconds)
                resident = daemon.resident()
        median = statistics.median(times)
        report.row(f"start_up.{count}", f"open for business with {count:,} descriptions",
                   [f"{median:.1f} ms", f"{max(times):.1f} ms", report.size(resident["all"]),
                    report.size(resident["anonymous"])],
                   Aim("under 50 ms and 8 MiB", median < 50 and resident["all"] < 8 * 1024),
                   {"median_ms": median, "slowest_ms": max(times), "resident_kib": resident})
    world.describe(0)


def memory(plan, report):
    report.section("Memory, after idle threads have ended", ["resident", "of it not shared"])
    count = plan.amount(1000, 20)
    settle = plan.amount(SETTLE_SECONDS, 0.1)

    def row(name, text, resident, aim=None):
        report.row(f"memory.{name}", text, [report.size(resident["all"]), report.size(resident["anonymous"])], aim,
                   {"resident_kib": resident})

    with world.Daemon(plan.build) as daemon:
        time.sleep(settle)
        before = daemon.resident()
        sockets = daemon.open_sockets()
        row("before", "at rest", before, Aim("under 8 MiB", before["all"] < 8 * 1024))
        with world.Services(plan.build, count):
            time.sleep(settle)
            during = daemon.resident()
            each = (during["all"] - before["all"]) / count
            row("during", f"with {count:,} services checked in", during)
            report.row("memory.each", "of it for each service", [f"{each:.1f} KiB"],
                       Aim("under 16 KiB", each < 16), {"kib": each})
        world.until(lambda: daemon.open_sockets() <= sockets, "the services' end")
        time.sleep(settle)
        after = daemon.resident()
        row("after", "after they have gone", after,
            Aim("within a tenth of at rest", after["all"] <= 1.1 * before["all"]))


def idleness(plan, report):
    report.section("At rest", ["figure"])
    window = plan.amount(20, 1)
    with world.Daemon(plan.build) as daemon:
        time.sleep(plan.amount(SETTLE_SECONDS, 0.1))
        begin = daemon.wakeups()
        time.sleep(window)
        per_minute = (daemon.wakeups() - begin) * 60 / window
        report.row("idleness.threads", "threads", [str(daemon.status("Threads"))], None,
                   {"threads": daemon.status("Threads")})
        report.row("idleness.wakeups", f"wake-ups a minute, over {window} s", [f"{per_minute:.0f}"], None,
                   {"per_minute": per_minute, "window_seconds": window})


ALL = {function.__name__: function
       for function in (primitives, round_trips, idle_connections, purges, takings, warm_queries, cold_queries, record, state,
                        start_up, memory, idleness)}
