# SPDX-License-Identifier: Apache-2.0
"""The processes of one benchmark: started, told what to do, asked what they took, and ended."""

import contextlib
import json
import os
import pathlib
import select
import subprocess
import tempfile
import time

# No answer takes longer, however slow the machine.
ANSWER_SECONDS = 120


class Failed(Exception):
    """A process doesn't do what it should; the text says which, and what it wrote to standard error."""


class Process:
    """A program that prints a line when it is ready, and then answers each line that it is told with one."""

    def __init__(self, command, folder, cpus=None):
        """On the given processors, or on any."""
        self.command = command
        self._errors = tempfile.TemporaryFile("w+", encoding="utf-8")
        self._unread = b""
        # It must not outlive us, and inherits the processors.
        before = os.sched_getaffinity(0)
        os.sched_setaffinity(0, cpus or before)
        try:
            self._child = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=self._errors, cwd=folder)
        finally:
            os.sched_setaffinity(0, before)
        self.pid = self._child.pid
        self._line()

    def tell(self, line):
        self._child.stdin.write((line + "\n").encode())
        self._child.stdin.flush()

    def answer(self):
        return json.loads(self._line())

    def ask(self, line):
        self.tell(line)
        return self.answer()

    def cpu_seconds(self):
        """Of all its threads, also those that have ended, in user and kernel mode."""
        return time.clock_gettime((~self.pid << 3) | 2)  # CPUCLOCK_SCHED of that process, see clock_getcpuclockid

    def switches(self, kinds=("voluntary", "nonvoluntary")):
        """Context switches of its threads, because they waited or because their turn was over."""
        return sum(int(_fields(thread / "status")[kind + "_ctxt_switches"])
                   for thread in pathlib.Path(f"/proc/{self.pid}/task").iterdir() for kind in kinds)

    def threads(self):
        return int(_fields(f"/proc/{self.pid}/status")["Threads"])

    def memory_kib(self, field="VmRSS"):
        return int(_fields(f"/proc/{self.pid}/status")[field].split()[0])

    def finish(self):
        """Lets it end by itself, and returns what it has written to standard error."""
        self._child.stdin.close()
        self._child.wait(timeout=ANSWER_SECONDS)
        self._errors.seek(0)
        return self._errors.read()

    def stop(self):
        self._child.terminate()
        try:
            self._child.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self._child.kill()
            self._child.wait()
        with contextlib.suppress(OSError):  # what it hasn't read
            self._child.stdin.close()
        self._child.stdout.close()
        self._errors.close()

    def _line(self):
        deadline = time.monotonic() + ANSWER_SECONDS
        while b"\n" not in self._unread:
            if not select.select([self._child.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                raise self._failure("no answer in time")
            received = os.read(self._child.stdout.fileno(), 65536)
            if not received:
                self._child.wait()
                raise self._failure("ended")
            self._unread += received
        line, self._unread = self._unread.split(b"\n", 1)
        return line.decode()

    def _failure(self, what):
        self._errors.seek(0)
        return Failed(f"{' '.join(self.command)}: {what}\n{self._errors.read()[-2000:]}")


def _fields(file):
    lines = pathlib.Path(file).read_text(encoding="utf-8").splitlines()
    return {key: value.strip() for key, _, value in (line.partition(":") for line in lines)}
