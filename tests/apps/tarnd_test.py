# SPDX-License-Identifier: Apache-2.0
"""tarnd as it is used: real processes, each test with a run-time directory of its own.

    tarnd_test.py [CLASS...]      the programs are named by the environment, as CMakeLists.txt sets it
"""

import grp
import json
import os
import re
import select
import signal
import socket
import stat
import subprocess
import tempfile
import time
import unittest

TARND = os.environ["TARND"]
COMMAND = os.environ["TARN"]
STATUS_SERVICE = os.environ["STATUS_SERVICE"]
PUBLISHER = os.environ["CHANGES_PUBLISHER"]
SUBSCRIBER = os.environ["CHANGES_SUBSCRIBER"]

# Sanitizers and a busy machine make processes slow; nothing waits this long if all is well.
PATIENCE = 30.0
NOBODY = 65534
IS_ROOT = os.geteuid() == 0
AS_NOBODY = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--"]


def can_start_as_nobody():
    return subprocess.run([*AS_NOBODY, TARND, "--version"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode == 0


class TarndTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        os.chmod(self.folder, 0o755)
        self.run_dir = os.path.join(self.folder, "run")
        os.mkdir(self.run_dir)
        self.router = f"ipc://{self.run_dir}/router/zmq.sock"

    def spawn(self, *command, env=None, **options):
        environment = {key: value for key, value in os.environ.items()
                       if key not in ("NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "XDG_RUNTIME_DIR")}
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env=environment | (env or {}), **options)
        self.addCleanup(self.dispose, process)
        return process

    @staticmethod
    def dispose(process):
        if process.poll() is None:
            process.kill()
        process.wait()
        process.stdout.close()
        process.stderr.close()

    def read_line(self, process):
        readable, _, _ = select.select([process.stdout], [], [], PATIENCE)
        self.assertTrue(readable, "it says nothing")
        line = process.stdout.readline().decode().rstrip("\n")
        if not line:
            self.fail(f"it ended with {process.wait()}: {process.stderr.read().decode()}")
        return line

    def start(self, *options, prefix=(), **more):
        process = self.spawn(*prefix, TARND, "--run-dir", self.run_dir, *options, **more)
        self.assertEqual(self.read_line(process), f"tarnd: serving in {self.run_dir}")
        return process

    def end(self, process, patience=5.0):
        """It ends well at SIGTERM, and in time."""
        process.terminate()
        begin = time.monotonic()
        self.assertEqual(process.wait(PATIENCE), 0, process.stderr.read().decode() if process.poll() else "")
        self.assertLess(time.monotonic() - begin, patience)

    def refuse(self, status, pattern, *options, prefix=(), env=None):
        """It ends at once, and its last line of errors is one sentence."""
        begin = time.monotonic()
        process = self.spawn(*prefix, TARND, *options, env=env)
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertLess(time.monotonic() - begin, 3)
        self.assertEqual(output, b"")
        self.assertEqual(process.returncode, status, errors)
        self.assertRegex(errors.decode(), r"\Atarnd: " + pattern + r"\n\Z")

    def ask(self, path, endpoint=None, options=()):
        """What a request gives: the body of a good reply, or else the status and its text."""
        result = subprocess.run([COMMAND, "get", *options, "-e", endpoint or self.router, path], capture_output=True,
                                timeout=PATIENCE, check=False)
        return result.stdout.decode() if result.returncode == 0 else result.stderr.decode().splitlines()[-1]

    def serve(self, name):
        os.makedirs(os.path.join(self.run_dir, name), exist_ok=True)
        process = self.spawn(STATUS_SERVICE, os.path.join(self.run_dir, name, "zmq.sock"))
        self.read_line(process)
        return process

    def listen(self, name):
        """A service that takes connections and says nothing."""
        os.makedirs(os.path.join(self.run_dir, name), exist_ok=True)
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(listener.close)
        listener.bind(os.path.join(self.run_dir, name, "zmq.sock"))
        listener.listen(100)
        listener.settimeout(PATIENCE)
        return listener

    def ask_in_background(self, path, seconds=60):
        return self.spawn(COMMAND, "get", "-t", f"{seconds}s", "-e", self.router, path)


class Serving(TarndTest):
    def test_answers_for_itself_and_passes_requests_on(self):
        daemon = self.start()
        self.serve("machine")
        self.assertEqual(self.ask("/machine/settings/location"), "workshop")
        self.assertIn('"/services"', self.ask("/index?format=text"))
        self.assertNotIn('""', self.ask("/index?format=text"))
        with open(f"/proc/{daemon.pid}/limits", encoding="ascii") as limits:
            soft, hard = re.search(r"Max open files\s+(\d+)\s+(\d+)", limits.read()).groups()
        self.assertEqual(soft, hard)
        self.end(daemon)

    def test_passes_changes_on_and_has_the_statistics_that_publishers_ask_for(self):
        for asked in ("router", "relay"):
            with self.subTest(asked):
                daemon = self.start()
                subscriber = self.spawn(SUBSCRIBER, f"ipc://{self.run_dir}/relay/out.sock", "4")
                publisher = self.spawn(PUBLISHER, f"ipc://{self.run_dir}/{asked}/zmq.sock",
                                       f"ipc://{self.run_dir}/relay/in.sock", "60")
                self.assertIn("publishing", self.read_line(publisher))
                self.assertEqual(subscriber.wait(PATIENCE), 0)
                self.assertIn("total_packets", self.ask("/relay/stats?format=text"))
                publisher.kill()
                publisher.wait()
                self.end(daemon)

    def test_answers_at_further_endpoints(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        more = f"ipc://{self.folder}/more.sock"
        daemon = self.start("--endpoint", f"tcp://127.0.0.1:{port}", "-e", more)
        for endpoint in (self.router, f"tcp://127.0.0.1:{port}", more):
            self.assertIn("/services", self.ask("/index?format=text", endpoint))
        self.refuse(1, rf"tcp://127.0.0.1:{port} is served already; .*", "--make-run-dir", "--run-dir",
                    self.folder + "/other", "--endpoint", f"tcp://127.0.0.1:{port}")
        self.end(daemon)

    def test_can_be_one_half_only(self):
        router = self.start("--no-relay")
        self.assertFalse(os.path.exists(self.run_dir + "/relay"))
        relay = self.start("--no-router")
        self.assertIn("/relay/stats", self.ask("/relay/index?format=text"))
        self.end(router)
        self.assertIn("/relay/stats", self.ask("/index?format=text", f"ipc://{self.run_dir}/relay/zmq.sock"))
        self.end(relay)

    def test_gives_its_sockets_the_mode_and_the_group_that_it_is_told(self):
        def sockets():
            for name in ("router/zmq.sock", "relay/zmq.sock", "relay/in.sock", "relay/out.sock"):
                yield os.stat(os.path.join(self.run_dir, name))

        daemon = self.start()
        self.assertEqual({stat.S_IMODE(found.st_mode) for found in sockets()}, {0o775})
        self.end(daemon)
        group = grp.getgrgid(os.getgroups()[-1] if os.getgroups() else os.getgid()).gr_name
        if IS_ROOT:
            group = "daemon"
        daemon = self.start("--mode", "0760", "--group", group)
        self.assertEqual({stat.S_IMODE(found.st_mode) for found in sockets()}, {0o760})
        self.assertEqual({found.st_gid for found in sockets()}, {grp.getgrnam(group).gr_gid})
        self.end(daemon)

    def test_says_once_for_each_socket_that_it_cannot_have_the_group(self):
        daemon = self.start("--group", grp.getgrgid(os.getgid()).gr_name)
        self.end(daemon)
        self.assertNotIn(b"group", daemon.stderr.read())
        daemon = self.start()
        self.end(daemon)
        lines = daemon.stderr.read().decode().splitlines()
        said = [line for line in lines if "failed to set group" in line or "the sockets keep the group" in line]
        self.assertLessEqual(len(said), 4, lines)
        self.assertEqual(len(set(said)), len(said), lines)
        try:
            grp.getgrnam("corvane")
        except KeyError:
            self.assertEqual(len(said), 1, lines)
            self.assertIn('there is no group "corvane"', said[0])

    def test_bears_that_its_standard_streams_are_closed(self):
        daemon = self.spawn("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", TARND, "--run-dir", self.run_dir, "--log-level",
                            "debug")
        end = time.monotonic() + PATIENCE
        while not self.ask("/services").startswith("relay") and time.monotonic() < end:
            self.assertIsNone(daemon.poll())
        self.assertTrue(self.ask("/services").startswith("relay"))
        for number in range(3):
            self.assertEqual(os.readlink(f"/proc/{daemon.pid}/fd/{number}"), "/dev/null")
        self.end(daemon)

    def test_comes_back_after_it_was_killed(self):
        daemon = self.start()
        daemon.kill()
        daemon.wait()
        self.end(self.start())

    def test_logs_what_the_level_lets_through(self):
        daemon = self.start("--log-level", "error")
        self.end(daemon)
        self.assertEqual(daemon.stderr.read(), b"")
        daemon = self.start("--log-level", "debug")
        self.end(daemon)
        self.assertIn(b"debug", daemon.stderr.read())


class ItsManual(TarndTest):
    def test_says_what_its_help_says(self):
        shown = subprocess.run([TARND, "--help"], capture_output=True, text=True, timeout=PATIENCE, check=True).stdout
        manual = subprocess.run([TARND, "--write-manual"], capture_output=True, text=True, timeout=PATIENCE,
                                check=True).stdout
        self.assertLessEqual(max(map(len, shown.splitlines())), 80, shown)
        self.assertTrue(manual.startswith(".TH TARND 8 "), manual)
        options = re.findall(r"(?m)^  .*?(--[a-z-]+)", shown.partition("Options:")[2].partition("Examples:")[0])
        self.assertGreaterEqual(len(options), 14)
        for word in (*options, "--make-run-dir", "tarnd --no-relay", "wrong arguments"):
            self.assertIn(word, shown)
            self.assertIn(word.replace("-", r"\-"), manual)


class Refusals(TarndTest):
    def test_of_wrong_arguments(self):
        for pattern, *options in (
                (r'--mode: "9" is not a mode; .*', "--mode", "9"),
                (r'--mode: "1777" is not a mode; .*', "--mode", "1777"),
                (r'--endpoint: "nonsense" is not an endpoint; .*', "-e", "nonsense"),
                (r'--endpoint: "tcp://127.0.0.1" has no port number; .*', "-e", "tcp://127.0.0.1"),
                (r'--endpoint: "tcp://127.0.0.1:\*" has no port number; .*', "-e", "tcp://127.0.0.1:*"),
                (r'--endpoint: "inproc://x" has neither the scheme ipc nor tcp; .*', "-e", "inproc://x"),
                (r'--endpoint: "ipc://x" has a relative path; .*', "-e", "ipc://x"),
                (r'--endpoint: "ipc:///x*" is too long: .*107.*', "-e", "ipc:///" + "x" * 200),
                (r'"/x*" is too long: .*107.*', "--run-dir", "/" + "x" * 200),
                (r"--no-router and --no-relay together leave nothing to serve; .*", "--no-router", "--no-relay"),
                (r"--endpoint is for the router; .*", "--no-router", "-e", "tcp://127.0.0.1:5555"),
                (r'"ipc:///x/../y.sock" is served anyway; drop this --endpoint; .*', "-e", "ipc:///y.sock", "-e",
                 "ipc:///x/../y.sock"),
                (r'"tcp://127.0.0.1:5" is served anyway; .*', "-e", "tcp://127.0.0.1:5", "-e", "tcp://127.0.0.1:5"),
                (r'"ipc:///r/router/zmq.sock" is served anyway; .*', "--run-dir", "/r", "-e",
                 "ipc:///r/router/zmq.sock"),
                (r'"ipc:///r/relay/in.sock" is served anyway; .*', "--run-dir", "/r", "-e", "ipc:///r/relay/in.sock"),
                (r"--run-dir: it is empty; .*", "--run-dir", ""),
                (r'--high-water-mark: "0" is not a whole number from 1 to 2147483647; .*', "--high-water-mark", "0"),
                (r'--max-frame-bytes: "x" is not a whole number .*', "--max-frame-bytes", "x"),
                (r'--max-transfer-bytes: "-1" is not a whole number .*', "--max-transfer-bytes=-1"),
                (r'--log-level: "loud" is none of extreme, .*', "--log-level", "loud"),
                (r'--log-sink: "printer" is none of stderr, journal; .*', "--log-sink", "printer"),
                (r".*--nonsense.*", "--nonsense"),
                (r".*expected: here; .*", "here")):
            with self.subTest(options):
                self.refuse(2, pattern, *options)

    def test_of_an_endpoint_that_is_taken(self):
        daemon = self.start()
        by = f"is served already, by process {daemon.pid}[,;] .*"
        self.refuse(1, rf"{self.router} {by}", "--run-dir", self.run_dir)
        self.refuse(1, rf"{self.router} {by}", "--run-dir", self.run_dir, "--no-relay")
        self.refuse(1, rf"ipc://{self.run_dir}/relay/zmq.sock {by}", "--run-dir", self.run_dir, "--no-router")
        self.refuse(1, rf"{self.router} {by}", "--make-run-dir", "--run-dir", self.folder + "/other", "-e", self.router)
        self.assertIn("/services", self.ask("/index?format=text"))
        self.end(daemon)

        stranger = self.listen("router2")
        os.rename(self.run_dir + "/router2/zmq.sock", self.run_dir + "/relay/in.sock")
        self.refuse(1, rf"ipc://{self.run_dir}/relay/in.sock is served already, by process "
                       rf"{os.getpid()}, which is .*, since 20.*; .*",
                    "--run-dir", self.run_dir)
        stranger.close()

    def test_of_all_but_one_that_start_in_the_same_moment(self):
        for _ in range(5):
            daemons = [self.spawn(TARND, "--run-dir", self.run_dir, "--log-level", "error") for _ in range(4)]
            end = time.monotonic() + PATIENCE
            while sum(daemon.poll() is None for daemon in daemons) > 1 and time.monotonic() < end:
                select.select([], [], [], 0.01)
            serving = [daemon for daemon in daemons if daemon.poll() is None]
            self.assertEqual(len(serving), 1)
            self.read_line(serving[0])
            for daemon in daemons:
                if daemon is not serving[0]:
                    self.assertEqual(daemon.returncode, 1)
                    self.assertRegex(daemon.stderr.read().decode(),
                                     rf"\Atarnd: {self.router} is served already, by process {serving[0].pid}; .*\n\Z")
            self.end(serving[0])

    def test_of_a_directory_that_is_missing_unless_it_shall_make_it(self):
        missing = self.folder + "/missing"
        self.refuse(1, rf"{missing} is missing; .*--make-run-dir", "--run-dir", missing)
        self.refuse(1, rf"{missing}/deep can't be made: No such file or directory", "--make-run-dir", "--run-dir",
                    missing + "/deep")
        self.refuse(1, r"/dev/null is not a directory; .*", "--run-dir", "/dev/null")
        self.run_dir = missing
        self.end(self.start("--make-run-dir"))
        self.assertEqual(stat.S_IMODE(os.stat(missing).st_mode), 0o3775 if IS_ROOT else 0o700)

    def test_of_what_it_cannot_bind(self):
        self.refuse(1, r"cannot serve at tcp://192.0.2.1:5999: .*; .*", "--run-dir", self.run_dir, "--log-level", "error",
                    "-e", "tcp://192.0.2.1:5999")
        self.refuse(1, rf"cannot serve at ipc://{self.folder}/none/x.sock: {self.folder}/none: No such file or directory; .*",
                    "--run-dir", self.run_dir, "-e", f"ipc://{self.folder}/none/x.sock")
        self.refuse(1, r'cannot give the sockets to the group "nonesuch": there is no such group; .*', "--run-dir",
                    self.run_dir, "--group", "nonesuch")

    def test_of_a_path_that_holds_something_else(self):
        kept = os.path.join(self.folder, "kept")
        with open(kept, "w", encoding="ascii") as file:
            file.write("data")
        self.refuse(1, rf"something that is no socket is at ipc://{kept}, and serving there would replace it; .*",
                    "--run-dir", self.run_dir, "-e", f"ipc://{kept}")
        with open(kept, encoding="ascii") as file:
            self.assertEqual(file.read(), "data")

    def test_of_a_link_in_place_of_its_own_directory(self):
        os.symlink(self.folder, self.run_dir + "/router")
        self.refuse(1, rf"{self.run_dir}/router is not a directory; .*", "--run-dir", self.run_dir)


@unittest.skipUnless(IS_ROOT and can_start_as_nobody(), "another user's programs can't be started here")
class OtherUsers(TarndTest):
    def setUp(self):
        super().setUp()
        self.home = os.path.join(self.folder, "home")
        os.mkdir(self.home, 0o700)
        os.chown(self.home, NOBODY, NOBODY)
        self.env = {"XDG_RUNTIME_DIR": self.home}

    def test_get_a_fabric_of_their_own_without_options(self):
        own = self.home + "/tarn"
        self.refuse(1, rf"{own} is missing; .*--make-run-dir", prefix=AS_NOBODY, env=self.env)
        daemon = self.spawn(*AS_NOBODY, TARND, "--make-run-dir", env=self.env)
        self.assertEqual(self.read_line(daemon), f"tarnd: serving in {own}")
        found = os.stat(own)
        self.assertEqual((stat.S_IMODE(found.st_mode), found.st_uid), (0o700, NOBODY))
        self.assertEqual(stat.S_IMODE(os.stat(own + "/router/zmq.sock").st_mode), 0o700)
        self.assertIn("/services", self.ask("/index?format=text", f"ipc://{own}/router/zmq.sock"))
        self.end(daemon)

    def test_are_refused_a_directory_that_is_not_theirs_alone(self):
        own = self.home + "/tarn"
        os.mkdir(own, 0o700)
        self.refuse(1, rf"{own} belongs to user 0, not to user {NOBODY}; .*", prefix=AS_NOBODY, env=self.env)
        os.chown(own, NOBODY, NOBODY)
        os.chmod(own, 0o755)
        self.refuse(1, rf"{own} lets other users in; run chmod 700 {own}", "--make-run-dir", prefix=AS_NOBODY,
                    env=self.env)
        os.rmdir(own)
        os.symlink(self.run_dir, own)
        self.refuse(1, rf"{own} is a link, .*", "--make-run-dir", prefix=AS_NOBODY, env=self.env)
        os.remove(own)
        with open(own, "w", encoding="ascii"):
            pass
        self.refuse(1, rf"{own} is not a directory; .*", prefix=AS_NOBODY, env=self.env)

    def test_are_told_what_they_may_not_do(self):
        self.refuse(1, rf"{self.run_dir}/router can't be made: Permission denied", "--run-dir", self.run_dir,
                    prefix=AS_NOBODY)
        daemon = self.start("--mode", "0700")
        self.refuse(1, rf"{self.run_dir}/router doesn't let tarnd make sockets: Permission denied", "--run-dir",
                    self.run_dir, prefix=AS_NOBODY)
        self.refuse(1, rf"cannot look whether somebody serves at {self.router}: permission denied; .*",
                    "--run-dir", self.home, "-e", self.router, prefix=AS_NOBODY)
        self.end(daemon)
        os.chown(self.home + "/router", 2, 2)
        self.refuse(1, rf"{self.home}/router belongs to user 2; .*", "--run-dir", self.home, prefix=AS_NOBODY)


@unittest.skipUnless(IS_ROOT and subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL,
                                                check=False).returncode == 0, "no mount namespace can be made here")
class TheDevice(TarndTest):
    def test_is_what_root_serves_without_options(self):
        daemon = self.spawn("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /run && exec "$@"', "sh", TARND,
                            "--make-run-dir")
        self.assertEqual(self.read_line(daemon), "tarnd: serving in /run/tide")
        self.assertEqual(stat.S_IMODE(os.stat(f"/proc/{daemon.pid}/root/run/tide").st_mode), 0o3775)
        self.end(daemon)


    def test_is_looked_at_by_the_doctor(self):
        daemon = self.spawn("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /run && exec "$@"', "sh", TARND,
                            "--make-run-dir")
        self.read_line(daemon)
        device = f"/proc/{daemon.pid}/root/run/tide"

        def findings():
            shown = subprocess.run(["nsenter", f"--target={daemon.pid}", "--mount", COMMAND, "doctor"],
                                   capture_output=True, text=True, timeout=PATIENCE, check=False)
            return shown.stdout

        self.assertNotIn("there is no router", findings())
        os.chown(device, 0, 0)
        self.assertRegex(findings(), r"problem  (there is no group corvane|/run/tide belongs to the group root), so only "
                                     r"root can use the fabric\n +remedy: (make it|give it)")
        os.chown(device, 0, 4711)
        self.assertIn("0775 root:", findings())
        self.assertIn("so the members of the directory's group 4711 may not connect\n", findings())
        os.chmod(device, 0o3705)
        self.assertIn("problem  /run/tide isn't open to its group", findings())
        self.end(daemon)

    def test_and_a_persons_own_fabric_are_told_apart(self):
        daemon = self.spawn("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /run && exec "$@"', "sh", TARND,
                            "--make-run-dir", "--no-router")
        self.read_line(daemon)
        own = os.path.join(self.folder, "tarn")
        self.read_line(self.spawn(TARND, "--run-dir", own, "--make-run-dir", env={"XDG_RUNTIME_DIR": self.folder}))
        self.assertEqual(stat.S_IMODE(os.stat(own).st_mode), 0o700)
        shown = subprocess.run(["nsenter", f"--target={daemon.pid}", "--mount", COMMAND, "doctor"], capture_output=True,
                               text=True, timeout=PATIENCE, check=False, env=os.environ | {"XDG_RUNTIME_DIR": self.folder})
        self.assertIn("ok       there is no router, so no request reaches a service by its path\n", shown.stdout)
        self.assertIn("problem  requests go to your own fabric, and changes to the device's\n", shown.stdout)

    def start_with_journal(self, preparation):
        """With devices of its own: those of the machine, and a log as the shell commands make it."""
        devices = ('cd "$1" && mkdir machine && mount --rbind /dev machine && mount -t tmpfs none /dev && '
                   f'for each in machine/*; do ln -s "$1/$each" /dev/; done && rm -f /dev/log && {preparation} && '
                   'exec "$2" --run-dir "$3" --log-sink journal --log-level debug')
        return self.spawn("unshare", "--mount", "sh", "-c", devices, "sh", self.folder, TARND, self.run_dir)

    def test_has_a_journal_that_takes_its_log(self):
        journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(journal.close)
        journal.bind(os.path.join(self.folder, "journal"))
        journal.settimeout(PATIENCE)
        daemon = self.start_with_journal('ln -s "$1/journal" /dev/log')
        self.assertEqual(self.read_line(daemon), f"tarnd: serving in {self.run_dir}")
        # facility "user" (1), severity "debug" (7)
        self.assertRegex(journal.recv(65536).decode(), rf"\A<{1 * 8 + 7}>.* tarnd\[{daemon.pid}\]: bind ")
        self.end(daemon)
        self.assertEqual(daemon.stderr.read(), b"")

    def test_need_not_have_a_journal(self):
        daemon = self.start_with_journal("true")
        output, errors = daemon.communicate(timeout=PATIENCE)
        self.assertEqual((daemon.returncode, output), (1, b""))
        self.assertEqual(errors.decode(), "tarnd: no journal takes log lines here, as /dev/log is missing; use "
                                          "--log-sink stderr\n")


class Ending(TarndTest):
    def test_does_not_wait_for_a_service_that_does_not_answer(self):
        daemon = self.start()
        mute = self.listen("mute")
        asking = [self.ask_in_background("/mute/x") for _ in range(5)]
        for _ in range(3):  # as many as go on at a time
            connection, _ = mute.accept()
            self.addCleanup(connection.close)
        self.end(daemon)
        for process in asking:
            process.kill()

    def test_takes_no_longer_under_load(self):
        daemon = self.start()
        self.serve("machine")
        for _ in range(3):
            publisher = self.spawn(PUBLISHER, f"ipc://{self.run_dir}/relay/zmq.sock",
                                   f"ipc://{self.run_dir}/relay/in.sock", "60")
            self.read_line(publisher)
            self.spawn(SUBSCRIBER, f"ipc://{self.run_dir}/relay/out.sock", "100000")
            self.spawn(COMMAND, "bench", "-e", self.router, "-c", "2", "-n", "100000000", "/machine/uptime")
        self.assertIn("total_packets", self.ask("/relay/stats?format=text"))
        self.end(daemon)

    def test_leaves_no_sockets(self):
        further = os.path.join(self.folder, "further.sock")
        daemon = self.start("-e", f"ipc://{further}")
        self.assertTrue(stat.S_ISSOCK(os.stat(further).st_mode))
        self.end(daemon)
        left = {name for _, _, names in os.walk(self.folder) for name in names}
        self.assertEqual(left, {"tarnd.lock"})

    def test_leaves_the_sockets_of_others(self):
        daemon = self.start()
        path = self.run_dir + "/router/zmq.sock"
        os.unlink(path)
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(path)
            self.end(daemon)
        self.assertTrue(stat.S_ISSOCK(os.stat(path).st_mode))

    def test_comes_at_an_interrupt_too(self):
        daemon = self.start()
        daemon.send_signal(signal.SIGINT)
        self.assertEqual(daemon.wait(5), 0)


class AServiceManager(TarndTest):
    def listen_for_states(self, name):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(listener.close)
        listener.bind("\0" + name[1:] if name.startswith("@") else name)
        listener.settimeout(PATIENCE)
        return listener

    def test_hears_of_the_start_and_the_end(self):
        for name in (self.folder + "/notify", f"@tarnd-test-{os.getpid()}-{time.monotonic_ns()}"):
            with self.subTest(name):
                states = self.listen_for_states(name)
                daemon = self.start(env={"NOTIFY_SOCKET": name})
                self.assertEqual(states.recv(1000), b"READY=1")
                self.assertIn("/services", self.ask("/index?format=text"))
                self.end(daemon)
                self.assertEqual(states.recv(1000), b"STOPPING=1")
                states.settimeout(0.1)
                self.assertRaises(TimeoutError, states.recv, 1000)

    def test_hears_nothing_of_a_daemon_that_can_not_start(self):
        name = self.folder + "/notify"
        states = self.listen_for_states(name)
        self.refuse(1, ".*is missing.*", "--run-dir", self.folder + "/none", env={"NOTIFY_SOCKET": name})
        states.settimeout(0.1)
        self.assertRaises(TimeoutError, states.recv, 1000)

    def test_hears_that_it_is_alive_only_while_it_answers(self):
        name = self.folder + "/notify"
        states = self.listen_for_states(name)
        daemon = self.start(env={"NOTIFY_SOCKET": name, "WATCHDOG_USEC": "1000000"})
        begin = time.monotonic()
        self.assertCountEqual({states.recv(1000), states.recv(1000)}, {b"READY=1", b"WATCHDOG=1"})
        for _ in range(3):
            self.assertEqual(states.recv(1000), b"WATCHDOG=1")
        self.assertGreater(time.monotonic() - begin, 1.2)

        mute = self.listen("mute")
        asking = [self.ask_in_background("/mute/x", 5) for _ in range(3)]
        for _ in range(3):  # every thread of the router waits
            connection, _ = mute.accept()
            self.addCleanup(connection.close)
        states.settimeout(1.2)
        with self.assertRaises(TimeoutError):
            for _ in range(3):  # those that were under way
                states.recv(1000)
        for process in asking:
            process.kill()
        states.settimeout(PATIENCE)
        self.assertEqual(states.recv(1000), b"WATCHDOG=1")
        self.end(daemon)

    def test_has_no_watchdog_for_another_process(self):
        name = self.folder + "/notify"
        states = self.listen_for_states(name)
        daemon = self.start(env={"NOTIFY_SOCKET": name, "WATCHDOG_USEC": "100000", "WATCHDOG_PID": "1"})
        self.assertEqual(states.recv(1000), b"READY=1")
        states.settimeout(0.3)
        self.assertRaises(TimeoutError, states.recv, 1000)
        self.end(daemon)

    def test_may_be_gone(self):
        daemon = self.start(env={"NOTIFY_SOCKET": self.folder + "/nobody"})
        self.end(daemon)
        self.assertIn(f"cannot notify the service manager at {self.folder}/nobody: No such file", daemon.stderr.read().decode())


class TheListOfServices(TarndTest):
    def fill(self):
        service = self.serve("clock")
        self.serve("many/2")
        self.listen("mute")
        self.listen("dead").close()
        self.listen("forbidden")
        os.chmod(self.run_dir + "/forbidden/zmq.sock", 0)
        os.mkdir(self.run_dir + "/empty")
        return service

    def start_unprivileged(self):
        """Root may connect to everything."""
        if not IS_ROOT:
            return self.start()
        os.chmod(self.run_dir, 0o777)
        if not can_start_as_nobody():
            self.skipTest("another user's programs can't be started here")
        return self.start(prefix=AS_NOBODY)

    def test_tells_who_answers_and_why_not(self):
        daemon = self.start_unprivileged()
        service = self.fill()
        for name in ("clock", "dead", "many/2", "mute"):
            os.chmod(f"{self.run_dir}/{name}/zmq.sock", 0o777)

        listed = json.loads(self.ask("/services?format=json"))["services"]

        self.assertEqual([entry["name"] for entry in listed],
                         ["clock", "dead", "empty", "forbidden", "many/2", "mute", "relay", "router"])
        by_name = {entry["name"]: entry for entry in listed}
        self.assertEqual({name: entry["why"] for name, entry in by_name.items() if not entry["answers"]},
                         {"dead": "nobody listens", "empty": "no such file", "forbidden": "permission denied",
                          "mute": "no answer within 500ms"})
        clock = by_name["clock"]
        self.assertEqual(clock["socket"], f"{self.run_dir}/clock/zmq.sock")
        self.assertEqual(clock["pid"], service.pid)
        self.assertIn({"access": "public", "methods": ["head", "get"], "patterns": ["/index"]}, clock["routes"])
        self.assertEqual([route["patterns"] for route in by_name["router"]["routes"]], [["/index"], ["/services"]])
        self.assertEqual(by_name["router"]["pid"], daemon.pid)

        text = self.ask("/services")
        self.assertIn(f"clock  {self.run_dir}/clock/zmq.sock  answers, process {service.pid}\n", text)
        self.assertIn('\n    HEAD,GET "/uptime"\n', text)
        self.assertIn(f"\ndead  {self.run_dir}/dead/zmq.sock  does not answer: nobody listens\n", text)
        self.end(daemon)

    def test_takes_no_longer_for_many_that_are_mute(self):
        daemon = self.start()
        for number in range(120):
            self.listen(f"mute{number:03}")
        begin = time.monotonic()
        listed = json.loads(self.ask("/services?format=json"))["services"]
        self.assertLess(time.monotonic() - begin, 4)
        self.assertEqual(len(listed), 122)
        self.end(daemon)

    def test_is_what_an_unknown_path_names(self):
        daemon = self.start("--no-relay")
        services = 'the services are clock and router; get "/services" for more'
        os.mkdir(self.run_dir + "/clock")
        for path, text in (("/clok/time", 'there is no service "clok", but perhaps you mean "/clock"; ' + services),
                           ("/lcock", 'there is no service "lcock", but perhaps you mean "/clock"; ' + services),
                           ("/indx", 'there is no service "indx", but perhaps you mean "/index"; ' + services),
                           ("/weather/x", 'there is no service "weather"; ' + services),
                           ("/", "the path names no service; " + services),
                           ("/services/x", "the router has no such path; " + services),
                           ("/router/x", "the router has no such path; " + services)):
            self.assertEqual(self.ask(path), f"tarn get: {path}: 404 NotFound, {text}")
        for number in range(30):
            os.mkdir(f"{self.run_dir}/s{number:02}")
        self.assertRegex(self.ask("/weather"), "the services are clock, router, s00, .*, s17 and 12 more; ")
        self.end(daemon)


if __name__ == "__main__":
    unittest.main()
