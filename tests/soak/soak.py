# SPDX-License-Identifier: Apache-2.0
"""Runs a device under a mixed load for some minutes, kills its processes in turn, and tells whether all went well.

    soak.py BUILD MINUTES OUTPUT

There are two of each kind of process. One is killed (SIGKILL) and started again all the time; the other, "-steady",
lives from the beginning to the end beside those deaths, so that whatever it doesn't give back shows. OUTPUT gets
soak.csv, a sample of each process each second; soak.svg, a plot of it; and the logs. The exit status is 0 only if
nothing was at fault.
"""

import csv
import os
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import zmq

SERVICES = ("single", "single-steady", "multi", "multi-steady")
RELAYS = ("relay", "relay-steady")
KILLED = ("router", "single", "relay", "multi", "watch", "client")
KEYS = 8  # of each service, as in soak_process.cpp
KILL_INTERVAL = 5  # seconds
SLOWEST_START = 60  # seconds; far more than any start takes, as the machine may be busy
LONGEST_SILENCE = 30  # seconds in which a client reports at least once, whatever becomes of its requests
SLOWEST_END = 20  # seconds

SHORTEST_RUN = 0.5  # minutes
# The memory of a service grows for so long: it is what the uploads that have met so far took, and uploads are up to
# 12 MiB, four at a time.
WARM_UP = 4  # minutes


def tolerance(measure, before, minutes):
    """What the median of the last quarter may exceed that of the second by, in a process that was never killed."""
    if measure == "rss_kib":
        return before * (0.2 if minutes >= WARM_UP else 0.75) + 12 * 1024
    return {"fds": 6, "threads": 1}[measure]


# A flood of bad frames and of deaths must not fill a disk, so the log has a limit to its rate. Bytes per second.
LOUDEST_LOG = 8 * 1024


class Process:
    """One process of the device, and those that follow it under its name."""

    def __init__(self, soak, name, command):
        self.soak = soak
        self.name = name
        self.command = [str(word) for word in command]
        self.log = soak.logs / (name + ".log")
        self.temporary = soak.scratch / "tmp" / name
        # A transfer by POST has its file beside the folder for temporary files, so that is one level down.
        (self.temporary / "tmp").mkdir(parents=True)
        self.child = None
        self.starts = 0
        self.last_beat = time.monotonic()
        self.beats = {}  # by start: requests, good, refused, unanswered
        self.longest_ms = 0

    def start(self):
        self.starts += 1
        environment = dict(os.environ, TMPDIR=str(self.temporary / "tmp"))
        with open(self.log, "ab") as log:
            self.child = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log,
                                          env=environment, text=True)
        ready = threading.Event()
        self.reader = threading.Thread(target=self.read, args=(self.child.stdout, ready, self.starts), daemon=True)
        self.reader.start()
        if not ready.wait(SLOWEST_START) or self.child.poll() is not None:
            self.soak.fault(f"{self.name} did not start, see {self.log.name}")

    def read(self, lines, ready, start):
        for line in lines:
            self.last_beat = time.monotonic()
            words = line.split()
            if words[:1] == ["acked"]:
                self.soak.acknowledge(words[1], int(words[2]), int(words[3]))
            elif words[:1] == ["beat"]:
                self.beats[start] = [int(word) for word in words[1:5]]
                self.longest_ms = max(self.longest_ms, int(words[5]))
            elif words[:1] == ["wrong"]:
                self.soak.fault(f"{self.name} says: {line.strip()}")
            ready.set()
        ready.set()

    def kill(self):
        if self.child.poll() is None:
            self.child.kill()
        self.child.wait()
        self.reader.join()

    def end(self):
        """As a device does when it is switched off."""
        self.child.terminate()
        try:
            status = self.child.wait(SLOWEST_END)
            if status != 0:
                self.soak.fault(f"{self.name} ended with status {status}, see {self.log.name}")
        except subprocess.TimeoutExpired:
            self.soak.fault(f"{self.name} did not end within {SLOWEST_END} s")
            self.child.kill()
            self.child.wait()
        self.reader.join()

    def sample(self):
        proc = Path("/proc") / str(self.child.pid)
        fields = dict(line.split(":", 1) for line in (proc / "status").read_text().splitlines())
        return {
            "process": self.name,
            "pid": self.child.pid,
            "rss_kib": int(fields["VmRSS"].split()[0]),
            "fds": len(os.listdir(proc / "fd")),
            "threads": int(fields["Threads"]),
            "temporary_files": len(self.temporary_files()),
            "log_bytes": self.log.stat().st_size,
        }

    def temporary_files(self):
        return [file for file in self.temporary.rglob("*") if not file.is_dir()]


class Soak:
    def __init__(self, build, minutes, output):
        self.build = build
        self.seconds = minutes * 60
        self.output = output
        self.logs = output / "logs"
        shutil.rmtree(output, ignore_errors=True)
        self.logs.mkdir(parents=True)
        self.scratch = Path(tempfile.mkdtemp(prefix="tarn-soak-"))
        self.run_directory = self.scratch / "run"
        self.faults = []
        self.acked = {}
        self.samples = []
        self.kills = 0
        self.bad_frames = 0
        self.lock = threading.Lock()
        self.stopped = threading.Event()
        self.processes = {}

    def fault(self, text):
        with self.lock:
            self.faults.append(text)
            if len(self.faults) <= 20:
                print(f"soak: FAULT: {text}", flush=True)

    def acknowledge(self, service, key, number):
        with self.lock:
            self.acked[service, key] = max(number, self.acked.get((service, key), 0))

    def endpoint(self, name, socket="zmq.sock"):
        return f"ipc://{self.run_directory}/{name}/{socket}"

    def add(self, name, *command):
        (self.run_directory / name).mkdir(parents=True, exist_ok=True)
        self.processes[name] = Process(self, name, command)
        self.processes[name].start()

    def make_second_fabric(self, suffix):
        """A run-time directory with the same services, and a router and a relay of its own, which are found in the
        first one under names of their own."""
        directory = self.scratch / ("run" + suffix)
        for part in ("router", "relay"):
            (directory / part).mkdir(parents=True)
            (self.run_directory / (part + suffix)).symlink_to(directory / part)
        for service in SERVICES:
            (directory / service).symlink_to(self.run_directory / service)
        return directory

    def start(self):
        own = self.build / "tests/soak/soak_process"
        tarnd = self.build / "bin/tarnd"
        for suffix in ("", "-steady"):
            relay = "relay" + suffix
            router = "router" + suffix
            directory = self.run_directory if not suffix else self.make_second_fabric(suffix)
            self.add(relay, tarnd, "--no-router", "--run-dir", directory)
            self.add(router, tarnd, "--no-relay", "--run-dir", directory)
        for service in SERVICES:
            workers = 1 if service.startswith("single") else 4
            self.add(service, own, "service", self.run_directory, service, workers, *RELAYS)
        for suffix in ("", "-steady"):
            self.add("watch" + suffix, own, "watch", self.run_directory, "watch" + suffix, *RELAYS)
            self.add("client" + suffix, own, "client", self.run_directory, "router" + suffix, *SERVICES)

    # While the load is on

    def sample(self, elapsed):
        for process in self.processes.values():
            try:
                self.samples.append({"seconds": round(elapsed, 1), **process.sample()})
            except (OSError, KeyError):
                pass  # it has just been killed

    def send_bad_frames(self):
        """Strangers that come, send nonsense, and go."""
        context = zmq.Context()
        targets = [self.endpoint(name) for name in SERVICES + RELAYS + ("router", "router-steady", "watch-steady")]
        targets += [self.endpoint(relay, "in.sock") for relay in RELAYS]
        while not self.stopped.wait(0.1):
            target = random.choice(targets)
            kind = zmq.PUB if target.endswith("in.sock") else random.choice((zmq.REQ, zmq.DEALER))
            frames = [os.urandom(random.choice((0, 1, 10, 1000, 100000))) for _ in range(random.choice((1, 1, 2, 5)))]
            if kind == zmq.PUB:
                frames[0] = b"/changes/" + frames[0]
            elif random.random() < 0.3:  # begins as a message does
                frames[-1] = b"\x0a\x10" + frames[-1]
            if kind == zmq.DEALER and random.random() < 0.7:
                frames.insert(0, b"")
            with context.socket(kind) as socket:
                socket.linger = 0
                socket.connect(target)
                if socket.poll(200, zmq.POLLOUT):
                    socket.send_multipart(frames)
                    self.bad_frames += 1
                    if kind != zmq.PUB:
                        socket.poll(random.choice((0, 200)))
        context.term()

    def kill_in_turn(self):
        for turn in range(sys.maxsize):
            if self.stopped.wait(KILL_INTERVAL):
                return
            process = self.processes[KILLED[turn % len(KILLED)]]
            if process.child.poll() is not None:
                self.fault(f"{process.name} has ended by itself with status {process.child.returncode}, "
                           f"see {process.log.name}")
            process.kill()
            self.kills += 1
            # Some peers see a short absence, and some one that outlasts their timeout.
            self.stopped.wait(random.choice((0, 0.5, 2.5)))
            process.start()

    def check_life(self):
        for process in self.processes.values():
            silence = time.monotonic() - process.last_beat
            if process.name.startswith("client") and silence > LONGEST_SILENCE:
                self.fault(f"{process.name} has been silent for {silence:.0f} s")
                process.last_beat = time.monotonic()
            if process.name not in KILLED and process.child.poll() is not None:
                raise RuntimeError(f"{process.name} has ended by itself with status {process.child.returncode}")

    def totals(self):
        beats = [beat for process in self.processes.values() for beat in process.beats.values()]
        return [sum(column) for column in zip(*beats)] if beats else [0, 0, 0, 0]

    def load(self):
        threads = [threading.Thread(target=work) for work in (self.send_bad_frames, self.kill_in_turn)]
        for thread in threads:
            thread.start()
        begin = time.monotonic()
        try:
            next_report = 15
            while (elapsed := time.monotonic() - begin) < self.seconds:
                self.sample(elapsed)
                self.check_life()
                if elapsed >= next_report:
                    next_report += 15 if self.seconds <= 600 else 60
                    requests, good, refused, unanswered = self.totals()
                    print(f"soak: {elapsed:4.0f} s, {self.kills} kills, {self.bad_frames} bad frames, "
                          f"{requests} requests: {good} good, {refused} refused, {unanswered} unanswered", flush=True)
                self.stopped.wait(1)
        finally:
            self.stopped.set()
            for thread in threads:
                thread.join()

    # Afterwards

    def request(self, endpoint, verb, path, *body):
        result = subprocess.run([self.build / "bin/tarn", verb, "-t", "4s", "-e", endpoint, path, *body],
                                capture_output=True, text=True, timeout=60)
        return result.stdout if result.returncode == 0 else None

    def wait_until(self, condition, seconds=20):
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                return False
            time.sleep(0.1)
        return True

    def check_answers(self):
        """Each process answers, nothing that was acknowledged is lost, and a change reaches everyone."""
        for suffix in ("", "-steady"):
            router = self.endpoint("router" + suffix)
            for service in SERVICES:
                # The first one also waits for what the load has left behind: requests of clients that are gone.
                if not self.wait_until(lambda: self.request(router, "get", f"/{service}/count") is not None):
                    self.fault(f"{service} doesn't answer through router{suffix}")
            for relay in RELAYS:
                if self.request(self.endpoint(relay), "get", "/relay/stats?format=text") is None:
                    self.fault(f"{relay} doesn't answer")

        for (service, key), number in sorted(self.acked.items()):
            stored = self.request(self.endpoint(service), "get", f"/number/{key}")
            if stored is None or int(stored) < number:
                self.fault(f"{service} acknowledged {number} for {key}, and now has {stored}")
        if len(self.acked) < len(SERVICES) * KEYS:
            self.fault(f"only {len(self.acked)} numbers were ever acknowledged: the load was no load")

        for service in SERVICES:
            number = str(time.monotonic_ns())
            if self.request(self.endpoint(service), "put", "/number/0", number) is None:
                self.fault(f"{service} doesn't take a number")
            for watch in ("watch", "watch-steady"):
                for relay in RELAYS:
                    path = f"/heard/{relay}/{service}/0"
                    if not self.wait_until(lambda: self.request(self.endpoint(watch), "get", path) == number):
                        self.fault(f"{watch} didn't hear of a change of {service} over {relay}")

    def check_leftovers(self):
        for process in self.processes.values():
            for file in process.temporary_files():
                self.fault(f"{process.name} has left {file.relative_to(self.scratch)}")
        for service in SERVICES:
            for file in (self.run_directory / service / "numbers").iterdir():
                if file.name not in {str(key) for key in range(KEYS)}:
                    self.fault(f"{service} has left {file.relative_to(self.scratch)}")

    def check_flat(self):
        print(f"\n{'medians of the 2nd and the last quarter':42}{'RSS (KiB)':>18}{'descriptors':>14}{'threads':>10}"
              f"{'log (bytes/s)':>16}")
        for name, process in self.processes.items():
            row = f"  {name + (f', killed {process.starts - 1} times' if process.starts > 1 else ''):40}"
            own = [sample for sample in self.samples if sample["process"] == name]
            quarters = [[sample for sample in own if begin <= sample["seconds"] / self.seconds < begin + 0.25]
                        for begin in (0.25, 0.75)]
            for measure, width in (("rss_kib", 18), ("fds", 14), ("threads", 10)):
                before, after = (statistics.median(sample[measure] for sample in quarter) for quarter in quarters)
                row += f"{f'{before:.0f} {after:.0f}':>{width}}"
                if name not in KILLED and after > before + tolerance(measure, before, self.seconds / 60):
                    self.fault(f"{name}: {measure} grew from {before:.0f} to {after:.0f}")
            rate = own[-1]["log_bytes"] / self.seconds
            if rate > LOUDEST_LOG:
                self.fault(f"{name} logs {rate:.0f} bytes a second")
            print(f"{row}{rate:>16.0f}")
        print(flush=True)

    def write_samples(self):
        with open(self.output / "soak.csv", "w", newline="") as file:
            writer = csv.DictWriter(file, self.samples[0].keys())
            writer.writeheader()
            writer.writerows(self.samples)
        (self.output / "soak.svg").write_text(plot(self.samples, list(self.processes)))

    def run(self):
        try:
            self.start()
            if self.faults:
                return
            self.load()
            for name in ("client", "client-steady"):
                self.processes[name].end()
            self.check_answers()
            for name, process in reversed(self.processes.items()):
                if not name.startswith("client"):
                    process.end()
            self.check_leftovers()
            self.write_samples()
            self.check_flat()
            requests, good, refused, unanswered = self.totals()
            longest = max(process.longest_ms for process in self.processes.values())
            print(f"soak: {requests} requests: {good} good, {refused} refused, {unanswered} unanswered, the longest "
                  f"took {longest} ms; {len(self.acked)} numbers, {self.kills} kills, {self.bad_frames} bad frames")
        except (RuntimeError, subprocess.TimeoutExpired, OSError) as error:
            self.fault(str(error))
        finally:
            for process in self.processes.values():
                if process.child:
                    process.kill()
            shutil.rmtree(self.scratch)


def plot(samples, names):
    """A panel for each measure, with a line for each process; those that are killed are thin."""
    measures = (("rss_kib", 1024, "resident memory (MiB)"), ("fds", 1, "descriptors"), ("threads", 1, "threads"),
                ("temporary_files", 1, "temporary files"), ("log_bytes", 1024, "log (KiB)"))
    width, height, left, gap = 900, 170, 60, 45
    total = max(sample["seconds"] for sample in samples) or 1
    lines = []
    for row, (measure, unit, title) in enumerate(measures):
        top = 30 + row * (height + gap)
        peak = max(sample[measure] for sample in samples) / unit or 1
        lines.append(f'<text x="{left}" y="{top - 8}">{title}</text>')
        lines.append(f'<rect x="{left}" y="{top}" width="{width}" height="{height}" fill="none" stroke="#999"/>')
        for share in (0, 0.5, 1):
            lines.append(f'<text x="{left - 6}" y="{top + height * (1 - share) + 4:.0f}" text-anchor="end">'
                         f'{peak * share:.4g}</text>')
            lines.append(f'<text x="{left + width * share:.0f}" y="{top + height + 16}" text-anchor="middle">'
                         f'{total * share:.0f} s</text>')
        for index, name in enumerate(names):
            points = " ".join(f'{left + width * sample["seconds"] / total:.1f},'
                              f'{top + height * (1 - sample[measure] / unit / peak):.1f}'
                              for sample in samples if sample["process"] == name)
            colour = f"hsl({360 * index // len(names)} 70% 40%)"
            stroke = 0.7 if name in KILLED else 2
            lines.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="{stroke}"/>')
            if row == 0:
                y = top + 10 + index * 16
                lines.append(f'<text x="{left + width + 12}" y="{y}" fill="{colour}">{name}</text>')
    bottom = 30 + len(measures) * (height + gap)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 140}" height="{bottom}" '
            f'font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%" fill="white"/>\n'
            + "\n".join(lines) + "\n</svg>\n")


def main():
    try:
        build, minutes, output = Path(sys.argv[1]).resolve(), float(sys.argv[2]), Path(sys.argv[3]).resolve()
        if minutes < SHORTEST_RUN:
            sys.exit(f"soak.py: at least {SHORTEST_RUN} minutes")
    except (IndexError, ValueError):
        sys.exit("usage: soak.py BUILD MINUTES OUTPUT")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that the processes are ended, too
    soak = Soak(build, minutes, output)
    soak.run()
    print(f"soak: {len(soak.faults)} faults" if soak.faults else "soak: nothing at fault", flush=True)
    sys.exit(1 if soak.faults else 0)


if __name__ == "__main__":
    main()
