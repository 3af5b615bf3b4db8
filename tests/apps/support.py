# SPDX-License-Identifier: Apache-2.0
"""Real processes for the tests of the command `tarn`: a fabric, services, and the command itself."""

import codecs
import ctypes
import fcntl
import json
import os
import pathlib
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

PATIENCE = 20  # seconds, for what takes milliseconds on an idle machine
PROGRAMS = {}


def take_programs():
    """Takes NAME=FILE out of the arguments of the test."""
    while len(sys.argv) > 1 and "=" in sys.argv[1]:
        name, _, file = sys.argv.pop(1).partition("=")
        PROGRAMS[name] = file


def end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def wait_until(condition):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def blocks_interrupts(pid):
    """Whether a command has come to where it waits for them."""
    blocked = re.search(r"SigBlk:\s*(\w+)", pathlib.Path(f"/proc/{pid}/status").read_text())
    return int(blocked[1], 16) >> (signal.SIGINT - 1) & 1 == 1


def has_worked(pid):
    """Whether a process has used so much time that it is beyond its beginning."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12]) >= os.sysconf("SC_CLK_TCK")


class Fabric:
    """A router and a relay in a run-time directory, and services in it."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.processes = {}

    def start(self, name, *command):
        """Starts a process and waits for the line that it prints when it is ready."""
        process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, text=True, preexec_fn=end_with_parent)
        self.processes[name] = process
        if not process.stdout.readline():
            raise RuntimeError(f"{name} doesn't start")
        return process

    def start_service(self, name, program):
        (self.directory / name).mkdir(exist_ok=True)
        return self.start(name, PROGRAMS[program], self.directory / name / "zmq.sock")

    def stop(self):
        for process in self.processes.values():
            process.send_signal(signal.SIGCONT)
            process.kill()
            process.wait()
            process.stdout.close()
        self.processes = {}


def start_fabric(directory):
    """The router and the relay of a fabric."""
    fabric = Fabric(directory)
    fabric.directory.mkdir(parents=True)
    fabric.start("tarnd", PROGRAMS["tarnd"], "--run-dir", directory)
    return fabric


class OnTerminal:
    """A program on a pseudo-terminal."""

    def __init__(self, command, environment, columns=80):
        self.shown = ""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            end_with_parent()
            os.execvpe(command[0], [str(word) for word in command], environment)
        size = struct.pack("HHHH", 24, columns, 0, 0)
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, size)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.terminal)
        self.wait()

    def type(self, keys):
        os.write(self.terminal, keys.encode())

    def read(self, pattern):
        """Reads until what is shown from now on has the pattern, or the program ends; whether it has."""
        begin = len(self.shown)
        decoder = codecs.getincrementaldecoder("utf-8")("replace")
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            if re.search(pattern, self.shown[begin:]):
                return True
            if not select.select([self.terminal], [], [], 1)[0]:
                continue
            try:
                data = os.read(self.terminal, 65536)
            except OSError:  # the other side is closed
                break
            if not data:
                break
            self.shown += decoder.decode(data)
        return False

    def wait(self):
        """Its exit status."""
        if self.process:
            _, status = os.waitpid(self.process, 0)
            self.process, self.status = 0, os.waitstatus_to_exitcode(status)
        return self.status


class Result:
    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"exit status {self.status}, output {self.out!r}, errors {self.err!r}"


class CommandTest(unittest.TestCase):
    """A fabric for all tests of a class, and a person without one of their own."""

    services = {"status": "status_service"}

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.work = pathlib.Path(cls.scratch.name)
        cls.run_dir = cls.work / "run"
        cls.fabric = start_fabric(cls.run_dir)
        for name, program in cls.services.items():
            cls.fabric.start_service(name, program)
        cls.environment = {"PATH": os.environ["PATH"], "XDG_RUNTIME_DIR": str(cls.work), "TERM": "xterm",
                           "LC_ALL": "C.UTF-8"}
        for key in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            if key in os.environ:
                cls.environment[key] = os.environ[key]

    @classmethod
    def tearDownClass(cls):
        cls.fabric.stop()
        cls.scratch.cleanup()

    def tarn(self, *arguments, stdin=b"", env=None, binary=False):
        """Runs the command; "{run}" in an argument is the run-time directory."""
        words = [word if isinstance(word, bytes) else str(word).replace("{run}", str(self.run_dir)) for word in arguments]
        done = subprocess.run([PROGRAMS["tarn"], *words], input=stdin, capture_output=True, timeout=60,
                              env={**self.environment, **(env or {})})
        out = done.stdout if binary else done.stdout.decode()
        return Result(done.returncode, out, done.stderr.decode())

    def here(self, verb, *arguments, **more):
        """The same, in the fabric of the test."""
        return self.tarn(verb, "--run-dir", self.run_dir, *arguments, **more)

    def assert_good(self, result, out=None):
        self.assertEqual((result.status, result.err), (0, ""), result)
        if out is not None:
            self.assertEqual(result.out, out)

    def assert_fails(self, result, status, sentence):
        """One sentence on standard error, and nothing on standard output."""
        self.assertEqual(result.status, status, result)
        self.assertEqual(result.out, "", result)
        self.assertEqual(result.err.count("\n"), 1, result)
        self.assertRegex(result.err, sentence)

    def start(self, *arguments, **more):
        """Starts the command, which runs until it is stopped or ends."""
        words = [str(word).replace("{run}", str(self.run_dir)) for word in arguments]
        more = {"env": self.environment, **more}
        process = subprocess.Popen([PROGRAMS["tarn"], *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, preexec_fn=end_with_parent, **more)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.wait()
        process.stdout.close()
        process.stderr.close()

    def on_terminal(self, *arguments, columns=80, env=None):
        """Runs the command on a pseudo-terminal; its exit status and all that the terminal got."""
        words = [str(word).replace("{run}", str(self.run_dir)) for word in arguments]
        with OnTerminal([PROGRAMS["tarn"], *words], {**self.environment, **(env or {})}, columns) as terminal:
            terminal.read(r"(?!)")  # nothing: all until the end
            return terminal.wait(), terminal.shown.replace("\r\n", "\n")
