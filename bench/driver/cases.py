# SPDX-License-Identifier: Apache-2.0
"""What is compared with what. Each contestant names the programs of bench/process that it starts."""

from driver.comparison import ChangesCase, Contestant, CpuTarget, MemoryTarget, RequestCase, Target

CLIENTS = 8  # as many as the server of bench_tarn_request has routes
BODY = 64 << 20

# Where a router with the run-time directory {dir} finds the service.
SOCKET = "{dir}/service/zmq.sock"
DIRECT = "ipc://" + SOCKET
ROUTER = "ipc://{dir}/router.sock"
BUS = "{dir}/bus"


class Programs:
    """Commands of the programs in a build folder."""

    def __init__(self, build):
        self._build = build

    def __call__(self, name, role, **arguments):
        return [str(self._build / "bench" / f"bench_{name}"), role,
                *(f"{key}={value}" for key, value in arguments.items())]

    def router(self):
        return [str(self._build / "bin" / "tarnd"), "--no-relay", "--run-dir", "{dir}", "--endpoint", ROUTER]


def one_client(programs, name, program, size, operation="get", endpoint=DIRECT, **client):
    """A server and a client of one stack."""
    common = {"endpoint": endpoint, "size": size, "operation": operation}
    return Contestant(name, [programs(program, "server", **common)], [programs(program, "client", **common, **client)])


def over_d_bus(programs, size):
    return Contestant("sd-bus", [programs("peers_sd_bus", "broker", bus=BUS),
                                 programs("peers_sd_bus", "server", bus=BUS, size=size)],
                      [programs("peers_sd_bus", "client", bus=BUS, size=size)])


def get_cases(programs):
    for label, size, most in (("32 B", 32, 1.10), ("1 KiB", 1024, 1.10), ("64 KiB", 65536, 1.25), ("1 MiB", 1 << 20, 1.35)):
        yield RequestCase(f"get/{label.replace(' ', '')}", f"GET {label}", "µs", [
            one_client(programs, "raw", "raw_request", size),
            one_client(programs, "tarn", "tarn_request", size),
            one_client(programs, "raw, protobuf", "raw_request", size, "protobuf"),
            one_client(programs, "unix socket", "raw_unix_socket", size, endpoint=SOCKET),
            one_client(programs, "NNG", "peers_nng", size),
            one_client(programs, "HTTP", "peers_httplib", size, endpoint=SOCKET),
            one_client(programs, "gRPC", "peers_grpc", size, endpoint=SOCKET),
            over_d_bus(programs, size),
        ], [Target("≤", most)] + [CpuTarget(8)] * (size == 32))


def crowd(programs, name, program, workers, is_one_slow=False):
    server = programs(program, "server", endpoint=DIRECT, size=32, workers=workers)
    client = programs(program, "client", endpoint=DIRECT, size=32)
    # Each asks a route of its own, as different applications do; raw servers have none.
    return Contestant(name, [server], [client + [f"path=/data/{number}"] for number in range(CLIENTS)],
                      client + ["path=/slow"] if is_one_slow else None)


def crowd_cases(programs):
    for workers in (1, 2, 4):
        yield RequestCase(f"clients/{workers}-workers", f"{CLIENTS} clients, {workers} worker{'s' * (workers > 1)}", "/s", [
            crowd(programs, "raw", "raw_request", workers),
            crowd(programs, "tarn", "tarn_request", workers),
        ], [Target("≥", 0.90)] if workers == 4 else [])
    yield RequestCase("clients/slow", f"{CLIENTS} clients, 4 workers, one slow request under way", "/s", [
        crowd(programs, "tarn, without", "tarn_request", 4),
        crowd(programs, "tarn", "tarn_request", 4, is_one_slow=True),
    ], [Target("≥", 0.70, "tarn, without")], seconds=1, most_rounds=5)


def router_cases(programs):
    def through_proxy(name, connection):
        raw = one_client(programs, name, "raw_request", 32)
        proxy = programs("raw_proxy", "proxy", endpoint=ROUTER, service=DIRECT, connection=connection)
        return Contestant(name, raw.servers + [proxy], [programs("raw_request", "client", endpoint=ROUTER, size=32)])

    tarn = one_client(programs, "tarn", "tarn_request", 32)
    yield RequestCase("router", "GET 32 B through the router", "µs", [
        through_proxy("raw, new connection", "new"),
        Contestant("tarn", tarn.servers + [programs.router()],
                   [programs("tarn_request", "client", endpoint=ROUTER, size=32, path="/service/data/0")]),
        through_proxy("raw, kept connection", "kept"),
        over_d_bus(programs, 32),
    ], [Target("≤", 1.15, "raw, new connection")])


def device_case(programs):
    direct = one_client(programs, "tarn, direct", "tarn_request", 32)
    yield RequestCase("device", "GET 32 B from a service that the client finds", "µs", [
        direct,
        Contestant("tarn", direct.servers,
                   [programs("tarn_request", "client", services="{dir}", size=32, path="/service/data/0")]),
        over_d_bus(programs, 32),
    ], [Target("≤", 1.10, "tarn, direct"), Target("≤", 1, "sd-bus")])


def window_cases(programs):
    def window(name, server, client, size):
        return Contestant(name, [programs(server, "server", endpoint=DIRECT, size=32)],
                          [programs(client, "client", endpoint=DIRECT, size=32, window=size)])

    for size in (1, 8, 64):
        yield RequestCase(f"window/{size}", f"{size} request{'s' * (size > 1)} in flight", "/s", [
            window("raw", "raw_request", "raw_window", size),
            window("tarn", "tarn_request", "tarn_window", size),
            one_client(programs, "tarn, Client", "tarn_request", 32),
        ], [Target("≥", 3.5, "tarn, Client")] if size == 64 else [])


def changes(programs, name, program, subscribers, **marks):
    ends = {"in": "ipc://{dir}/in.sock", "out": "ipc://{dir}/out.sock", "stats": DIRECT}
    common = dict(ends, size=64, **marks)
    return Contestant(name, [programs(program, "relay", **common)],
                      [programs(program, "publisher", **common)] + [programs(program, "subscriber", **common)] * subscribers)


def broker(programs, name, program, subscribers, **common):
    return Contestant(name, [programs(program, "broker", **common)],
                      [programs(program, "publisher", size=64, **common)] + [programs(program, "subscriber", **common)] * subscribers)


def changes_cases(programs):
    for subscribers in (1, 4):
        to = f"to {subscribers} subscriber{'s' * (subscribers > 1)}"
        peers = [broker(programs, "sd-bus", "peers_sd_bus", subscribers, bus=BUS),
                 broker(programs, "MQTT", "peers_mosquitto", subscribers, out=BUS)]
        nng = broker(programs, "NNG", "peers_nng", subscribers, out="ipc://" + BUS)
        nng.servers = []  # its publisher serves
        contestants = [changes(programs, "raw", "raw_changes", subscribers),
                       changes(programs, "tarn", "tarn_changes", subscribers), *peers, nng]
        yield ChangesCase(f"changes/rate-{subscribers}", f"changes {to}, none lost", "/s", contestants,
                          [Target("≥", 0.95), Target("≥", 1, "sd-bus"), Target("≥", 1, "NNG")], most_rounds=4)
        yield ChangesCase(f"changes/rate-{subscribers}-marks", f"changes {to}, none lost, marks of 10,000", "/s", [
            changes(programs, "raw", "raw_changes", subscribers, marks=10000),
            changes(programs, "tarn", "tarn_changes", subscribers, marks=10000),
        ], [Target("≥", 0.95)], most_rounds=4)
        yield ChangesCase(f"changes/latency-{subscribers}", f"a change {to}, 1,000 a second", "µs", contestants)


def body_cases(programs):
    def contestant(name, program, operation, endpoint=DIRECT, **client):
        return one_client(programs, name, program, BODY, operation, endpoint, **client)

    def grpc(operation):
        return contestant("gRPC", "peers_grpc", operation, SOCKET)

    memory = MemoryTarget((BODY >> 20) + 32)
    size = {"mebibytes": BODY >> 20, "most_rounds": 10}
    yield RequestCase("body/upload", "64 MiB uploaded in chunks", "MiB/s", [
        contestant("raw", "raw_request", "upload"),
        contestant("tarn", "tarn_request", "upload"),
        contestant("tarn, route takes chunks", "tarn_request", "upload", path="/chunks"),
        grpc("upload"),
    ], [Target("≥", 0.70), Target("≥", 1, "gRPC"), memory], **size)
    yield RequestCase("body/put", "64 MiB sent in one frame", "MiB/s", [
        contestant("raw", "raw_request", "put"),
        contestant("tarn", "tarn_request", "put"),
        grpc("put"),
        contestant("HTTP", "peers_httplib", "put", SOCKET),
        contestant("NNG", "peers_nng", "put"),
    ], [Target("≥", 0.90), Target("≥", 1, "gRPC"), memory], **size)
    yield RequestCase("body/download", "64 MiB downloaded in chunks", "MiB/s", [
        contestant("raw", "raw_request", "download"),
        contestant("tarn", "tarn_request", "download", path="/chunks"),
    ], **size)


def cases(programs):
    for group in (get_cases, crowd_cases, router_cases, device_case, window_cases, changes_cases, body_cases):
        yield from group(programs)
