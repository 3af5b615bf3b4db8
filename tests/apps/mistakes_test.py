#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Forty mistakes, and the sentence that each gets: what was wrong, and what to do next."""

from support import *

LONG = "x" * 120

# Arguments ("{run}" is a run-time directory with the service "status"), exit status, and a pattern of the sentence.
MISTAKES = [
    (["get", "-e", "{run}/status", "/uptime"], 6, "it is a directory; perhaps you mean the socket in it, zmq.sock"),
    # The command line
    (["gte", "/x"], 2, r"no command 'gte'; did you mean 'get'\?"),
    (["frobnicate"], 2, "no command 'frobnicate'; `tarn --help` lists them"),
    (["get"], 2, "PATH is required; see `tarn get --help`"),
    (["get", ""], 2, "the path is empty; write one such as /clock/time"),
    (["get", "--run-dir", "{run}", "/a", "/b"], 2, "no place for '/b'; see `tarn get --help`"),
    (["get", " "], 2, "the path is empty; write one such as /clock/time"),
    (["get", "-r", "99999999999", "/x"], 2, "it takes a whole number up to 4294967295, and not '99999999999'"),
    (["-t5", "get", "/x"], 2, "'-t' goes behind the command, as in `tarn get -t`"),
    (["get", "--timeot", "3s", "/a"], 2, "no option '--timeot'; did you mean '--timeout'\\?"),
    (["get", "-x", "/a"], 2, "no option '-x'; see `tarn get --help`"),
    (["put", "-x", "/a"], 2, "no option '-x'; a body that begins with '-' goes behind '--'"),
    (["doctor", "--frob", "x"], 2, "no option '--frob'; see `tarn doctor --help`"),
    (["--json", "get", "/a"], 2, "'--json' goes behind the command, as in `tarn get --json`"),
    (["-v", "gte", "/x"], 2, r"no command 'gte'; did you mean 'get'\?"),
    (["help", "gte"], 2, r"no command 'gte'; did you mean 'get'\?"),
    (["get", "/a", "-t"], 2, "--timeout.*; see `tarn get --help`"),
    (["get", "/a", "-t", "soon"], 2, "-t takes a time such as 500ms, 2s or 1min, and not 'soon'"),
    (["get", "/a", "-t", "-1s"], 2, "-t takes a time .* and not '-1s'"),
    (["get", "/a", "-r", "x"], 2, "--retries: it takes a whole number, and not 'x'; see"),
    (["get", "/a", "-H", "accept"], 2, "'accept' is not a header; write it as 'Key: value'"),
    (["get", "/a", "-H", ": x"], 2, "': x' is not a header"),
    (["get", "/a", "-e", "x", "--run-dir", "y"], 2, "excludes"),
    (["head", "/a", "-o", "x"], 2, "no option '-o'; see `tarn head --help`"),
    # Paths
    (["get", "/a@b"], 2, "'/a@b' is not a path: behind the '@' are the ids of processes, and 'b' is none; write one such as"),
    (["get", "/a@1,b"], 2, "'/a@1,b' is not a path: .* and 'b' is none"),
    (["get", "?"], 2, r"'\?' is not a path: nothing stands before the '\?'; write one such as"),
    (["put", "@1", "x"], 2, "'@1' is not a path: nothing stands before the '@'"),
    (["who", "/a?"], 2, r"'/a\?' is not a path: nothing follows the '\?'"),
    (["ping", "/clock/@"], 2, "'/clock/@' is not a path: nothing follows the '@'"),
    (["bench", "/clock/@x"], 2, "'/clock/@x' is not a path: .* and 'x' is none"),
    (["publish", "put", "/a?x?y"], 2, r"is not a path: it has more than one '\?'; in a parameter write %3F"),
    (["watch", "/a@1@2"], 2, "is not a path: it has more than one '@'; in a parameter write %40"),
    (["get", "/a?x=b@c"], 2, r"is not a path: an '@' stands before the '\?', .*; in a parameter write %40"),
    (["get", b"/a\xff"], 2, "is not a path: it isn't UTF-8"),
    (["watch", "/a?x"], 2, r"'/a\?x' is not the path of a change, which has neither '@' nor '\?'; write one such as"),
    # Endpoints
    (["get", "/a", "-e", ""], 2, "--endpoint: it is empty; name one such as ipc:///run/x.sock"),
    (["get", "/a", "--run-dir", ""], 2, "--run-dir: it is empty; name one such as /run/tide"),
    (["get", "/a", "-e", "http://x"], 2, '"http://x" has none of the schemes ipc, tcp and inproc; write ipc:///run/x.sock'),
    (["get", "/a", "-e", "tcp://127.0.0.1"], 2, "has no port number; write it behind a colon"),
    (["get", "/a", "-e", "tcp://127.0.0.1:99999"], 2, "which is not a whole number from 1 to 65535"),
    (["get", "/a", "-e", "/" + LONG], 2, "is too long: .* 107 bytes at most, and .*; choose a shorter one"),
    (["get", "/a", "--run-dir", "/" + LONG], 2, "no fabric can be in .* 107 bytes at most; use a shorter directory"),
    (["get", "/a", "-e", "tcp://127.0.0.1:1"], 6, "nobody listens; start its process"),
    (["get", "/a", "-e", "{run}/nobody.sock"], 6, "no such file; start the service"),
    (["get", "/a"], 6, "no router can be reached at .*, nor at .*; start `tarnd( --make-run-dir)?` or `tarn demo`"),
    (["services"], 6, "there is no fabric: neither .*; start `tarnd( --make-run-dir)?` or `tarn demo`"),
    (["services", "--run-dir", "{run}/nowhere"], 6, "cannot look into .*; look at it with `tarn doctor`"),
    # Bodies and files
    (["put", "--run-dir", "{run}", "/a", "@/nowhere"], 1, "cannot read the body from '/nowhere': No such file"),
    (["post", "--run-dir", "{run}", "/a", "@/"], 1, "cannot read the body from '/': Is a directory"),
    (["publish", "put", "--run-dir", "{run}", "/a", "@/nowhere"], 1, "cannot read the body from '/nowhere': No such file"),
    (["get", "--run-dir", "{run}", "-o", "", "/status/uptime"], 2, "--output: it is empty; name one such as photo.jpg"),
    (["get", "--run-dir", "{run}", "-o", "/nowhere/x", "/status/uptime"], 1, "cannot write '/nowhere/x': No such file"),
    (["get", "--run-dir", "{run}", "-o", "/", "/status/uptime"], 1, "cannot write '/': Is a directory"),
    # What services say
    (["get", "--run-dir", "{run}", "/nowhere/x"], 4,
     '/nowhere/x: 404 NotFound, there is no service "nowhere"; the services are relay, router and status; get "/services"'),
    (["get", "--run-dir", "{run}", "/status/nowhere"], 4, "404 NotFound; `tarn who /status/nowhere` shows where it ends"),
    (["get", "--run-dir", "{run}", "/status/load/7"], 4, "404 NotFound, no load average over 7 minutes$"),
    (["post", "--run-dir", "{run}", "/status/uptime", "1"], 4, "405 .*; `tarn who /status/uptime` shows which verbs"),
    # Changes
    (["publish", "get", "/a"], 2, "a change is a put or a del, and not 'get'"),
    (["publish", "del", "/a", "x"], 2, "a del has no body, and 'x' would be lost; write `tarn publish del /alarm`"),
    (["publish", "put", "-e", "{run}/relay/in.sock", "/a"], 2, "-e and --stats belong together"),
    (["publish", "put", "-e", "{run}/relay/in.sock", "--stats", "{run}/status/zmq.sock", "/a"], 4, "/relay/stats: 404"),
    (["watch", "--run-dir", "{run}", "--for", "ever"], 2, "--for takes a time such as 500ms, 2s or 1min"),
    (["watch", "--run-dir", "{run}", "-n", "0"], 2, "-n takes a number of changes from 1, and not 0"),
    (["watch", "--run-dir", "{run}", "-n", "-1"], 2, "--count: it takes a whole number, and not '-1'; see"),
    # The other commands
    (["index", "--run-dir", "{run}", "sttus"], 6, r"no service 'sttus' in .*; did you mean 'status'\?"),
    (["call", "{run}/status/zmq.sock", "many"], 2, "'many' is not the number of a call"),
    (["bench", "--run-dir", "{run}", "-c", "0", "/status/uptime"], 2, "-c takes a number of clients from 1 to 1000"),
    (["ping", "--run-dir", "{run}", "-n", "0", "/status/uptime"], 2, "-n takes a number of requests from 1"),
    (["completion", "fish"], 2, "no completion for 'fish'; there is one for bash and one for zsh"),
]


def documented_symptoms():
    """What docs/operations.md lists as said by the command, and by the library of an endpoint."""
    page = pathlib.Path(__file__).parents[2] / "docs/operations.md"
    sections = re.split(r"(?m)^## ", page.read_text())
    rows = "".join(section for section in sections if section.startswith(("What the command", "What the library says of an")))
    symptoms = []
    for cell in re.findall(r"(?m)^\| (.+?) \|", rows)[1:]:
        symptoms += [re.escape(part.strip()).replace(re.escape("..."), ".*") for part in cell.split(";") if len(part) > 8]
    return symptoms


class Mistakes(CommandTest):
    def test_each_sentence_is_in_the_manual_of_operations(self):
        symptoms = documented_symptoms()
        self.assertGreater(len(symptoms), 50)
        for arguments, _, _ in MISTAKES:
            with self.subTest(arguments=arguments):
                said = self.tarn(*arguments).err
                self.assertTrue(any(re.search(symptom, said) for symptom in symptoms), said)

    def test_each_gets_its_sentence(self):
        self.assertGreaterEqual(len(MISTAKES), 40)
        has_device = pathlib.Path("/run/tide/router/zmq.sock").exists()
        for arguments, status, sentence in MISTAKES:
            if has_device and (sentence.startswith("no router") or sentence.startswith("there is no fabric")):
                continue
            with self.subTest(arguments=arguments):
                self.assert_fails(self.tarn(*arguments), status, f"^tarn[a-z ]*: .*{sentence}")

    def test_a_long_argument_is_cut(self):
        long = "x" * 70_000
        for arguments in (["get", f"/status/{long}"], ["get", f"/{long}"], ["get", f"/{long}?"], ["get", "/a", long],
                          ["put", "/a", "--" + long], [long], ["get", "/a", "-t", long], ["get", "/a", "-r", long],
                          ["get", "/a", "-H", long], ["get", "/a", "-e", f"inproc://{long}"], ["put", "/a", f"@{long}"],
                          ["get", "/status/uptime", "-o", long], ["publish", long, "/a"], ["completion", long]):
            with self.subTest(argument=[word[:20] for word in arguments]):
                has_place = arguments[0] not in ("get", "put") or "-e" in arguments
                result = self.tarn(*arguments) if has_place else self.here(*arguments)
                self.assertNotEqual(result.status, 0)
                self.assertRegex(result.err, r"x{200,256}\.\.\.")
                self.assertLess(len(result.err), 900)

    def test_no_arguments_show_the_usage(self):
        result = self.tarn()
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertTrue(result.err.startswith("Usage: tarn COMMAND"))


if __name__ == "__main__":
    take_programs()
    unittest.main()
