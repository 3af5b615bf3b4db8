#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a person sees: the output of `tarn` on a pseudo-terminal."""

from support import *

COLOUR = "\x1b["


class Terminal(CommandTest):
    services = {"status": "status_service", "files": "upload_service", "stream": "streaming_service"}

    def show(self, verb, *arguments, **more):
        return self.on_terminal(verb, "--run-dir", self.run_dir, *arguments, **more)

    def test_json_is_indented_and_coloured(self):
        status, shown = self.show("get", "-H", "Accept: application/json", "/status/memory")
        self.assertEqual(status, 0)
        self.assertRegex(shown, r'^\{\n  \x1b\[36m"total"\x1b\[0m: \x1b\[33m\d+\x1b\[0m,\n  .*\n\}\n$')

    def test_colours_can_be_switched_off(self):
        for more in ({"env": {"NO_COLOR": "1"}}, {"env": {"TERM": "dumb"}}):
            _, shown = self.show("get", "-i", "-H", "Accept: application/json", "/status/memory", **more)
            self.assertNotIn(COLOUR, shown)
        self.assertNotIn(COLOUR, self.show("services", "--no-color")[1])
        self.assertIn(COLOUR, self.show("services")[1])

    def test_a_peer_does_not_control_the_terminal(self):
        self.assert_good(self.here("put", "/status/settings/location", "a\x1b]0;x\x07b\u202ec\nd"))
        self.addCleanup(self.here, "del", "/status/settings/location")
        self.assertEqual(self.show("get", "/status/settings/location"), (0, "a\\x1b]0;x\\x07b\\u{202e}c\nd\n"))

    def test_binary_goes_to_files_only(self):
        self.here("put", "/stream/image", "-", stdin=b"\x00\xff\x1b[31m" * 10)
        status, shown = self.show("get", "/stream/download")
        self.assertEqual(status, 1)
        self.assertEqual(shown, "tarn get: the body is binary (70 B), and a terminal can't show it; "
                                "write it to a file with -o, or into a pipe\n")
        self.assertEqual(self.show("get", "-o", self.work / "blob", "/stream/download"), (0, ""))

    def test_protobuf_of_a_known_type_is_text(self):
        self.assert_good(self.here("publish", "put", "/x", "y"))
        status, shown = self.show("get", "/relay/stats")
        self.assertEqual(status, 0)
        self.assertRegex(shown, r"^stat \{\n  id \{\n    pid: \d+\n")

    def test_a_table_fits_the_terminal(self):
        patterns = {each["pattern"] for each in json.loads(self.here("index", "--json").out)}
        for columns in (40, 120):
            for verb in ("services", "index"):
                _, shown = self.show(verb, columns=columns, env={"NO_COLOR": "1"})
                self.assertLessEqual(max(map(len, shown.splitlines())), columns, shown)
            self.assertLessEqual(patterns, set(shown.split()), shown)

    def test_help_fits_the_terminal(self):
        for columns in (50, 100):
            _, shown = self.on_terminal("get", "--help", columns=columns)
            prose = shown.partition("Examples:")[0]
            self.assertLessEqual(max(map(len, prose.splitlines())), columns, shown)

    def test_a_transfer_that_takes_time_shows_its_progress(self):
        big = self.work / "big"
        with open(big, "wb") as file:
            file.truncate(256 * 1024 * 1024)
        for columns, bar in ((80, r"\[#*\.*\] "), (30, "")):
            status, shown = self.show("put", "/files/drop/x", f"@{big}", columns=columns)
            self.assertEqual(status, 0, shown)
            self.assertRegex(shown, r"\r\x1b\[K" + bar + r"[0-9.]+ MiB of 256.0 MiB  ")
            self.assertRegex(shown, r"\r\x1b\[K268435456 bytes, MD5 \S+\n$")
            for line in shown.split("\r\x1b[K"):
                self.assertLess(len(line.partition("\n")[0]), max(columns, 60))

    def test_errors_are_one_sentence(self):
        status, shown = self.show("get", "/status/\x1b[31mred")
        self.assertEqual(status, 4)
        self.assertIn(r"\x1b[31mred", shown)
        self.assertNotIn("\x1b", shown)


if __name__ == "__main__":
    take_programs()
    unittest.main()
