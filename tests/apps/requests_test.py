#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`tarn get`, `head`, `put`, `post` and `del`, against real services behind a real router."""

from support import *


class Requests(CommandTest):
    services = {"status": "status_service", "files": "upload_service", "stream": "streaming_service",
                "odd": "odd_server"}

    def test_each_verb_in_any_case(self):
        self.assert_good(self.here("get", "/status/settings/location"), "workshop")
        self.assert_good(self.here("PUT", "/status/settings/location", "attic"), "")
        self.assert_good(self.here("Get", "status/settings/location"), "attic")
        self.assertIn("Content-Length: 5\n", self.here("head", "/status/settings/location").out)
        self.assert_good(self.here("delete", "/status/settings/location"), "")
        self.assert_good(self.here("get", "/status/settings/location"), "workshop")
        self.assertRegex(self.here("post", "/files/drop/x", "abc").out, "^3 bytes, MD5 ")

    def test_an_endpoint_is_a_uri_or_a_path(self):
        socket_file = self.run_dir / "status/zmq.sock"
        self.assert_good(self.tarn("get", "-e", f"ipc://{socket_file}", "/settings/location"), "workshop")
        self.assert_good(self.tarn("get", "/settings/location", "--endpoint", socket_file), "workshop")

    def test_headers_choose_the_format_and_are_shown(self):
        result = self.here("get", "-H", "Accept: application/json", "/status/memory")
        self.assertGreater(json.loads(result.out)["total"], 0)
        head, _, body = self.here("get", "-i", "-H", "accept:application/json", "/status/memory").out.partition("\n\n")
        self.assertTrue(head.startswith("200 Ok\n"), head)
        self.assertIn("Content-Type: application/json", head)
        self.assertEqual(json.loads(body).keys(), {"total", "available"})

    def test_headers_stand_anywhere(self):
        place, header = "/status/settings/location", ["-H", "Content-Type: text/plain"]
        self.addCleanup(self.here, "del", place)
        for words in ([*header, place, "attic"], [place, *header, "attic"], [place, "attic", *header],
                      [*header, "--header", "a: b", place, "attic"], [*header, place, "-H", "a: b", "attic"]):
            with self.subTest(words):
                self.here("del", place)
                self.assert_good(self.here("put", *words), "")
                self.assert_good(self.here("get", place), "attic")
                words[words.index(place)] = "/files/drop/x"
                self.assertRegex(self.here("post", *words).out, "^5 bytes, MD5 ")
                words[words.index("/files/drop/x")] = "/x"
                self.assert_good(self.here("publish", "put", *words), "")
        accept = ["-H", "Accept: application/json"]
        for words in ([*accept, "/status/memory"], ["/status/memory", *accept], [*accept, "-H", "a: b", "/status/memory"]):
            with self.subTest(words):
                self.assertGreater(json.loads(self.here("get", *words).out)["total"], 0)
                self.assert_good(self.here("head", *words))

    def test_a_body_may_be_called_like_a_command(self):
        for body in ("get", "services", "help", "delete"):
            self.assert_good(self.here("put", "/status/settings/location", body), "")
            self.assert_good(self.here("get", "/status/settings/location"), body)
        self.addCleanup(self.here, "del", "/status/settings/location")

    def test_a_body_may_begin_with_any_character(self):
        place = "/status/settings/location"
        self.addCleanup(self.here, "del", place)
        self.assert_good(self.here("put", place, "-", stdin=b"@home"), "")
        self.assert_good(self.here("get", place), "@home")
        self.assert_good(self.here("put", place, "--", "-x"), "")
        self.assert_good(self.here("get", place), "-x")

    def test_json_is_one_object(self):
        found = json.loads(self.here("get", "--json", "-H", "Accept: application/json", "/status/memory").out)
        self.assertEqual((found["status"], found["reason"], found["exit"], found["format"]),
                         (200, "Ok", 0, "application/json"))
        self.assertGreater(found["json"]["total"], 0)
        self.assertEqual(found["pid"], self.fabric.processes["status"].pid)
        bad = self.here("get", "--json", "/status/nothing")
        self.assertEqual((bad.status, json.loads(bad.out)["status"]), (4, 404))
        self.assertEqual(f"tarn get: {json.loads(bad.out)['problem']}\n", bad.err)

    def test_json_is_one_object_even_if_nothing_is_reached(self):
        nobody = self.run_dir / "nobody.sock"
        for words, status, verb, path in ((["get", "/x"], 6, "get", "/x"), (["put", "x", "y"], 6, "put", "/x"),
                                          (["post", "/x", "@/nowhere"], 1, "post", "/x"),
                                          (["get", "/x", "-o", "/nowhere/x"], 1, "get", "/x"),
                                          (["get", "/x", "-r", "1", "-t", "10ms"], 6, "get", "/x")):
            with self.subTest(words):
                result = self.tarn(*words, "--json", "-e", nobody)
                found = json.loads(result.out)
                self.assertEqual((result.status, found["exit"], found["verb"], found["path"]), (status, status, verb, path))
                self.assertEqual(f"tarn {verb}: {found['problem']}\n", result.err)
                self.assertEqual(found["endpoint"], None if status == 1 and verb == "post" else f"ipc://{nobody}")
        nowhere = self.here("get", "--json", "-o", self.work, "/status/uptime")
        self.assertEqual((nowhere.status, json.loads(nowhere.out)["exit"]), (1, 1))
        self.assert_fails(self.tarn("get", "--json", "?"), 2, "is not a path")
        call = self.tarn("call", "--json", nobody, "7")
        self.assertEqual((call.status, json.loads(call.out)["number"], json.loads(call.out)["exit"]), (6, 7, 6))

    def test_json_and_the_head_have_the_same_headers(self):
        words = ["-H", "Accept: application/json", "/status/memory"]
        head = self.here("get", "-i", *words).out.partition("\n\n")[0].splitlines()[1:]
        found = json.loads(self.here("get", "--json", *words).out)["headers"]
        self.assertEqual(dict(line.split(": ", 1) for line in head), found)
        self.assertEqual(found["Content-Type"], "application/json")
        self.assertIn("Content-Type: application/json\n", self.here("head", *words).out)

    def test_large_bodies_stream_both_ways(self):
        body = os.urandom(5 * 1024 * 1024 + 7)
        source, target = self.work / "source", self.work / "target"
        source.write_bytes(body)
        sent = self.here("put", "/files/drop/x", f"@{source}")
        self.assertRegex(sent.out, f"^{len(body)} bytes, MD5 ")
        self.assertEqual(self.here("put", "/files/drop/x", "-", stdin=body).out, sent.out)
        self.assert_good(self.here("put", "/stream/image", f"@{source}"))
        self.assertEqual(self.here("get", "/stream/download", binary=True).out, body)
        self.assert_good(self.here("get", "-o", target, "/stream/download"), "")
        self.assertEqual(target.read_bytes(), body)
        head, _, rest = self.here("get", "-i", "/stream/download", binary=True).out.partition(b"\n\n")
        self.assertTrue(head.startswith(b"200 Ok\n"))
        self.assertEqual(rest, body)
        found = json.loads(self.here("get", "--json", "-o", target, "/stream/download").out)
        self.assertEqual(found["bytes"], len(body))

    def test_an_open_file_of_its_own_is_written_where_it_stands(self):
        for name in ("/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"):
            with self.subTest(name), open(self.work / "log", "w+") as log:
                log.write("before\n")
                log.flush()
                subprocess.run([PROGRAMS["tarn"], "get", "--run-dir", str(self.run_dir), "-o", name,
                                "/status/settings/location"], stdout=log, env=self.environment, timeout=60, check=True)
                self.assertEqual((self.work / "log").read_text(), "before\nworkshop")
                self.assertEqual(os.fstat(log.fileno()).st_nlink, 1)

    def test_a_failed_download_leaves_the_file_alone(self):
        target = self.work / "kept"
        target.write_text("before")
        self.assert_fails(self.here("get", "-o", target, "/status/nothing"), 4, "404")
        self.assertEqual(target.read_text(), "before")
        self.assertEqual([file.name for file in self.work.glob("kept*")], ["kept"])

    def test_a_signal_leaves_no_part_of_a_file(self):
        process = self.fabric.start_service("asleep", "status_service")
        process.send_signal(signal.SIGSTOP)
        self.addCleanup(process.send_signal, signal.SIGCONT)
        target = self.work / "interrupted" / ("n" * 250)
        target.parent.mkdir()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            running = self.start("get", "-t", "60s", "-e", "{run}/asleep/zmq.sock", "-o", target, "/uptime")
            self.assertTrue(wait_until(lambda: list(target.parent.iterdir())))
            running.send_signal(number)
            self.assertEqual(running.wait(PATIENCE), -number)
            self.assertEqual(list(target.parent.iterdir()), [])
        self.assertEqual(self.here("get", "-t", "10ms", "-o", target, "/asleep/uptime").status, 7)
        self.assertEqual(list(target.parent.iterdir()), [])

    def test_a_file_keeps_its_mode(self):
        private, fresh = self.work / "private", self.work / "fresh"
        private.write_text("before")
        private.chmod(0o600)
        self.assert_good(self.here("get", "-o", private, "/status/settings/location"), "")
        self.assertEqual((private.read_text(), private.stat().st_mode & 0o777), ("workshop", 0o600))
        before = os.umask(0o027)
        try:
            self.assert_good(self.here("get", "-o", fresh, "/status/settings/location"), "")
        finally:
            os.umask(before)
        self.assertEqual(fresh.stat().st_mode & 0o777, 0o640)

    def test_a_link_stays_one(self):
        folder = self.work / "links"
        (folder / "real").mkdir(parents=True)
        for name in ("real/there", "real/new"):
            link = folder / name.replace("real/", "to_")
            link.symlink_to(name)
            if name == "real/there":
                (folder / name).write_text("before")
            self.assert_good(self.here("get", "-o", link, "/status/settings/location"), "")
            self.assertTrue(link.is_symlink())
            self.assertEqual((folder / name).read_text(), "workshop")
        self.assertEqual(len(list(folder.iterdir())), 3)
        (folder / "loop").symlink_to("loop")
        self.assert_fails(self.here("get", "-o", folder / "loop", "/status/uptime"), 1, "Too many levels of symbolic links")

    def test_what_is_no_regular_file_is_written_directly(self):
        self.assert_good(self.here("get", "-o", "/dev/null", "/status/settings/location"), "")
        self.assertTrue(pathlib.Path("/dev/null").is_char_device())
        pipe = self.work / "pipe"
        os.mkfifo(pipe)
        running = self.start("get", "--run-dir", "{run}", "-o", pipe, "/status/settings/location")
        self.assertEqual(pipe.read_text(), "workshop")
        self.assertEqual(running.wait(PATIENCE), 0)
        self.assertTrue(pipe.is_fifo())

    def test_the_exit_status_tells_what_went_wrong(self):
        self.assert_fails(self.here("get", "/status/nothing"), 4, "^tarn get: /status/nothing: 404 NotFound; ")
        self.assert_fails(self.here("put", "/status/uptime", "0"), 4, r"405 MethodNotAllowed, route \[uptime\]")
        self.assert_fails(self.tarn("get", "-e", "{run}/nobody.sock", "/x"), 6, "no such file; start the service")
        stale = self.run_dir / "stale.sock"
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(stale))
        self.assert_fails(self.tarn("get", "-e", stale, "/x"), 6, "nobody listens; start its process")
        (self.run_dir / "empty").mkdir()
        self.assert_fails(self.here("get", "-t", "600ms", "/empty/x"), 7, "/empty/x: 408 RequestTimeout")

    def test_a_refusal_prints_nothing_but_its_sentence(self):
        for verb in ("get", "put"):
            self.assert_fails(self.here(verb, "/odd/refusal"), 4, r"409 Conflict, no\\x1b\[31m\\nfaked line; ")
            found = json.loads(self.here(verb, "--json", "/odd/refusal").out)
            self.assertEqual((found["exit"], found["message"], found["json"]),
                             (4, "no\x1b[31m\nfaked line", {"field": "name"}))

    def test_a_stopped_server_is_told_from_none(self):
        process = self.fabric.start_service("hung", "status_service")
        process.send_signal(signal.SIGSTOP)
        try:
            result = self.tarn("get", "-t", "200ms", "-e", "{run}/hung/zmq.sock", "/uptime")
            self.assert_fails(result, 7, f"408, somebody listens at .* .process {process.pid}, which is machine_status_, since .* but doesn.t answer")
            self.assertEqual(self.tarn("index", "-t", "200ms", "-e", "{run}/hung/zmq.sock").status, 7)
            self.assert_fails(self.tarn("bench", "-t", "200ms", "-e", "{run}/hung/zmq.sock", "/x"), 7, "408")
        finally:
            process.send_signal(signal.SIGCONT)

    def test_nobody_without_permission_is_let_in(self):
        socket_file = self.run_dir / "status/zmq.sock"
        mode = socket_file.stat().st_mode
        socket_file.chmod(0)
        self.addCleanup(socket_file.chmod, mode & 0o777)
        if os.access(socket_file, os.W_OK):
            self.skipTest("root may do everything")
        self.assert_fails(self.tarn("get", "-e", socket_file, "/uptime"), 6, "permission denied; look at the modes")

    def test_retries_wait_for_a_service_to_start(self):
        late = self.start("get", "-r", "40", "-t", "500ms", "-e", "{run}/late/zmq.sock", "/settings/location")
        self.fabric.start_service("late", "status_service")
        self.assertEqual(late.communicate(timeout=PATIENCE), ("workshop", ""))

    def test_a_full_output_ends_it(self):
        with open("/dev/full", "w") as full:
            done = subprocess.run([PROGRAMS["tarn"], "get", "--run-dir", str(self.run_dir), "/status/memory"],
                                  stdout=full, stderr=subprocess.PIPE, text=True, env=self.environment, timeout=60)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, "cannot write the output: No space left")

    def without(self, descriptors, *arguments):
        """Runs the command without some of its standard streams."""
        done = subprocess.run([PROGRAMS["tarn"], *map(str, arguments)], capture_output=True, text=True, timeout=60,
                              env=self.environment, preexec_fn=lambda: [os.close(each) for each in descriptors])
        return Result(done.returncode, done.stdout, done.stderr)

    def test_a_closed_stream_is_told(self):
        run = ("--run-dir", self.run_dir)
        closed = "cannot write the output: Bad file descriptor"
        for words in (("get", *run, "/status/memory"), ("get", *run, "--json", "/status/memory"), ("watch", *run),
                      ("services", *run), ("version",), ("get", "--help")):
            self.assert_fails(self.without([1], *words), 1, closed)
            self.assertEqual(self.without([0, 1, 2], *words).status, 1)
        self.assert_good(self.without([1], "put", *run, "/status/settings/location", "workshop"))
        self.assert_good(self.without([1], "get", *run, "-o", self.work / "unseen", "/status/settings/location"))
        self.assertEqual((self.work / "unseen").read_text(), "workshop")
        self.assert_good(self.without([0], "get", *run, "/status/settings/location"), "workshop")
        self.assert_fails(self.without([0], "put", *run, "/status/settings/location", "-"), 1,
                          "cannot read the body from standard input: Bad file descriptor")
        self.assertEqual(self.without([2], "get", *run, "/status/settings/location").out, "workshop")
        self.assertEqual(self.without([2], "get", *run, "/status/nothing").status, 4)

    def test_a_closed_pipe_ends_it(self):
        process = self.start("get", "--run-dir", "{run}", "/status/memory")
        process.stdout.close()
        self.assertIn(process.wait(PATIENCE), (-signal.SIGPIPE, 0))  # 0 if it was faster
        process.stdout = open(os.devnull)

    def test_the_librarys_log_shows_only_if_wanted(self):
        silent = self.work / "silent.sock"
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(silent))
            listener.listen()
            quiet = self.tarn("get", "-t", "10ms", "-e", silent, "/x")
            wordy = self.tarn("get", "-v", "-t", "10ms", "-e", silent, "/x")
        self.assertEqual(quiet.err.count("\n"), 1, quiet)
        self.assertGreater(wordy.err.count("\n"), 1, wordy)


if __name__ == "__main__":
    take_programs()
    unittest.main()
