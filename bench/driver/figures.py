# SPDX-License-Identifier: Apache-2.0
"""Figures that stand for themselves: single steps, idle processes, sizes, instructions."""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

from driver import cases
from driver.comparison import Running

# Nanoseconds at most, and no allocation. A path is read once, however many routes refuse it.
MISS_NS = {"match/static_miss": 25, "match/variable_miss": 25, "match/first_segment_miss": 25,
           "find_miss/1000": 25_000, "find_miss_64_KiB/1000": 30_000}


def figure(name, title, value, unit, target=None, is_reached=None):
    targets = [{"text": target, "reached": is_reached}] if target else []
    return {"case": name, "title": title, "value": value, "unit": unit, "targets": targets}


def skip(what, package):
    print(f"bench: SKIPPED: {what}: {package} isn't installed", file=sys.stderr)


def micro(programs, is_smoke):
    command = programs("micro", "--benchmark_format=json")
    if not pathlib.Path(command[0]).exists():
        skip("micro", "libbenchmark-dev")
        return
    effort = ["--benchmark_min_time=0.001"] if is_smoke else [
        "--benchmark_min_time=0.1", "--benchmark_repetitions=5", "--benchmark_report_aggregates_only=true"]
    output = subprocess.run(command + effort, check=True, capture_output=True, text=True).stdout
    for result in json.loads(output)["benchmarks"]:
        if result.get("error_occurred"):
            raise RuntimeError(f"{result['name']}: {result['error_message']}")
        if result.get("aggregate_name", "median") != "median":
            continue
        name, value, allocations = result["run_name"], result["cpu_time"], result["allocations"]
        limit = MISS_NS.get(name)
        target = f"≤ {limit:,} ns, no allocation" if limit else None
        row = figure("micro/" + name, name, value, "ns", target, limit and value <= limit and allocations == 0)
        yield {**row, "allocations": allocations}


def idle(programs, is_smoke):
    """Memory, threads and wake-ups of processes that have worked and have nothing to do."""
    def started(contestant):
        running = Running(contestant)
        for client in running.clients:
            client.ask("do 10")
        return running

    direct = started(cases.one_client(programs, "tarn", "tarn_request", 32))
    raw = started(cases.one_client(programs, "raw", "raw_request", 32))
    routed = started(next(cases.router_cases(programs)).contestants[1])
    window = started(next(case for case in cases.window_cases(programs) if case.name == "window/8").contestants[1])
    relayed = Running(cases.changes(programs, "tarn", "tarn_changes", 1))
    try:
        processes = {"server": direct.servers[0], "client": direct.clients[0], "router": routed.servers[1],
                     "relay": relayed.servers[0], "raw server": raw.servers[0], "raw client": raw.clients[0],
                     "asynchronous client": window.clients[0]}
        seconds = 0.1 if is_smoke else 10
        time.sleep(min(seconds, 3))  # memory that isn't needed goes back a second after large messages
        before = {name: process.switches(["voluntary"]) for name, process in processes.items()}
        time.sleep(seconds)
        for name, process in processes.items():
            wakeups = process.switches(["voluntary"]) - before[name]
            yield figure(f"footprint/idle/{name}/memory", f"{name}: memory", process.memory_kib() / 1024, "MiB")
            yield figure(f"footprint/idle/{name}/own", f"{name}: memory of its own", process.memory_kib("RssAnon") / 1024, "MiB")
            yield figure(f"footprint/idle/{name}/threads", f"{name}: threads", process.threads(), "")
            yield figure(f"footprint/idle/{name}/wakeups", f"{name}: wake-ups in {seconds} s", wakeups, "",
                         None if name.startswith("raw") else "none", wakeups == 0)
    finally:
        for running in (direct, raw, routed, relayed, window):
            running.stop()


def growth(programs):
    """What a route, a client and a connection take, as differences between processes."""
    def memory(routes, clients):
        contestant = cases.Contestant(
            "tarn", [programs("tarn_request", "server", endpoint=cases.DIRECT, size=32, routes=routes)],
            [programs("tarn_request", "client", endpoint=cases.DIRECT, size=32, clients=clients)])
        running = Running(contestant)
        try:
            running.clients[0].ask("do 10")
            return [process.memory_kib("RssAnon") for process in (running.servers[0], running.clients[0])]
        finally:
            running.stop()

    few, routes, clients = memory(8, 1), memory(1008, 1), memory(8, 101)
    yield figure("footprint/growth/1000-routes", "1,000 routes", routes[0] - few[0], "KiB")
    yield figure("footprint/growth/100-clients", "100 clients, in their process", clients[1] - few[1], "KiB")
    yield figure("footprint/growth/100-connections", "100 clients, in the server", clients[0] - few[0], "KiB")


def sizes(build):
    with tempfile.TemporaryDirectory() as folder:
        for file in ("lib/tarn/libtarn.so.0", "lib/slate/libslate.so.0", "bin/tarnd", "bin/tarn"):
            stripped = pathlib.Path(folder, "stripped")
            subprocess.run(["strip", "-o", stripped, build / file], check=True)
            name = pathlib.Path(file).name
            yield figure(f"footprint/size/{name}", f"{name}, stripped", stripped.stat().st_size / 1024, "KiB")


def instructions(programs, is_smoke):
    """For one GET of 32 B, as callgrind counts them: the difference between few and many."""
    valgrind = shutil.which("valgrind")
    if not valgrind:
        skip("instructions", "valgrind")
        return
    few, many = (5, 10) if is_smoke else (100, 1100)

    def counted(contestant, requests):
        under = [valgrind, "--tool=callgrind", "--callgrind-out-file=/dev/null"]
        contestant = cases.Contestant(contestant.name, [under + command for command in contestant.servers],
                                      [under + command for command in contestant.clients])
        running = Running(contestant)
        try:
            running.clients[0].ask(f"do {requests}")
            return [int(re.search(r"Collected : (\d+)", process.finish())[1])
                    for process in (running.clients[0], running.servers[0])]
        finally:
            running.stop()

    for name, program, operation in (("raw", "raw_request", "get"), ("raw, protobuf", "raw_request", "protobuf"),
                                     ("tarn", "tarn_request", "get")):
        contestant = cases.one_client(programs, name, program, 32, operation)
        before, after = counted(contestant, few), counted(contestant, many)
        for i, side in enumerate(("client", "server")):
            yield figure(f"instructions/{name}/{side}", f"instructions for a GET 32 B: {name}, {side}",
                         (after[i] - before[i]) / (many - few), "")


def groups(programs, build, is_smoke):
    """By the beginnings of the names of their figures."""
    return {"micro/": lambda: micro(programs, is_smoke), "footprint/idle/": lambda: idle(programs, is_smoke),
            "footprint/growth/": lambda: growth(programs), "footprint/size/": lambda: sizes(build),
            "instructions/": lambda: instructions(programs, is_smoke)}
