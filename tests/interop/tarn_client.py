# SPDX-License-Identifier: Apache-2.0
"""The other side of docs/wire.md, written from that document: a client, a publisher, a subscriber, and what a
service needs, on pyzmq and on what protoc generates from proto/."""

import time
import uuid

import zmq

from format_pb2 import Format
from message_pb2 import Message
from stats_pb2 import Stats

CHUNK_BYTES = 1048576
DEFAULT_TIMEOUT = 4.0

# Of docs/wire.md's table of formats, those that are needed here: by parameter and by MIME type.
FORMATS = {
    "json": Format.Json,
    "text": Format.Text,
    "proto": Format.Proto,
    "bin": Format.Bin,
    "empty": Format.Empty,
    "application/json": Format.Json,
    "text/plain": Format.Text,
    "application/octet-stream": Format.Bin,
}
TEXT_FORMATS = (Format.Text, Format.Json)


class Timeout(Exception):
    """No answer in time. The library's own client says status 408 instead."""


class Reply:
    def __init__(self, frame):
        self.frame = frame
        self.message = Message.FromString(frame)
        response = self.message.response
        self.head = response.head
        self.status = response.status
        self.text = response.status_message
        self.format = response.head.format
        self.body = body_of(response)

    def header(self, key):
        return header_of(self.head, key)


def head_of(message):
    """The head, whatever the verb: HEAD has it in the message itself, the others one level down."""
    verb = message.WhichOneof("type")
    return message.head if verb == "head" else getattr(message, verb).head


def body_of(record):
    """The body's bytes, whichever field they are in; None if there is none."""
    field = record.body.WhichOneof("content")
    if field is None:
        return None
    return record.body.bin if field == "bin" else record.body.txt.encode()


def header_of(head, key):
    """The first header of that name, whatever its case, or None."""
    return next((entry.value for entry in head.headers if entry.key.lower() == key.lower()), None)


def take_apart(recipient):
    """Path, process ids and parameters of a text such as "/path@12,13?key=value"."""
    rest, _, query = recipient.partition("?")
    path, _, pids = rest.partition("@")
    params = [item.partition("=")[::2] for item in query.split("&") if item]
    return path, [int(pid) for pid in pids.split(",") if pid], params


def make_request(verb, recipient, pid, ttl, headers=(), body=None):
    """A request; `verb` is a field of Message: get, put, post, del or head."""
    message = Message()
    path, to, params = take_apart(recipient)
    getattr(message, verb).SetInParent()
    head = head_of(message)
    getattr(head, "from").pid = pid
    head.path = path
    head.meta.add(key="ttl", value=ttl)
    for process in to:
        head.to.add(pid=process)
    for key, value in params:
        head.params.add(key=key, value=value)
        if key == "format":
            head.format = FORMATS.get(value, Format.Unknown)
    for key, value in headers:
        head.headers.add(key=key, value=value)
        if body is not None and key.lower() == "content-type":
            head.format = FORMATS.get(value, head.format)
    if body is not None and head.format != Format.Empty:
        content = getattr(message, verb).body
        if head.format in TEXT_FORMATS:
            content.txt = body.decode()
        else:
            content.bin = body
    return message


class Client:
    def __init__(self, context, endpoint, pid, timeout=DEFAULT_TIMEOUT):
        self.context = context
        self.endpoint = endpoint
        self.pid = pid
        self.timeout = timeout
        self.socket = None
        self.renew()

    def close(self):
        self.socket.close(linger=0)

    def renew(self):
        """A REQ socket that has sent and not received refuses to send again."""
        if self.socket:
            self.close()
        self.socket = self.context.socket(zmq.REQ)
        self.socket.connect(self.endpoint)

    def exchange(self, frame):
        self.socket.send(frame)
        if not self.socket.poll(int(self.timeout * 1000)):
            self.renew()
            raise Timeout()
        return self.socket.recv()

    def send(self, verb, recipient, headers=(), body=None):
        ttl = f"{self.timeout:g}s"
        request = make_request(verb, recipient, self.pid, ttl, headers, body)
        return Reply(self.exchange(request.SerializeToString()))

    def get(self, recipient, headers=()):
        return self.send("get", recipient, headers)

    def head(self, recipient, headers=()):
        return self.send("head", recipient, headers)

    def delete(self, recipient, headers=()):
        return self.send("del", recipient, headers)

    def put(self, recipient, body, headers=()):
        return self.send("put", recipient, headers, body)

    def post(self, recipient, body, headers=()):
        return self.send("post", recipient, headers, body)

    def call(self, number, arguments=()):
        """A remote call; the answer is the call itself with its result."""
        request = Message()
        request.call.select.method_number = number
        for argument in arguments:
            request.call.params.param.add().Pack(argument)
        return Message.FromString(self.exchange(request.SerializeToString())).call

    def upload(self, verb, recipient, data, headers=()):
        """Sends `data` in chunks; the last reply, or the first one that refuses a chunk."""
        transfer = str(uuid.uuid4())
        chunks = [data[i : i + CHUNK_BYTES] for i in range(0, len(data), CHUNK_BYTES)]
        for number, chunk in enumerate(chunks + [b""]):
            reply = self.send(verb, recipient, [*headers, *chunk_headers(transfer, number)], chunk)
            if not 200 <= reply.status < 300:
                break
        return reply

    def download(self, recipient, headers=()):
        """All chunks, and the reply that ended the download."""
        headers = [*headers, ("X-Tarn-Supports-Chunked-Transfer", "true")]
        reply = self.get(recipient, headers)
        transfer = reply.header("X-Tarn-Chunked-Transfer")
        if not transfer:
            return [reply.body], reply
        chunks = []
        while 200 <= reply.status < 300 and reply.body:
            chunks.append(reply.body)
            reply = self.get(recipient, [*headers, ("X-Tarn-Chunked-Transfer", transfer)])
        return chunks, reply


def chunk_headers(transfer, number):
    return [("X-Tarn-Chunked-Transfer", transfer), ("X-Tarn-Chunk-Number", str(number))]


def topic_of(path):
    """The path up to its second slash."""
    return "/" + path[1:].partition("/")[0]


class Publisher:
    def __init__(self, context, endpoint, pid):
        self.pid = pid
        self.tag = str(uuid.uuid4())
        self.socket = context.socket(zmq.PUB)
        self.socket.connect(endpoint)

    def close(self):
        self.socket.close(linger=250)

    def put(self, recipient, body):
        self.publish(make_request("put", recipient, self.pid, "4s", (), body))

    def delete(self, recipient):
        self.publish(make_request("del", recipient, self.pid, "4s"))

    def publish(self, message):
        head = head_of(message)
        getattr(head, "from").tag = self.tag
        self.socket.send_multipart([topic_of(head.path).encode(), message.SerializeToString()])

    def prove_connection(self, client, patience=20.0):
        """What is sent before the connection stands is lost, so asks the relay until it has heard a probe."""
        end = time.monotonic() + patience
        while time.monotonic() < end:
            self.put("/relay?format=text", b"hi")
            stats = Stats.FromString(client.get("/relay/stats").body)
            if any(stat.id.tag == self.tag and stat.total_packets > 0 for stat in stats.stat):
                return
        raise Timeout()


class Subscriber:
    def __init__(self, context, endpoint, topics):
        self.socket = context.socket(zmq.SUB)
        self.socket.connect(endpoint)
        for topic in topics:
            self.socket.setsockopt_string(zmq.SUBSCRIBE, topic)

    def close(self):
        self.socket.close(linger=0)

    def hear(self, timeout):
        """Topic and frame of the next change, or None."""
        if not self.socket.poll(int(timeout * 1000)):
            return None
        topic, frame = self.socket.recv_multipart()
        return topic, frame


def make_response(request, pid, status, text="", format=Format.Empty, body=None):
    """A service's answer to a request, as bytes."""
    source = head_of(request)
    message = Message()
    response = message.response
    response.head.to.add(pid=getattr(source, "from").pid)
    getattr(response.head, "from").pid = pid
    response.head.path = source.path
    response.head.format = format
    response.status = status
    response.status_message = text
    if body is not None:
        if format in TEXT_FORMATS:
            response.body.txt = body.decode()
        else:
            response.body.bin = body
    return message
