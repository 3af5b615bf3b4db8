# SPDX-License-Identifier: Apache-2.0
"""Python and C++ at the two ends of a socket, and docs/wire.md's bytes between them."""

import base64
import hashlib
import os
import random
import select
import subprocess
import tempfile
import time
import unittest

import zmq
from google.protobuf import json_format
from google.protobuf.wrappers_pb2 import StringValue

import wire_document
from access_pb2 import Access
from format_pb2 import Format
from message_pb2 import Message
from routing_pb2 import RoutingDetails
from tarn_client import (
    CHUNK_BYTES,
    Client,
    Publisher,
    Reply,
    Subscriber,
    Timeout,
    body_of,
    chunk_headers,
    head_of,
    header_of,
    make_request,
    make_response,
)

PEER = os.environ["INTEROP_PEER"]
RELAY = os.environ["INTEROP_RELAY"]
DOCUMENT = os.environ["INTEROP_DOCUMENT"]

# The process ids that the C++ side and the document's examples have.
SERVICE_PID = 877
CLIENT_PID = 1203

# Sanitizers and a busy machine make processes slow; nothing waits this long if all is well.
PATIENCE = 30.0


def md5_of(data):
    return base64.b64encode(hashlib.md5(data).digest()).decode()


def summary_of(data):
    """What the service answers to an upload."""
    return f"{len(data)} bytes, MD5 {md5_of(data)}".encode()


class Process:
    """A C++ program, spoken to by lines. It ends when its input does."""

    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.buffer = b""

    def line(self, patience=PATIENCE):
        """The next line that it prints; None if none comes in time."""
        end = time.monotonic() + patience
        while b"\n" not in self.buffer:
            readable, _, _ = select.select([self.process.stdout], [], [], max(0, end - time.monotonic()))
            if not readable:
                return None
            piece = os.read(self.process.stdout.fileno(), 65536)
            if not piece:
                raise EOFError(f"{self.process.args} ended with {self.process.wait()}")
            self.buffer += piece
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line.decode()

    def say(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def end(self):
        """Its exit status, once its input is closed."""
        self.process.stdin.close()
        try:
            return self.process.wait(PATIENCE)
        finally:
            self.process.kill()  # does nothing to one that has ended
            self.process.stdout.close()

    def terminate(self):
        self.process.terminate()
        return self.end()


class InteropTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        os.mkdir(os.path.join(self.folder, "relay"))
        self.context = zmq.Context()
        self.addCleanup(self.context.destroy, linger=0)

    def endpoint(self, name):
        file = {"url": "relay/zmq.sock", "sub": "relay/in.sock", "pub": "relay/out.sock"}.get(name, f"{name}.sock")
        return f"ipc://{self.folder}/{file}"

    def start(self, *command):
        """A C++ peer that has said that it is ready; it must end well, which a sanitizer's finding isn't."""
        process = Process(PEER, *command)
        self.addCleanup(lambda: self.assertEqual(process.end(), 0))
        self.assertIsNotNone(process.line())
        return process

    def start_relay(self):
        relay = Process(RELAY, "--no-router", "--run-dir", self.folder)
        self.addCleanup(lambda: self.assertEqual(relay.terminate(), 0))
        self.assertIsNotNone(relay.line())

    def start_service(self, workers=1):
        self.start("serve", self.endpoint("service"), str(workers))
        return self.client(PATIENCE)

    def client(self, timeout, pid=CLIENT_PID):
        client = Client(self.context, self.endpoint("service"), pid, timeout)
        self.addCleanup(client.close)
        return client

    def start_publishing(self):
        """A subscriber to "/machine" here, and a C++ publisher that it hears."""
        subscriber = Subscriber(self.context, self.endpoint("pub"), ["/machine", "/probe"])
        self.addCleanup(subscriber.close)
        publisher = self.start("publish", self.endpoint("url"), self.endpoint("sub"))
        # Subscriptions travel in order, so a probe that is heard shows that "/machine" is in force too.
        end = time.monotonic() + PATIENCE
        while not subscriber.hear(0.05):
            self.assertLess(time.monotonic(), end)
            publisher.say("/probe x")
        return subscriber, publisher

    def hear_change(self, subscriber):
        """Topic and message of the next change that is no probe."""
        topic, frame = b"/probe", b""
        while topic == b"/probe":
            heard = subscriber.hear(PATIENCE)
            self.assertIsNotNone(heard)
            topic, frame = heard
        return topic, Message.FromString(frame)

    def documented(self, name):
        return wire_document.bytes_of(wire_document.examples(DOCUMENT)[name])

    def assert_reply(self, reply, status, text, format, body):
        self.assertEqual((reply.status, reply.text, reply.format, reply.body), (status, text, format, body))


class TheDocument(InteropTest):
    def test_annotates_its_bytes_rightly(self):
        examples = wire_document.examples(DOCUMENT)
        self.assertEqual(list(examples), ["request", "reply", "change"])
        for name, block in examples.items():
            self.assertEqual(block, wire_document.annotate(wire_document.bytes_of(block)), name)

    def test_lists_the_formats_as_the_library_knows_them(self):
        table = subprocess.run([PEER, "formats"], stdout=subprocess.PIPE, check=True, text=True).stdout
        self.assertEqual(wire_document.rows(DOCUMENT, "## Formats"), table.splitlines())

    def test_has_the_request_that_this_client_sends(self):
        request = make_request(
            "get", "/greeting/world@877?format=text", CLIENT_PID, "4s", [("accept", "text/plain")]
        )
        self.assertEqual(request.SerializeToString(), self.documented("request"))

    def test_has_the_change_that_this_publisher_publishes_but_for_its_tag(self):
        socket = self.context.socket(zmq.SUB)
        socket.setsockopt(zmq.SUBSCRIBE, b"")
        socket.bind(self.endpoint("sub"))
        publisher = Publisher(self.context, self.endpoint("sub"), CLIENT_PID)
        self.addCleanup(publisher.close)
        documented = Message.FromString(self.documented("change"))
        publisher.tag = getattr(documented.put.head, "from").tag

        end = time.monotonic() + PATIENCE
        while not socket.poll(50):
            self.assertLess(time.monotonic(), end)
            publisher.put("/machine/load?format=text", b"0.42")

        self.assertEqual(socket.recv_multipart(), [b"/machine", self.documented("change")])

    def test_has_the_reply_that_a_service_gives_to_its_request(self):
        client = self.start_service()
        self.assertEqual(client.exchange(self.documented("request")), self.documented("reply"))

    def test_has_the_request_that_a_client_sends_and_the_reply_that_it_understands(self):
        socket = self.context.socket(zmq.REP)
        socket.bind(self.endpoint("service"))
        asking = Process(PEER, "get", self.endpoint("service"), "/greeting/world@877?format=text")
        self.addCleanup(lambda: self.assertEqual(asking.end(), 0))

        self.assertTrue(socket.poll(int(PATIENCE * 1000)))
        self.assertEqual(socket.recv_multipart(), [self.documented("request")])
        socket.send(self.documented("reply"))

        self.assertEqual(asking.line(), "200|Text||Hello, world!")

    def test_has_the_change_that_a_publisher_publishes_but_for_its_tag(self):
        self.start_relay()
        subscriber, publisher = self.start_publishing()

        publisher.say("/machine/load?format=text 0.42")

        topic, message = self.hear_change(subscriber)
        with open(DOCUMENT, encoding="utf-8") as document:
            self.assertIn(f'"{topic.decode()}", `{topic.hex(" ")}`', " ".join(document.read().split()))
        self.assertRegex(getattr(message.put.head, "from").tag, "^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$")
        documented = Message.FromString(self.documented("change"))
        getattr(message.put.head, "from").tag = getattr(documented.put.head, "from").tag
        self.assertEqual(message.SerializeToString(), self.documented("change"))


class Requests(InteropTest):
    def setUp(self):
        super().setUp()
        self.service = self.start_service()

    def echoed(self, reply):
        """The request as the service has seen it."""
        self.assertEqual((reply.status, reply.format), (200, Format.Json))
        return json_format.Parse(reply.body, Message())

    def test_reach_the_handler_as_they_were_sent(self):
        headers = [("X-Custom", "päivää"), ("accept", "application/json;q=0.5, text/plain")]
        for verb, body in (("get", None), ("put", b"\x00\xff"), ("post", b""), ("del", None)):
            request = make_request(verb, "/echo/me@12,13?a=b%20c&a=2&empty", CLIENT_PID, "30s", headers, body)
            reply = Reply(self.service.exchange(request.SerializeToString()))
            self.assertEqual(self.echoed(reply), request, verb)
            self.assertEqual(reply.head.path, "/echo/me")
            self.assertEqual([to.pid for to in reply.head.to], [CLIENT_PID])
            self.assertEqual(getattr(reply.head, "from").pid, SERVICE_PID)

    def test_carry_their_body_in_the_field_of_their_format(self):
        for recipient, headers, field in (
            ("/echo/me", [], "bin"),
            ("/echo/me?format=json", [], "txt"),
            ("/echo/me?format=json", [("Content-Type", "application/octet-stream")], "bin"),
        ):
            seen = self.echoed(self.service.put(recipient, b"[1]", headers))
            self.assertEqual(seen.put.body.WhichOneof("content"), field, (recipient, headers))

    def test_are_taken_with_their_body_in_either_field(self):
        for field, content in (("txt", "7"), ("bin", b"8")):
            request = make_request("put", "/volume", CLIENT_PID, "4s", (), b"")
            setattr(request.put.body, field, content)
            self.assertEqual(Reply(self.service.exchange(request.SerializeToString())).status, 204)
            self.assertEqual(self.service.get("/volume").body.decode(), str(int(content)))

    def test_need_no_more_than_a_path(self):
        request = Message()
        request.get.head.path = "/volume"
        reply = Reply(self.service.exchange(request.SerializeToString()))
        self.assert_reply(reply, 200, "", Format.Text, b"5")
        self.assertEqual([to.pid for to in reply.head.to], [0])

    def test_put_is_answered_without_a_body(self):
        self.assert_reply(self.service.put("/volume", b"11"), 204, "", Format.Empty, None)
        self.assert_reply(self.service.get("/volume"), 200, "", Format.Text, b"11")

    def test_head_is_answered_with_the_length_alone(self):
        reply = self.service.head("/greeting/world")
        self.assert_reply(reply, 200, "", Format.Text, None)
        self.assertEqual(reply.header("content-length"), "13")

    def test_of_a_handler_that_says_nothing_are_answered_204(self):
        self.assert_reply(self.service.get("/nothing"), 204, "", Format.Empty, None)

    def test_that_fail_say_why(self):
        get, put = self.service.get, self.service.put
        cannot_parse = "failed to write; cannot parse value"
        unfinished = "get/head method not implemented"
        for reply, status, text, format in (
            (get("/nowhere?format=json"), 404, "", Format.Json),
            (put("/greeting/x", b"y"), 405, "route [greeting] doesn't support PUT", Format.Unknown),
            (self.service.delete("/volume"), 405, "route [volume] doesn't support DEL", Format.Unknown),
            (put("/volume", b"loud"), 400, cannot_parse, Format.Empty),
            (get("/teapot"), 418, "short and stout", Format.Empty),
            (get("/broken"), 500, "out of order", Format.Empty),
            (get("/unfinished"), 501, unfinished, Format.Empty),
            (put("/volume?format=empty", b""), 500, "Envelope::body does not exist", Format.Empty),
            (self.service.head("/nothing"), 500, "Envelope::data does not exist", Format.Empty),
        ):
            self.assert_reply(reply, status, text, format, None)

    def test_to_a_private_route_are_for_the_pid_of_the_service(self):
        self.assert_reply(self.service.get("/private"), 404, "", Format.Unknown, None)
        same = self.client(PATIENCE, SERVICE_PID)
        self.assert_reply(same.get("/private"), 200, "", Format.Text, b"for myself")

    def test_that_are_none_are_answered_400_without_a_head(self):
        answer = Message()
        answer.response.status = 200
        # put { head { path: "/a" } body { txt: <no UTF-8> } }
        no_text = b"\x12\x0b\x0a\x04\x1a\x02/a\x12\x03\x12\x01\xff"
        for frame in (b"", b"\xff\xff", no_text, answer.SerializeToString()):
            reply = Reply(self.service.exchange(frame))
            self.assertEqual(reply.status, 400)
            self.assertFalse(reply.message.response.HasField("head"))
        self.assertEqual(self.service.get("/volume").status, 200)

    def test_to_the_index_list_the_routes(self):
        reply = self.service.get("/index?format=proto")
        self.assertEqual((reply.status, reply.format), (200, Format.Proto))
        details = RoutingDetails.FromString(reply.body).details
        access = {detail.patterns[0]: detail.access for detail in details}
        self.assertEqual(access["/volume"], Access.Public)
        self.assertEqual(access["/private"], Access.Private)

    def test_by_number_are_answered_with_their_result(self):
        arguments = [StringValue(value="one"), StringValue(value="two")]
        call = self.service.call(7, arguments)
        self.assertEqual((call.result.status, call.result.status_message), (200, ""))
        self.assertEqual((call.select.method_number, list(call.result.value)), (7, list(call.params.param)))
        self.assertEqual(len(call.result.value), 2)

        missing = self.service.call(8)
        self.assertEqual((missing.result.status, missing.result.status_message), (404, "method not found"))

        nameless = Message()
        nameless.call.SetInParent()
        result = Message.FromString(self.service.exchange(nameless.SerializeToString())).call.result
        self.assertEqual((result.status, result.status_message), (400, "missing method selection"))


class ARequestToNobody(InteropTest):
    def test_times_out_and_leaves_the_client_as_good_as_new(self):
        client = self.client(0.1)
        for _ in range(3):
            with self.assertRaises(Timeout):
                client.get("/volume")
        self.start_service()
        client.timeout = PATIENCE
        self.assertEqual(client.get("/volume").status, 200)


class Transfers(InteropTest):
    def setUp(self):
        super().setUp()
        self.service = self.start_service(workers=4)

    def test_up_and_down_keep_every_byte(self):
        # Beyond what a service keeps in memory, and not a whole number of chunks in either direction.
        data = random.Random(1).randbytes(11 * CHUNK_BYTES + 4711)

        for verb, status in (("put", 200), ("post", 201)):
            payload = data if verb == "put" else data[: 3 * CHUNK_BYTES + 1]
            reply = self.service.upload(verb, "/file", payload)
            self.assert_reply(reply, status, "", Format.Text, summary_of(payload))

            chunks, last = self.service.download("/file")
            self.assertEqual(b"".join(chunks), payload)
            self.assertGreater(len(chunks), 1)
            self.assertEqual((last.status, last.body), (200, b""))

    def test_down_are_whole_for_a_client_that_cannot_take_chunks(self):
        self.service.put("/file", bytes(2_000_000))
        self.assertEqual(self.service.get("/file").body, bytes(2_000_000))

    def test_up_are_one_request_to_the_route(self):
        reply = self.service.upload("put", "/echo/me?format=text&a=b", b"hello", [("X-Custom", "1")])
        seen = json_format.Parse(reply.body, Message())
        self.assertEqual(seen.put.body.txt, "hello")
        self.assertEqual([(h.key, h.value) for h in seen.put.head.headers], [("X-Custom", "1")])

    def chunk(self, number, body, transfer="a transfer"):
        return self.service.put("/file", body, chunk_headers(transfer, number))

    def test_up_are_refused_out_of_step(self):
        unknown = "transfer interrupted try again"
        self.assert_reply(self.chunk(1, b"x"), 409, unknown, Format.Empty, None)

        self.assert_reply(self.chunk(0, b"a"), 204, "", Format.Empty, None)
        self.assert_reply(self.chunk(2, b"c"), 400, "wrong chunk; expected 1 but got 2", Format.Empty, None)
        self.assert_reply(self.chunk(1, b"b"), 409, unknown, Format.Empty, None)

        self.assertEqual(self.chunk(0, b"a").status, 204)
        self.assert_reply(self.chunk(0, b"a"), 409, "transfer already in progress", Format.Empty, None)
        self.assert_reply(self.chunk(1, b"b"), 409, unknown, Format.Empty, None)

        invalid = self.service.put("/file", b"x", chunk_headers("another", "first"))
        self.assert_reply(invalid, 400, "invalid chunk number", Format.Empty, None)

    def test_up_end_with_a_body_that_is_empty_and_not_with_none(self):
        self.assertEqual(self.chunk(0, b"a").status, 204)
        request = make_request("put", "/file", CLIENT_PID, "4s", chunk_headers("a transfer", 1))
        reply = Reply(self.service.exchange(request.SerializeToString()))
        self.assert_reply(reply, 500, "Envelope::body does not exist", Format.Empty, None)
        self.assertEqual(self.chunk(1, b"").status, 409)

    def test_up_are_gone_when_they_have_ended(self):
        self.chunk(0, b"a")
        self.assertEqual(self.chunk(1, b"").status, 200)
        self.assertEqual(self.chunk(1, b"").status, 409)
        self.assertEqual(self.service.get("/file").body, b"a")

    def test_up_take_a_chunk_twice_for_once(self):
        for number, body in ((0, b"a"), (1, b"b"), (1, b"b"), (2, b"c")):
            self.assertEqual(self.chunk(number, body).status, 204)
        self.assertEqual(self.chunk(3, b"").body, summary_of(b"abc"))

    def test_up_may_begin_by_header_and_go_without_numbers(self):
        transfer = ("X-Tarn-Chunked-Transfer", "unnumbered")
        self.service.put("/file", b"ab", [transfer, ("X-Tarn-Transfer-Begin", "")])
        self.service.put("/file", b"c", [transfer])
        reply = self.service.put("/file", b"", [transfer])
        self.assertEqual(reply.body, summary_of(b"abc"))


class APythonService(InteropTest):
    def setUp(self):
        super().setUp()
        self.socket = self.context.socket(zmq.REP)
        self.socket.bind(self.endpoint("service"))

    def ask(self, *command):
        client = Process(PEER, command[0], self.endpoint("service"), *command[1:])
        self.addCleanup(lambda: self.assertEqual(client.end(), 0))
        return client

    def next_request(self):
        self.assertTrue(self.socket.poll(int(PATIENCE * 1000)))
        return Message.FromString(self.socket.recv())

    def answer(self, request, *arguments, headers=()):
        message = make_response(request, SERVICE_PID, *arguments)
        for key, value in headers:
            message.response.head.headers.add(key=key, value=value)
        self.socket.send(message.SerializeToString())

    def test_is_understood_when_it_answers_and_when_it_refuses(self):
        for answer, expected in (
            ((200, "", Format.Bin, b"7"), "200|Bin||7"),
            ((204,), "204|Empty||"),
            ((404, "no such thing"), "404|Empty|no such thing|"),
        ):
            client = self.ask("get", "/thing")
            self.answer(self.next_request(), *answer)
            self.assertEqual(client.line(), expected)

    def test_gets_an_upload_in_numbered_chunks(self):
        data = random.Random(2).randbytes(2 * CHUNK_BYTES + 5)
        file = os.path.join(self.folder, "data")
        with open(file, "wb") as stream:
            stream.write(data)
        client = self.ask("upload", "/thing", file)

        bodies, transfers, numbers = [], set(), []
        while not bodies or bodies[-1]:
            request = self.next_request()
            self.assertEqual(request.WhichOneof("type"), "put")
            transfers.add(header_of(head_of(request), "X-Tarn-Chunked-Transfer"))
            numbers.append(header_of(head_of(request), "X-Tarn-Chunk-Number"))
            bodies.append(body_of(request.put))
            self.answer(request, 204)

        self.assertEqual(client.line(), "204|Empty||")
        self.assertEqual([len(body) for body in bodies], [CHUNK_BYTES, CHUNK_BYTES, 5, 0])
        self.assertEqual(b"".join(bodies), data)
        self.assertEqual((len(transfers), numbers), (1, ["0", "1", "2", "3"]))

    def test_may_answer_a_download_in_chunks(self):
        chunks = [b"one ", b"two ", b"three"]
        client = self.ask("download", "/thing")
        for number, chunk in enumerate(chunks + [b""]):
            request = self.next_request()
            head = head_of(request)
            self.assertEqual(header_of(head, "X-Tarn-Supports-Chunked-Transfer"), "true")
            self.assertEqual(header_of(head, "X-Tarn-Chunked-Transfer"), "its id" if number else None)
            self.answer(request, 200, "", Format.Bin, chunk, headers=[("X-Tarn-Chunked-Transfer", "its id")])
        self.assertEqual(client.line(), f"200|Bin||{md5_of(b''.join(chunks))}")


class Changes(InteropTest):
    def setUp(self):
        super().setUp()
        self.start_relay()

    def test_from_python_are_heard_by_a_server(self):
        publisher = Publisher(self.context, self.endpoint("sub"), CLIENT_PID)
        self.addCleanup(publisher.close)
        relay = Client(self.context, self.endpoint("url"), CLIENT_PID, PATIENCE)
        self.addCleanup(relay.close)
        publisher.prove_connection(relay)
        subscriber = self.start("subscribe", self.endpoint("pub"))
        # The subscription takes its time to arrive; what comes after the first that is heard isn't lost.
        end = time.monotonic() + PATIENCE
        heard = None
        while heard is None:
            self.assertLess(time.monotonic(), end)
            publisher.put("/machine/probe", b"x")
            heard = subscriber.line(0.05)

        publisher.publish(Message.FromString(self.documented("change")))
        publisher.put("/machinery/belt", b"of the same prefix, but another path")
        publisher.put(f"/machine/load@{SERVICE_PID + 1}", b"to another process")
        publisher.put(f"/machine/load@{SERVICE_PID + 1},{SERVICE_PID}", b"to this process too")
        publisher.delete("/machine/load")

        while heard and heard.startswith("put|/machine/probe|"):
            heard = subscriber.line()
        sender = f"{CLIENT_PID}|{publisher.tag}"
        self.assertEqual(heard, f"put|/machine/load|{sender}|0.42")
        self.assertEqual(subscriber.line(), f"put|/machine/load|{sender}|to this process too")
        self.assertEqual(subscriber.line(), f"del|/machine/load|{sender}|")

    def test_from_a_publisher_are_heard_by_python(self):
        subscriber, publisher = self.start_publishing()

        publisher.say("/other/thing 1")
        publisher.say("/machine whole")
        publisher.say("/machine/load/15@12 0.42")
        publisher.say("/machine/load")

        tags = set()
        for verb, path, body in (
            ("put", "/machine", b"whole"),
            ("put", "/machine/load/15", b"0.42"),
            ("del", "/machine/load", None),
        ):
            topic, message = self.hear_change(subscriber)
            head = head_of(message)
            self.assertEqual((topic, message.WhichOneof("type"), head.path), (b"/machine", verb, path))
            self.assertEqual(body_of(message.put) if verb == "put" else None, body)
            self.assertEqual([to.pid for to in head.to], [12] if path.endswith("15") else [])
            tags.add(getattr(head, "from").tag)
        self.assertEqual(len(tags), 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
