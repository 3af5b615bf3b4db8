# SPDX-License-Identifier: Apache-2.0
"""What is compared with what. Each case names the programs of bench/process that it starts."""

import fnmatch

from driver.comparison import Case, Contestant, Target

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
        yield Case(f"get/{label.replace(' ', '')}", f"GET {label}", "µs", [
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
        yield Case(f"clients/{workers}-workers", f"{CLIENTS} clients, {workers} worker{'s' * (workers > 1)}", "/s",
                   [_crowd(programs, "raw", "raw", workers), _crowd(programs, "tarn", "tarn", workers)],
                   [Target("≥", 0.90)] if workers == 4 else [])
    yield Case("clients/slow", f"{CLIENTS} clients, 4 workers, one slow request under way", "/s", [
        _crowd(programs, "tarn, without", "tarn", 4), _crowd(programs, "tarn", "tarn", 4, background=True),
    ], [Target("≥", 0.70, "tarn, without")], seconds=1)


def router_case(programs):
    direct, asks_router = _pair(programs, "tarn", 32, client={"endpoint": ROUTER, "path": "/service/data/0"})
    raw, asks_proxy = _pair(programs, "raw", 32, client={"endpoint": ROUTER})

    def proxy(connection):
        return programs.bench("raw_proxy", "proxy", endpoint=ROUTER, service=DIRECT, connection=connection)

    yield Case("router", "GET 32 B through the router", "µs", [
        Contestant("raw, new connection", [raw, proxy("new")], [asks_proxy]),
        Contestant("tarn", [direct, programs.router()], [asks_router]),
        Contestant("raw, kept connection", [raw, proxy("kept")], [asks_proxy]),
    ], [Target("≤", 1.15, "raw, new connection")])


def body_cases(programs):
    def simple(name, stack, operation, path="/data/0"):
        return _simple(programs, name, stack, BODY, operation, {"path": path})

    yield Case("body/upload", "64 MiB uploaded in chunks", "MiB/s", [
        simple("raw", "raw", "upload"), simple("tarn", "tarn", "upload"),
        simple("tarn, route takes chunks", "tarn", "upload", "/chunks"),
    ], [Target("≥", 0.70)], BODY >> 20)
    yield Case("body/put", "64 MiB sent in one frame", "MiB/s", [
        simple("raw", "raw", "put"), simple("tarn", "tarn", "put"),
    ], [Target("≥", 0.90)], BODY >> 20)
    yield Case("body/download", "64 MiB downloaded in chunks", "MiB/s", [
        simple("raw", "raw", "download"), simple("tarn", "tarn", "download", "/chunks"),
    ], [], BODY >> 20)


def cases(programs, pattern):
    """Those whose name matches a shell pattern, or begins with it."""
    for group in (get_cases, crowd_cases, router_case, body_cases):
        for case in group(programs):
            if fnmatch.fnmatch(case.name, pattern) or case.name.startswith(pattern):
                yield case
