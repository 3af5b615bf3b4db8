#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Where commands go: a person's own fabric, a stranger's, and over a network."""

from support import *

HAS_DEVICE = pathlib.Path("/run/tide/router/zmq.sock").exists()
NOBODY = 65534


@unittest.skipIf(HAS_DEVICE, "this machine has a fabric")
class APersonsOwnFabric(CommandTest):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.home = pathlib.Path(scratch.name)
        self.own = self.home / "tarn"

    def run_in(self, *arguments):
        return self.tarn(*arguments, env={"XDG_RUNTIME_DIR": str(self.home)})

    def start_own(self):
        fabric = start_fabric(self.own)
        self.addCleanup(fabric.stop)
        fabric.start_service("status", "status_service")
        self.own.chmod(0o700)

    def test_is_found(self):
        self.start_own()
        result = self.run_in("-v", "get", "/status/settings/location")
        self.assertEqual(result.out, "workshop")
        self.assertIn(f"using ipc://{self.own}/router/zmq.sock", result.err)
        self.assertIn("/status/uptime", self.run_in("index").out)

    def assert_refused(self, why):
        for arguments in (["get", "/status/uptime"], ["put", "/status/settings/location", "x"], ["watch"],
                          ["publish", "put", "/a", "b"], ["services"], ["who", "/status/uptime"], ["index"]):
            with self.subTest(arguments=arguments):
                self.assert_fails(self.run_in(*arguments), 6, why)
        doctor = self.run_in("doctor")
        self.assertEqual(doctor.status, 1)
        self.assertRegex(doctor.out, "problem  your own fabric.*" + why)

    def test_is_not_trusted_if_others_get_in(self):
        self.start_own()
        self.own.chmod(0o750)
        self.assert_refused("lets other users in; run chmod 700")

    def test_is_not_trusted_behind_a_link(self):
        self.own.symlink_to(self.run_dir)
        self.assert_refused("is a link, which may lead to somebody else's directory")

    @unittest.skipUnless(os.geteuid() == 0, "only root can give a directory away")
    def test_is_not_trusted_if_it_belongs_to_another_user(self):
        self.start_own()
        os.chown(self.own, NOBODY, NOBODY)
        self.assert_refused(f"belongs to user {NOBODY}, not to user 0")


    def test_is_waited_for_with_retries(self):
        late = self.start("get", "-t", "1s", "-r", "20", "/status/settings/location",
                          env=self.environment | {"XDG_RUNTIME_DIR": str(self.home)})
        self.start_own()
        self.assertEqual(late.communicate(timeout=PATIENCE), ("workshop", ""))


class OverANetwork(CommandTest):
    def listen(self):
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", 0))
        return listener

    def test_nobody_is_told_at_once(self):
        port = self.listen().getsockname()[1]
        self.assert_fails(self.tarn("get", "-e", f"tcp://127.0.0.1:{port}", "/x"), 6, "nobody listens")

    def test_who_is_slow_to_connect_to_is_asked_all_the_same(self):
        listener = self.listen()
        listener.listen(0)
        # The system drops the attempts that no place is left for, and makes them again after a second.
        full = [socket.socket() for _ in range(3)]
        for each in full:
            self.addCleanup(each.close)
            each.setblocking(False)
            each.connect_ex(listener.getsockname())
        result = self.tarn("get", "-t", "300ms", "-e", "tcp://127.0.0.1:%d" % listener.getsockname()[1], "/x")
        self.assert_fails(result, 7, "408, nothing answers at tcp://.*; check the address and the network")

    def test_who_listens_and_says_nothing_is_told_from_nobody(self):
        listener = self.listen()
        listener.listen()
        result = self.tarn("get", "-t", "300ms", "-e", "tcp://127.0.0.1:%d" % listener.getsockname()[1], "/x")
        self.assert_fails(result, 7, "408, somebody listens at tcp://.* but doesn't answer in time")


class ADemo(CommandTest):
    def test_ends_with_its_terminal_and_leaves_nothing(self):
        place = self.work / "demo"
        demo = self.start("demo", "--run-dir", place)
        while (line := demo.stdout.readline()) and "Ctrl-C" not in line:
            pass
        demo.send_signal(signal.SIGHUP)
        self.assertEqual(demo.wait(PATIENCE), 0)
        self.assertFalse(place.exists())


class AService(CommandTest):
    def test_that_starts_late_is_waited_for_with_retries(self):
        late = self.start("get", "-t", "1s", "-r", "20", "-e", "{run}/late/zmq.sock", "/settings/location")
        self.assertFalse(late.poll())
        self.fabric.start_service("late", "status_service")
        self.assertEqual(late.communicate(timeout=PATIENCE), ("workshop", ""))
        self.assert_fails(self.tarn("get", "-t", "10ms", "-r", "2", "-e", "{run}/never.sock", "/x"), 6, "no such file")


if __name__ == "__main__":
    take_programs()
    unittest.main()
