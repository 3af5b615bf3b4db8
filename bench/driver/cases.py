# SPDX-License-Identifier: Apache-2.0
"""What is compared with what. Each case names the programs of bench/process that it starts."""

import fnmatch

from driver.comparison import ChangesCase, Contestant, RequestCase, Target

CLIENTS = 8  # as many as the server of bench_tarn_request has routes
BODY = 64 << 20


class Programs:
    """Commands of the programs in a build folder."""

    def __init__(self, build):
        self._build = build

    def bench(self, name, role, **arguments):
        return [str(self._build / "bench" / f"bench_{name}"), role,
                *(f"{key}={value}" for key, value in arguments.items())]

    def router(self):
        return [str(self._build / "apps" / "tarn_router"), "{dir}", ROUTER]


DIRECT = "ipc://{dir}/service/zmq.sock"  # where a router with the run-time directory {dir} finds it
ROUTER = "ipc://{dir}/router.sock"


def _pair(programs, stack, size, operation="get", server=None, client=None):
    """A server and a client of one stack."""
    server = dict({"endpoint": DIRECT, "size": size}, **(server or {}))
    client = dict({"endpoint": DIRECT, "size": size, "operation": operation}, **(client or {}))
    if stack != "tarn":
        server["operation"] = operation
    return programs.bench(f"{stack}_request", "server", **server), programs.bench(f"{stack}_request", "client", **client)


def _simple(programs, name, stack, size, operation="get", client=None):
    server, client = _pair(programs, stack, size, operation, client=client)
    return Contestant(name, [server], [client])


def get_cases(programs):
    for label, size, most in (("32 B", 32, 1.10), ("1 KiB", 1024, 1.10), ("64 KiB", 65536, 1.25), ("1 MiB", 1 << 20, 1.35)):
        yield RequestCase(f"get/{label.replace(' ', '')}", f"GET {label}", "µs", [
            _simple(programs, "raw", "raw", size),
            _simple(programs, "tarn", "tarn", size),
            _simple(programs, "raw, protobuf", "raw", size, "protobuf"),
        ], [Target("≤", most)])


def _crowd(programs, name, stack, workers, background=None):
    server, client = _pair(programs, stack, 32, server={"workers": workers})
    clients = [client] * CLIENTS
    if stack == "tarn":  # each asks a route of its own, as different applications do
        clients = [client + [f"path=/data/{number}"] for number in range(CLIENTS)]
    return Contestant(name, [server], clients, client + ["path=/slow"] if background else None)


def crowd_cases(programs):
    for workers in (1, 2, 4):
        yield RequestCase(f"clients/{workers}-workers", f"{CLIENTS} clients, {workers} worker{'s' * (workers > 1)}", "/s",
                   [_crowd(programs, "raw", "raw", workers), _crowd(programs, "tarn", "tarn", workers)],
                   [Target("≥", 0.90)] if workers == 4 else [])
    yield RequestCase("clients/slow", f"{CLIENTS} clients, 4 workers, one slow request under way", "/s", [
        _crowd(programs, "tarn, without", "tarn", 4), _crowd(programs, "tarn", "tarn", 4, background=True),
    ], [Target("≥", 0.70, "tarn, without")], seconds=1)


def router_case(programs):
    direct, asks_router = _pair(programs, "tarn", 32, client={"endpoint": ROUTER, "path": "/service/data/0"})
    raw, asks_proxy = _pair(programs, "raw", 32, client={"endpoint": ROUTER})

    def proxy(connection):
        return programs.bench("raw_proxy", "proxy", endpoint=ROUTER, service=DIRECT, connection=connection)

    yield RequestCase("router", "GET 32 B through the router", "µs", [
        Contestant("raw, new connection", [raw, proxy("new")], [asks_proxy]),
        Contestant("tarn", [direct, programs.router()], [asks_router]),
        Contestant("raw, kept connection", [raw, proxy("kept")], [asks_proxy]),
    ], [Target("≤", 1.15, "raw, new connection")])


def body_cases(programs):
    def simple(name, stack, operation, path="/data/0"):
        return _simple(programs, name, stack, BODY, operation, {"path": path})

    yield RequestCase("body/upload", "64 MiB uploaded in chunks", "MiB/s", [
        simple("raw", "raw", "upload"), simple("tarn", "tarn", "upload"),
        simple("tarn, route takes chunks", "tarn", "upload", "/chunks"),
    ], [Target("≥", 0.70)], BODY >> 20)
    yield RequestCase("body/put", "64 MiB sent in one frame", "MiB/s", [
        simple("raw", "raw", "put"), simple("tarn", "tarn", "put"),
    ], [Target("≥", 0.90)], BODY >> 20)
    yield RequestCase("body/download", "64 MiB downloaded in chunks", "MiB/s", [
        simple("raw", "raw", "download"), simple("tarn", "tarn", "download", "/chunks"),
    ], [], BODY >> 20)


def _changes(programs, name, stack, subscribers, **marks):
    ends = {"in": "ipc://{dir}/in.sock", "out": "ipc://{dir}/out.sock"}
    if stack == "tarn":
        ends["stats"] = DIRECT

    def program(role, *keys, **arguments):
        return programs.bench(f"{stack}_changes", role, **{key: ends[key] for key in keys if key in ends},
                              **arguments, **marks)

    return Contestant(name, [program("relay", "stats", "in", "out")],
                      [program("publisher", "stats", "in", size=64)] + [program("subscriber", "out")] * subscribers)


def changes_cases(programs):
    for subscribers in (1, 4):
        to = f"{subscribers} subscriber{'s' * (subscribers > 1)}"
        yield ChangesCase(f"changes/rate-{subscribers}", f"changes to {to}, none lost", "/s", [
            _changes(programs, "raw", "raw", subscribers), _changes(programs, "tarn", "tarn", subscribers),
        ], [Target("≥", 0.95)])
        yield ChangesCase(f"changes/rate-{subscribers}-marks", f"changes to {to}, none lost, marks of 10,000", "/s", [
            _changes(programs, "raw", "raw", subscribers, marks=10000),
            _changes(programs, "tarn", "tarn", subscribers, marks=10000),
        ], [Target("≥", 0.95)])
        yield ChangesCase(f"changes/latency-{subscribers}", f"a change to {to}, 1,000 a second", "µs", [
            _changes(programs, "raw", "raw", subscribers), _changes(programs, "tarn", "tarn", subscribers),
        ])


def cases(programs, pattern):
    """Those whose name matches a shell pattern, or begins with it."""
    for group in (get_cases, crowd_cases, router_case, changes_cases, body_cases):
        for case in group(programs):
            if fnmatch.fnmatch(case.name, pattern) or case.name.startswith(pattern):
                yield case
