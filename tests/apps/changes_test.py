#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`tarn publish`, `tarn watch` and `tarn demo`."""

from support import *


class Changes(CommandTest):
    services = {}

    def publish_until_heard(self, watcher, *arguments, **more):
        """A subscription takes a moment to reach the relay, and what is published before is lost."""
        deadline = time.monotonic() + PATIENCE
        while not select.select([watcher.stdout], [], [], 0)[0]:
            self.assertLess(time.monotonic(), deadline)
            self.assert_good(self.here("publish", *arguments, **more), "")

    def watch(self, *arguments):
        return self.start("watch", "--run-dir", "{run}", *arguments)

    def test_a_change_is_heard(self):
        watcher = self.watch("-n", "1", "/alarm")
        self.publish_until_heard(watcher, "put", "/alarm", "on")
        out, err = watcher.communicate(timeout=PATIENCE)
        self.assertRegex(out, r"^\d\d:\d\d:\d\d\.\d{3}  put  /alarm  on\n$")
        self.assertEqual((watcher.returncode, err), (0, ""))

    def test_json_has_one_object_in_a_line(self):
        watcher = self.watch("-n", "1", "--json", "/photo")
        self.publish_until_heard(watcher, "put", "/photo", "-", stdin=b"\xff\x00\x01")
        found = json.loads(watcher.communicate(timeout=PATIENCE)[0])
        self.assertEqual((found["verb"], found["path"], found["bytes"], found["base64"]), ("put", "/photo", 3, "/wAB"))

    def test_only_the_paths_that_were_named_and_what_is_below_them(self):
        watcher = self.watch("-n", "2", "/a/b", "/last")
        for path in ("/a", "/a/bc", "/other"):
            self.assert_good(self.here("publish", "del", path))
        self.publish_until_heard(watcher, "del", "/a/b/c")
        self.assert_good(self.here("publish", "del", "/a/bc"))
        self.assert_good(self.here("publish", "put", "/last", "\x1b[31m\nx"))
        lines = watcher.communicate(timeout=PATIENCE)[0].splitlines()
        paths = [re.split("  +", line)[2] for line in lines]
        self.assertTrue(set(paths) <= {"/a/b/c", "/last"}, paths)
        if paths[-1] == "/last":
            self.assertTrue(lines[-1].endswith(r"\x1b[31m\nx"), lines[-1])

    def test_empty_segments_of_a_path_do_not_count(self):
        for watched, changed in (("/a", "/a//"), ("/a/", "/a/"), ("//a//b/", "/a//b"), ("/a/b", "/a/b//c")):
            with self.subTest(watched=watched, changed=changed):
                watcher = self.watch("-n", "1", watched)
                self.publish_until_heard(watcher, "put", changed, "on")
                self.assertRegex(watcher.communicate(timeout=PATIENCE)[0], f"  put  {changed}  on\n$")

    def test_publish_tells_a_script_how_it_went(self):
        found = json.loads(self.here("publish", "put", "--json", "/a", "on").out)
        self.assertEqual(found, {"verb": "put", "path": "/a", "endpoint": f"ipc://{self.run_dir}/relay/in.sock", "exit": 0,
                                 "bytes": 2})
        self.assertEqual(json.loads(self.here("publish", "DELETE", "a", "--json").out)["verb"], "del")
        bad = self.tarn("publish", "del", "--json", "--run-dir", self.work / "nowhere", "/a")
        self.assertEqual((bad.status, json.loads(bad.out)["exit"]), (6, 6))
        self.assertEqual(bad.err, f"tarn publish: {json.loads(bad.out)['problem']}\n")

    def test_a_binary_body_is_a_size(self):
        watcher = self.watch("-n", "1")
        self.publish_until_heard(watcher, "put", "/photo", "-", stdin=b"\xff\x00\x01")
        self.assertRegex(watcher.communicate(timeout=PATIENCE)[0], r"  put  /photo.*  \(3 bytes\)\n$")

    def test_it_ends_after_a_time_or_when_it_is_told_to(self):
        self.assert_good(self.here("watch", "--for", "50ms"), "")
        for number in (signal.SIGINT, signal.SIGTERM):
            watcher = self.watch("-v")
            while "watching" not in (line := watcher.stderr.readline()):
                self.assertNotEqual(line, "")
            watcher.send_signal(number)
            self.assertEqual(watcher.wait(PATIENCE), 0)

    def test_it_ends_when_its_reader_does(self):
        watcher = self.watch()
        watcher.stdout.close()
        self.assertNotEqual(watcher.wait(PATIENCE), None)
        watcher.stdout = open(os.devnull)

    def test_it_says_at_once_that_there_is_no_relay(self):
        self.assert_fails(self.tarn("watch", "--run-dir", self.work / "nowhere"), 6,
                          "the relay can't be reached.*no such file")
        self.assert_fails(self.tarn("publish", "put", "--run-dir", self.work / "nowhere", "/x"), 6, "no such file")


class Demo(CommandTest):
    services = {}

    def start_demo(self, *arguments):
        demo = self.start("demo", *arguments)
        while (line := demo.stdout.readline()) and "Ctrl-C" not in line:
            pass
        return demo

    def test_the_tour_works_with_nothing_set(self):
        if pathlib.Path("/run/tide/router/zmq.sock").exists():
            self.skipTest("this machine has a fabric")
        demo = self.start_demo()
        self.assertEqual(demo.poll(), None, demo.stderr)
        own = self.work / "tarn"
        self.assertEqual(own.stat().st_mode & 0o777, 0o700)
        self.assert_good(self.tarn("put", "/clock/zone", "UTC"), "")
        self.assertRegex(self.tarn("get", "/clock/time").out, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC$")
        self.assertRegex(self.tarn("watch", "-n", "1", "--for", "20s", "/clock").out, "put  /clock/time  text/plain  ")
        self.assert_fails(self.tarn("put", "/clock/zone", "Mars"), 4, "a zone is UTC, local, or an offset")
        memory = self.tarn("get", "-H", "Accept: application/json", "/machine/memory").out
        self.assertGreater(json.loads(memory)["total_kib"], 0)
        self.assert_good(self.tarn("publish", "put", "/x", "y"), "")
        self.assert_good(self.tarn("get", "/machine/load/15"))
        self.assert_fails(self.tarn("get", "/clok/time"), 4, 'perhaps you mean "/clock"; the services are clock, machine, ')
        self.assertIn("/clock/zmq.sock  answers, process", self.tarn("get", "/services").out)
        self.assert_fails(self.tarn("demo"), 1, f"is served already, by process {demo.pid}, which is tarn, since .*; end that process first")
        demo.send_signal(signal.SIGINT)
        self.assertEqual(demo.wait(PATIENCE), 0)
        self.assertFalse(own.exists())

    def test_it_trusts_no_directory_that_is_open_to_others(self):
        opened = self.work / "open"
        opened.mkdir()
        opened.chmod(0o755)
        self.assert_fails(self.tarn("demo", "--run-dir", opened), 1, "lets other users in; run chmod 700 .*; --run-dir names another")
        (self.work / "link").symlink_to(self.work)
        self.assert_fails(self.tarn("demo", "--run-dir", self.work / "link"), 1, "is a link, .*remove it; --run-dir names another")
        (self.work / "file").touch()
        self.assert_fails(self.tarn("demo", "--run-dir", self.work / "file"), 1, "is not a directory")
        self.assertEqual([each.name for each in opened.iterdir()], [])

    def test_it_leaves_what_it_found(self):
        mine = self.work / "mine"
        (mine / "clock").mkdir(parents=True)
        mine.chmod(0o700)
        demo = self.start_demo("--run-dir", mine)
        self.assert_good(self.tarn("get", "--run-dir", mine, "/clock/time"))
        demo.send_signal(signal.SIGTERM)
        self.assertEqual(demo.wait(PATIENCE), 0)
        self.assertEqual([str(each.relative_to(mine)) for each in mine.rglob("*")], ["clock"])


if __name__ == "__main__":
    take_programs()
    unittest.main()
