# SPDX-License-Identifier: Apache-2.0
"""Cases in which contestants do the same, and take turns at it."""

import dataclasses
import itertools
import os
import pathlib
import statistics
import tempfile

from driver.processes import Failed, Process


@dataclasses.dataclass
class Contestant:
    """`servers` and `clients` are commands; {dir} in them becomes a folder of this contestant alone. All clients
    work at the same time. `background`, if any, gets one operation to do meanwhile."""
    name: str
    servers: list
    clients: list
    background: list = None

    def missing(self):
        """The programs that haven't been built."""
        paths = {pathlib.Path(command[0]) for command in self.servers + self.clients}
        return {path.name for path in paths if not (path.is_file() and os.access(path, os.X_OK))}


@dataclasses.dataclass
class Target:
    """tarn's value has to be at most ("≤"), or at least ("≥"), `factor` times that of another contestant."""
    relation: str
    factor: float
    reference: str = "raw"

    def text(self):
        return f"{self.relation} {self.factor:.2f} x {self.reference}"

    def is_reached(self, tarn, reference):
        ratio = tarn["value"] / reference["value"]
        return ratio <= self.factor if self.relation == "≤" else ratio >= self.factor


@dataclasses.dataclass
class CpuTarget:
    """Of processor time tarn has to take no more than so many microseconds above another contestant."""
    above_us: float
    reference: str = "raw"

    def text(self):
        return f"CPU ≤ {self.above_us} µs above {self.reference}"

    def is_reached(self, tarn, reference):
        return tarn["cpu_us"] - reference["cpu_us"] <= self.above_us


@dataclasses.dataclass
class MemoryTarget:
    """tarn's server has to get by with so much memory more than it had when it was ready."""
    mebibytes: int
    reference: str = "tarn"

    def text(self):
        return f"server memory ≤ {self.mebibytes} MiB"

    def is_reached(self, tarn, _reference):
        return tarn["server_growth_kib"] <= self.mebibytes * 1024


class Running:
    """A contestant's processes, while they live."""

    def __init__(self, contestant, cpus=None):
        self.contestant = contestant
        self._folder = tempfile.TemporaryDirectory(prefix="bench-")
        pathlib.Path(self._folder.name, "service").mkdir()
        self._processes = []
        self._cpus = cpus
        try:
            self.servers = [self._start(command) for command in contestant.servers]
            self._before_kib = self.servers[-1].memory_kib() if self.servers else 0
            self.clients = [self._start(command) for command in contestant.clients]
            self.background = self._start(contestant.background) if contestant.background else None
        except BaseException:
            self.stop()
            raise

    def _start(self, command):
        process = Process([word.replace("{dir}", self._folder.name) for word in command], self._folder.name,
                          self._cpus)
        self._processes.append(process)
        return process

    def taken(self):
        """CPU seconds and context switches of all processes so far."""
        return (sum(process.cpu_seconds() for process in self._processes),
                sum(process.switches() for process in self._processes))

    def server_growth_kib(self):
        """How much more memory than when it was ready the last server had at its peak."""
        return self.servers[-1].memory_kib("VmHWM") - self._before_kib if self.servers else 0

    def stop(self):
        for process in reversed(self._processes):
            process.stop()
        self._folder.cleanup()


@dataclasses.dataclass
class Case:
    """The first contestant is what the others are compared with. The unit says what is measured: "µs", the time of
    one operation; "/s", how many of them; "MiB/s", how many with a body of `mebibytes`."""
    name: str
    title: str
    unit: str
    contestants: list
    targets: list = dataclasses.field(default_factory=list)
    mebibytes: float = 1
    seconds: float = None
    most_rounds: int = 1000

    def compare(self, mode, cpus, rounds, seconds):
        """Lets the contestants that have been built take turns, and returns a row for each."""
        running = []
        try:
            for contestant in self.contestants:
                if contestant.missing():
                    continue
                running.append(Running(contestant, cpus))
            for each in running:
                self.warm_up(each)
            batches = {each.contestant.name: [] for each in running}
            for number in range(min(rounds, self.most_rounds)):
                # There and back, so that whatever changes steadily meets all alike.
                for each in running if number % 2 == 0 else reversed(running):
                    batches[each.contestant.name].append(self.turn(each, self.seconds or seconds))
            growths = {each.contestant.name: each.server_growth_kib() for each in running}
        finally:
            for each in running:
                each.stop()
        return self._rows(mode, batches, growths)

    def missing(self):
        return set().union(*(contestant.missing() for contestant in self.contestants))

    def warm_up(self, running):
        self.turn(running, 0.2)

    def turn(self, running, seconds):
        """The value, CPU time in µs and context switches for each operation."""
        raise NotImplementedError

    def _rows(self, mode, batches, growths):
        reference = self.contestants[0].name
        rows = {}
        for name, of_name in batches.items():
            value, cpu_us, switches = (statistics.median(batch[i] for batch in of_name) for i in range(3))
            ratios = [own[0] / other[0] for own, other in zip(of_name, batches[reference])]
            row = {"case": self.name, "title": self.title, "mode": mode, "contestant": name, "unit": self.unit,
                   "value": value, "least": min(ratios), "most": max(ratios), "cpu_us": cpu_us,
                   "switches": switches, "server_growth_kib": growths[name], "targets": []}
            rows[name] = row
            row["ratio"] = value / rows[reference]["value"]
            row["cpu_ratio"] = cpu_us / rows[reference]["cpu_us"]
        for target in self.targets:
            if "tarn" in rows and target.reference in rows:
                is_reached = target.is_reached(rows["tarn"], rows[target.reference])
                rows["tarn"]["targets"].append({"text": target.text(), "reached": is_reached})
        return list(rows.values())


class RequestCase(Case):
    """Each operation is a request, or a body in several."""

    def turn(self, running, seconds):
        if running.background:
            running.background.tell("do 1")
        before = running.taken()
        for client in running.clients:
            client.tell(f"go {seconds}")
        answers = [client.answer() for client in running.clients]
        after = running.taken()
        if running.background:
            running.background.answer()
        operations = sum(answer["operations"] for answer in answers)
        if self.unit == "µs":
            value = statistics.median(answer["p50_ns"] for answer in answers) / 1000
        else:
            value = self.mebibytes * sum(answer["operations"] / answer["seconds"] for answer in answers)
        return value, (after[0] - before[0]) * 1e6 / operations, (after[1] - before[1]) / operations


class ChangesCase(Case):
    """The first client of a contestant is the publisher, the others are subscribers. In the unit "/s" the value is
    the highest rate at which every subscriber gets all changes; in "µs", the time that a change is under way at
    1,000 a second."""

    SEARCH_STEPS = 7
    LOWEST, HIGHEST = 5_000, 1_000_000
    _series = itertools.count(1)

    def warm_up(self, running):
        for _ in range(20):  # until the subscriptions have reached the publisher
            if self._publish(running, 20, 1000):
                return
        raise Failed(f"{running.contestant.name}: changes don't arrive")

    def turn(self, running, seconds):
        if self.unit == "µs":
            outcome = self._publish(running, max(1, int(1000 * seconds)), 1000)
            if not outcome:
                raise Failed(f"{running.contestant.name}: loses changes at 1,000 a second")
            return outcome
        best = self._publish(running, 100, 1000) or (0, 0, 0)
        low, high = self.LOWEST, self.HIGHEST
        for _ in range(self.SEARCH_STEPS if seconds > 0.1 else 1):
            rate = (low * high) ** 0.5
            outcome = self._publish(running, max(1, int(rate * seconds)), int(rate))
            best = max(best, outcome or best)
            if outcome and outcome[0] < 0.8 * rate:
                break  # the publisher has to wait for the others, and can't be any faster
            low, high = (rate, high) if outcome else (low, rate)
        return best

    def _publish(self, running, count, rate):
        """Nothing if a change was lost."""
        publisher, *subscribers = running.clients
        series = next(self._series)
        before = running.taken()
        for subscriber in subscribers:
            subscriber.tell(f"expect {series} {count}")
        begun = publisher.ask(f"publish {series} {count} {rate}")
        answers = [subscriber.answer() for subscriber in subscribers]
        after = running.taken()
        if min(answer["arrived"] for answer in answers) < count:
            return None
        if self.unit == "µs":
            value = statistics.median(answer["p50_ns"] for answer in answers) / 1000
        else:
            value = count * 1e9 / (max(answer["last_ns"] for answer in answers) - begun["first_ns"])
        return value, (after[0] - before[0]) * 1e6 / count, (after[1] - before[1]) / count
