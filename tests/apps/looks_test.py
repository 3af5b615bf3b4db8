#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What looks at a fabric: services, index, who, call, ping, bench, doctor, version; completion, help and manual."""

import shutil

from support import *

ROOT = pathlib.Path(__file__).parents[2]


class Looks(CommandTest):
    services = {"status": "status_service", "calls": "odd_server"}

    def test_services_lists_who_answers_and_why_others_do_not(self):
        (self.run_dir / "gone").mkdir(exist_ok=True)
        found = {each["name"]: each for each in json.loads(self.here("services", "--json").out)}
        self.assertEqual(set(found), {"calls", "gone", "relay", "router", "status"})
        self.assertEqual(found["status"]["pid"], self.fabric.processes["status"].pid)
        self.assertIn({"pattern": "/status/uptime", "methods": ["HEAD", "GET"], "access": "public"},
                      found["status"]["routes"])
        self.assertEqual((found["gone"]["answers"], found["gone"]["problem"]), (False, "no such file"))
        self.assertRegex(self.here("services").out, r"(?m)^status +[0-9.]+ ms +\d+ +5 +answers$")

    def test_index_lists_routes_of_one_service_or_all(self):
        one = self.here("index", "status").out
        self.assertRegex(one, r"(?m)^HEAD,GET,PUT,DEL +public +/status/settings/location$")
        self.assertIn("/relay/stats\n", self.here("index").out)
        self.assertIn(" /uptime\n", self.tarn("index", "-e", "{run}/status/zmq.sock").out)

    def test_who_follows_a_path_to_its_end(self):
        good = self.here("who", "/status/load/5")
        self.assert_good(good)
        for line in (f"socket    ipc://{self.run_dir}/status/zmq.sock", "asked as  /load/5",
                     'route     "/load/:minutes"  HEAD,GET  public'):
            self.assertIn(line + "\n", good.out)
        self.assertIn(str(self.fabric.processes["status"].pid), good.out)
        self.assertIn("`tarn head /status/load` tells", self.here("who", "/status/load").out)
        mistyped = self.here("who", "--json", "/statsu/load")
        self.assertEqual(mistyped.status, 4)
        self.assertIn("the nearest is 'status'", json.loads(mistyped.out)["ends"])
        self.assertIn("no route takes '/uptim'; the nearest is '/uptime'", self.here("who", "/status/uptim").out)
        (self.run_dir / "gone").mkdir(exist_ok=True)
        gone = self.here("who", "/gone/x")
        self.assertEqual((gone.status, self.here("get", "-t", "200ms", "/gone/x").status), (7, 7))
        self.assertIn("before the service with 408: no such file", gone.out)

    def test_who_knows_the_routes_of_the_router_itself(self):
        for path in ("/services", "/index"):
            found = self.here("who", path)
            self.assert_good(found)
            self.assertIn("service   router\n", found.out)
            self.assertIn(f'route     "{path}"', found.out)
            self.assert_good(self.here("get", path), self.here("get", path).out)
        self.assert_fails_with_way(self.here("who", "/"), "at the router with 404: the path names no service")
        nobody = self.tarn("who", "--run-dir", self.work, "/a")
        self.assert_fails_with_way(nobody, "before the router: no such file", 6)

    def assert_fails_with_way(self, result, end, status=4):
        self.assertEqual((result.status, result.err), (status, ""))
        self.assertIn(f"ends      {end}", result.out)

    def test_call_prints_what_a_function_returns(self):
        self.assertEqual(self.tarn("call", "{run}/calls/zmq.sock", "200").out,
                         'google.protobuf.StringValue { value: "answer" }\nunknown.Kind (3 bytes)\n')
        values = json.loads(self.tarn("call", "--json", "{run}/calls/zmq.sock", "200").out)["values"]
        self.assertEqual(values[1], {"type": "type.googleapis.com/unknown.Kind", "text": "unknown.Kind (3 bytes)",
                                     "base64": "YWJj"})
        self.assert_fails(self.tarn("call", "{run}/calls/zmq.sock", "999"), 4,
                          "call 999: 404 NotFound, method not found")
        bad = self.tarn("call", "--json", "{run}/calls/zmq.sock", "999")
        found = json.loads(bad.out)
        self.assertEqual((bad.status, found["exit"], found["number"]), (4, 4, 999))
        self.assertEqual(found["problem"], "call 999: 404 NotFound, method not found; ask the service which numbers it takes")

    def test_ping_counts_every_answer(self):
        result = self.here("ping", "-n", "3", "--interval", "1ms", "/status/nothing")
        self.assert_good(result)
        self.assertEqual(result.out.count("404 NotFound from process"), 3)
        self.assertIn("3 sent, 3 answered; least ", result.out)

    def test_bench_counts_and_sorts_requests(self):
        found = json.loads(self.here("bench", "-c", "3", "-n", "200", "--json", "/status/uptime").out)
        self.assertEqual((found["requests"], found["failed"], found["clients"]), (200, 0, 3))
        self.assertEqual(sum(each["count"] for each in found["histogram"]), 200)
        self.assertLessEqual(found["median_us"], found["p99_us"])
        self.assertRegex(self.here("bench", "-n", "50", "/status/uptime").out, r"(?m)^ +< .*#$")

    def test_bench_ends_when_it_is_interrupted(self):
        process = self.start("bench", "--run-dir", "{run}", "-n", "100000000", "/status/uptime")
        self.assertTrue(wait_until(lambda: has_worked(process.pid)))
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=PATIENCE)
        self.assertEqual((process.returncode, err), (0, ""))
        self.assertIn("0 failed", out)

    def test_doctor_has_a_remedy_for_each_problem(self):
        stale = self.run_dir / "dead"
        stale.mkdir()
        self.addCleanup(stale.rmdir)
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(stale / "zmq.sock"))
        self.addCleanup((stale / "zmq.sock").unlink)
        self.run_dir.chmod(0o777)
        self.addCleanup(self.run_dir.chmod, 0o755)
        result = self.here("doctor")
        self.assertEqual(result.status, 1)
        self.assertIn("a socket that nobody listens at", result.out)
        self.assertIn(f"`rm {stale}/zmq.sock && rmdir {stale}`", result.out)
        self.assertIn(f"`chmod o-w {self.run_dir}`", result.out)
        trap = self.run_dir / "a;b'c"
        trap.mkdir()
        self.addCleanup(trap.rmdir)
        remedies = {each["remedy"] for each in json.loads(self.here("doctor", "--json").out)}
        self.assertIn(f"start the service, or remove the directory: `rmdir '{self.run_dir}/a;b'\\''c'`", remedies)
        for finding in json.loads(self.here("doctor", "--json").out):
            self.assertEqual(finding["problem"], finding["remedy"] != "", finding)

    def test_completion_offers_what_there_is(self):
        def complete(*words):
            return self.tarn("--complete", *words).out.split()

        self.assertEqual(complete("p"), ["ping", "post", "publish", "put"])
        self.assertEqual(complete("get", "--time"), ["--timeout"])
        self.assertEqual(complete("get", "--run-dir", "{run}", "/st"), ["/status/"])
        self.assertEqual(complete("get", "--run-dir", "{run}", "/status/u"), ["/status/uptime"])
        self.assertEqual(complete("get", "--run-dir", "{run}", "/status/l"), ["/status/load/"])
        self.assertEqual(complete("index", "--run-dir", "{run}", "st"), ["status"])

    def test_completion_knows_where_in_the_line_it_is(self):
        def complete(*words):
            return self.tarn("--complete", *words).out.split()

        run = ["--run-dir", "{run}"]
        self.assertEqual(complete("publish", ""), ["del", "put"])
        self.assertEqual(complete("publish", *run, "p"), ["put"])
        self.assertEqual(complete("publish", *run, "put", "/st"), ["/status/"])
        for done in (["put", "/status/uptime"], ["post", "/status/uptime"], ["publish", "put", "/x"], ["get", "/x"],
                     ["who", "/x"], ["index", "status"], ["completion", "zsh"], ["call", "x", "1"], ["nothing"]):
            self.assertEqual(complete(*done[:1], *run, *done[1:], ""), [])
        self.assertEqual(complete("watch", *run, "/x", "/st"), ["/status/"])
        self.assertEqual(complete("delete", *run, "/st"), ["/status/"])
        self.assertEqual(complete("help", "wh"), ["who"])
        for place in (["--run-dir={run}"], ["-e{run}/status/zmq.sock"], ["--endpoint={run}/status/zmq.sock"],
                      ["-e", "{run}/status/zmq.sock"]):
            offered = complete("get", "-v", *place, "-H", "a: b", "-i", "")
            self.assertIn("/status/" if "run-dir" in place[0] else "/uptime", offered, place)
        for value in ("-t", "-H", "--output", "--run-dir"):
            self.assertEqual(complete("get", *run, value, ""), [])
        self.assertEqual(complete("-v", "get", *run, "/st"), ["/status/"])
        self.assertEqual(complete("-v", "ge"), ["get"])
        self.assertEqual(complete("--"), ["--help", "--no-color", "--verbose", "--version"])
        self.assertEqual(complete("get", "--ver"), ["--verbose"])
        self.assertEqual(complete("get", "--no"), ["--no-color"])
        self.assertEqual(complete("get", "--", "--"), [])

    def shell_environment(self):
        """With files to complete: "photo album/" and "photo.jpg"."""
        (self.work / "files/photo album").mkdir(parents=True, exist_ok=True)
        (self.work / "files/photo.jpg").touch()
        return {**self.environment, "PATH": f"{pathlib.Path(PROGRAMS['tarn']).parent}:{os.environ['PATH']}"}

    def test_bash_completes_a_line(self):
        (self.work / "tarn.bash").write_text(self.tarn("completion", "bash").out)
        run = f"--run-dir {self.run_dir}"
        with OnTerminal(["bash", "--norc", "--noprofile", "-i"], self.shell_environment()) as bash:
            for keys, shown in ((f"cd {self.work}/files; bind 'set enable-bracketed-paste off'; PS1=rea''dy\r", "ready"),
                                (f"source ../tarn.bash; PS1=n''ow\r", "now"),
                                (f"tarn get {run} /status/upt\t", "/status/uptime "),
                                (f"\x15tarn get --run-dir={self.run_dir} /status/upt\t", "/status/uptime "),
                                (f"\x15tarn get -e ipc://{self.run_dir}/status/zmq.sock /upt\t", "/uptime "),
                                ("\x15tarn publish p\t", "publish put "),
                                (f"\x15tarn get --run-dir={self.run_dir}/stat\t", "/status/"),
                                ("\x15tarn put /x @photo.\t", "@photo.jpg "),
                                ("\x15tarn put /x @photo\\ a\t", r"@photo\\ album/"),
                                ("\x15tarn get -o photo.\t", "-o photo.jpg "),
                                ("\x15tarn --no\t", "--no-color ")):
                bash.type(keys)
                self.assertTrue(bash.read(shown), (keys, bash.shown))

    @unittest.skipUnless(shutil.which("zsh"), "zsh isn't installed")
    def test_zsh_completes_a_path(self):
        (self.work / "_tarn").write_text(self.tarn("completion", "zsh").out)
        environment = self.shell_environment()
        for found_by in (f"compinit -u -D; source {self.work}/_tarn", f"fpath+=({self.work}); compinit -u -D"):
            with self.subTest(found_by), OnTerminal(["zsh", "-f", "-i"], environment) as zsh:
                for keys, shown in ((f"autoload -Uz compinit; {found_by}; PS1=rea''dy\r", "ready"),
                                    (f"tarn get --run-dir {self.run_dir} /status/upt\t", r"/upt\x07?ime "),
                                    ("\x15tarn wat\t", r"wat\x07?ch "),
                                    ("\x15tarn publish p\t", r"p\x07?ut "),
                                    (f"\x15tarn -v get --run-dir={self.run_dir} /status/upt\t", r"/upt\x07?ime "),
                                    (f"\x15tarn get --run-dir={self.run_dir}/stat\t", r"/stat\x07?us"),
                                    ("\x15tarn get --no\t", r"--no\x07?-color "),
                                    (f"\x15cd {self.work}/files; PS1=the''re\r", "there"),
                                    ("tarn put /x @photo.\t", r"@photo.\x07?jpg")):
                    zsh.type(keys)
                    self.assertTrue(zsh.read(shown), zsh.shown)

    def test_each_command_has_help_and_a_page_of_manual(self):
        listed = re.findall(r"(?m)^  ([a-z]+)  ", self.tarn("--help").out.partition("Options:")[0])
        self.assertGreaterEqual(len(listed), 16)
        self.tarn("--write-manual", self.work)
        for command in listed:
            page = self.tarn(command, "--help")
            self.assert_good(page)
            self.assertIn(f"Usage: tarn {command}", page.out)
            self.assertRegex(page.out, "Examples:\n  .*tarn ")
            manual = (self.work / f"tarn-{command}.1").read_text()
            for option in re.findall(r"--[a-z-]+", page.out.partition("Options:")[2].partition("Examples:")[0]):
                self.assertIn(option.replace("-", r"\-"), manual)

    def test_pages_of_manual_have_the_date_of_the_release(self):
        newest = re.search(r"(?m)^ -- .*>  \w+, (.*) \d\d:", (ROOT / "debian/changelog").read_text())[1]
        date = time.strftime("%Y-%m-%d", time.strptime(newest, "%d %b %Y"))
        self.tarn("--write-manual", self.work)
        for page in self.work.glob("*.1"):
            self.assertIn(f' 1 "{date}" "tarn ', page.read_text().splitlines()[0])

    def test_each_example_is_understood(self):
        if pathlib.Path("/run/tide/router/zmq.sock").exists():
            self.skipTest("this machine has a fabric")
        here = self.work / "examples"
        (here / "logs").mkdir(parents=True)
        for name in ("photo.jpg", "page.pdf"):
            (here / name).touch()
        script = """
            tarn() { "$TARN" "$@"; echo $? >>statuses; }
            jq() { cat; }
            sudo() { shift 2; "$@"; }
            eval "$EXAMPLE"
        """
        examples = []
        for command in re.findall(r"(?m)^  ([a-z]+)  ", self.tarn("--help").out.partition("Options:")[0]):
            examples += re.findall(r"(?m)^  (\S.*)$", self.tarn(command, "--help").out.partition("Examples:\n")[2])
        self.assertGreater(len(examples), 40)
        for example in examples:
            if example.startswith("tarn demo"):
                continue  # runs until it is stopped
            with self.subTest(example):
                done = subprocess.run(["bash", "-c", script], cwd=here, stdin=subprocess.DEVNULL, capture_output=True,
                                      text=True, timeout=60, env={**self.environment, "TARN": PROGRAMS["tarn"],
                                                                  "EXAMPLE": example, "XDG_RUNTIME_DIR": str(here)})
                statuses = (here / "statuses").read_text().split()
                (here / "statuses").unlink()
                self.assertEqual(len(statuses), 1)
                self.assertIn(statuses[0], ("0", "1", "6"), done.stderr)  # and not 2, the status of wrong arguments

    def test_help_and_version_are_commands_and_options(self):
        self.assert_good(self.tarn("help"), self.tarn("--help").out)
        self.assert_good(self.tarn("HELP", "get"), self.tarn("get", "--help").out)
        self.assert_good(self.tarn("help", "delete"), self.tarn("del", "--help").out)
        self.assert_good(self.tarn("--version"), self.tarn("version").out)

    def test_version_names_what_it_stands_on(self):
        self.assertRegex(self.tarn("version").out, r"^tarn \d+\.\d+\.\d+, with ZeroMQ 4\.\S+ and protobuf ")
        self.assertIn("tarn", json.loads(self.tarn("version", "--json").out))


class Measurements(CommandTest):
    def test_ping_has_an_object_for_scripts(self):
        found = json.loads(self.here("ping", "--json", "-n", "2", "--interval", "1ms", "/status/uptime").out)
        self.assertEqual((found["sent"], found["answered"]), (2, 2))
        self.assertEqual([each["status"] for each in found["replies"]], [200, 200])
        self.assertEqual(found["replies"][0]["pid"], self.fabric.processes["status"].pid)
        self.assertLessEqual(found["least_ms"], found["most_ms"])
        for verb in ("ping", "bench"):
            result = self.tarn(verb, "--json", "-e", "{run}/nobody.sock", "/x")
            object = json.loads(result.out)
            self.assertEqual((result.status, object["exit"], object["endpoint"]), (6, 6, f"ipc://{self.run_dir}/nobody.sock"))
            self.assertIn(object["problem"], result.err)

    def test_an_interrupt_ends_a_request_that_waits(self):
        process = self.fabric.start_service("mute", "status_service")
        process.send_signal(signal.SIGSTOP)
        self.addCleanup(process.send_signal, signal.SIGCONT)
        ping = self.start("ping", "-t", "inf", "-e", "{run}/mute/zmq.sock", "/uptime")
        bench = self.start("bench", "-t", "inf", "-e", "{run}/mute/zmq.sock", "/uptime")
        self.assertTrue(wait_until(lambda: all(blocks_interrupts(each.pid) for each in (ping, bench))))
        for each in (ping, bench):
            each.send_signal(signal.SIGINT)
        self.assertEqual(ping.communicate(timeout=PATIENCE), ("1 sent, 0 answered\n", ""))
        self.assertEqual(ping.returncode, 7)
        self.assertEqual(bench.wait(PATIENCE), 7)

    def test_an_interrupt_ends_a_measurement_and_shows_it(self):
        process = self.fabric.start_service("stalls", "status_service")
        bench = self.start("bench", "-t", "inf", "-n", "1000000000", "-e", "{run}/stalls/zmq.sock", "/uptime")
        self.assertTrue(wait_until(lambda: has_worked(bench.pid)))
        process.send_signal(signal.SIGSTOP)
        self.addCleanup(process.send_signal, signal.SIGCONT)
        bench.send_signal(signal.SIGTERM)
        out, _ = bench.communicate(timeout=PATIENCE)
        self.assertRegex(out, r"^\d+ requests by 1 client in .*, 0 failed\n")
        self.assertEqual(bench.returncode, 0)


if __name__ == "__main__":
    take_programs()
    unittest.main()
