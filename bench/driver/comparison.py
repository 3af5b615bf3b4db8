# SPDX-License-Identifier: Apache-2.0
"""Cases in which contestants do the same, and take turns at it."""

import dataclasses
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


@dataclasses.dataclass
class Target:
    """A contestant's value has to be at most, or at least, `factor` times that of another one."""
    relation: str
    factor: float
    reference: str = "raw"
    contestant: str = "tarn"

    def text(self):
        return f"{self.relation} {self.factor:.2f} x {self.reference}"

    def is_reached(self, values):
        ratio = values[self.contestant] / values[self.reference]
        return ratio <= self.factor if self.relation == "≤" else ratio >= self.factor


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

    def value_of(self, answers):
        if self.unit == "µs":
            return statistics.median(answer["p50_ns"] for answer in answers) / 1000
        return self.mebibytes * sum(answer["operations"] / answer["seconds"] for answer in answers)


class Running:
    """A contestant's processes, while they live."""

    def __init__(self, contestant, cpus):
        self.contestant = contestant
        self._folder = tempfile.TemporaryDirectory(prefix="bench-")
        pathlib.Path(self._folder.name, "service").mkdir()
        self._processes = []
        self._cpus = cpus
        try:
            for command in contestant.servers:
                self._start(command)
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

    def go(self, seconds):
        """One batch: the clients' answers, CPU time and context switches of all processes for one operation."""
        if self.background:
            self.background.tell("do 1")
        cpu, switches = self._taken()
        for client in self.clients:
            client.tell(f"go {seconds}")
        answers = [client.answer() for client in self.clients]
        cpu_after, switches_after = self._taken()
        if self.background:
            self.background.answer()
        operations = sum(answer["operations"] for answer in answers)
        return answers, (cpu_after - cpu) * 1e6 / operations, (switches_after - switches) / operations

    def _taken(self):
        return (sum(process.cpu_seconds() for process in self._processes),
                sum(process.switches() for process in self._processes))

    def server_peak_kib(self):
        """The most memory that the last server ever had."""
        return self._processes[len(self.contestant.servers) - 1].memory_kib("VmHWM")

    def stop(self):
        for process in reversed(self._processes):
            process.stop()
        self._folder.cleanup()


def compare(case, mode, cpus, rounds, seconds):
    """Lets the contestants take turns, and returns a row for each."""
    running = []
    try:
        for contestant in case.contestants:
            running.append(Running(contestant, cpus))
        for each in running:
            each.go(min(seconds, 0.2))  # warms up
        batches = {each.contestant.name: [] for each in running}
        for number in range(rounds):
            # There and back, so that whatever changes steadily meets all alike.
            for each in running if number % 2 == 0 else reversed(running):
                answers, cpu_us, switches = each.go(case.seconds or seconds)
                batches[each.contestant.name].append((case.value_of(answers), cpu_us, switches))
        peaks = {each.contestant.name: each.server_peak_kib() for each in running}
    finally:
        for each in running:
            each.stop()
    return _rows(case, mode, batches, peaks)


def _rows(case, mode, batches, peaks):
    values = {name: statistics.median(batch[0] for batch in of_name) for name, of_name in batches.items()}
    cpu = {name: statistics.median(batch[1] for batch in of_name) for name, of_name in batches.items()}
    reference = case.contestants[0].name
    rows = []
    for name, of_name in batches.items():
        ratios = [own[0] / other[0] for own, other in zip(of_name, batches[reference])]
        rows.append({
            "case": case.name, "title": case.title, "mode": mode, "contestant": name, "unit": case.unit,
            "value": values[name],
            "ratio": values[name] / values[reference], "least": min(ratios), "most": max(ratios),
            "cpu_us": cpu[name], "cpu_ratio": cpu[name] / cpu[reference],
            "switches": statistics.median(batch[2] for batch in of_name),
            "server_peak_kib": peaks[name],
            "targets": [{"text": target.text(), "reached": target.is_reached(values)} for target in case.targets
                        if target.contestant == name and target.reference in values],
        })
    return rows
