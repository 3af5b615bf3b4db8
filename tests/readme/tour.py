# SPDX-License-Identifier: Apache-2.0
"""Does what README.md's tour says, and compares what the commands print with what stands there.

    tour.py README.md [SERVICE]      with `tarn` in the path, as any user

SERVICE is the README's service, which serves beside the demo.

Numbers, times and directories differ from machine to machine, so they match whatever is in their place; words don't.
`tarn demo` stays up until the end, as in a terminal of its own.
"""

import ctypes
import os
import pty
import re
import select
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time

HEADING = "## Five minutes with `tarn demo`"
PATIENCE = 30
DEVICE_ANSWERS = 77  # the exit status that skips the test: what the commands ask is the device, then


def read_tour(page):
    """The commands of the tour, each with the lines that it prints."""
    with open(page, encoding="utf-8") as file:
        text = file.read()
    if HEADING not in text:
        sys.exit(f"{page} has no section '{HEADING}'")
    section = re.split(r"(?m)^## ", text.split(HEADING, 1)[1], maxsplit=1)[0]
    steps = []
    for block in re.findall(r"(?ms)^```(?:console|sh|shell)\n(.*?)^```", section):
        output = None
        for line in block.splitlines():
            if line.startswith("$ "):
                output = []
                steps.append((line[2:], output))
            elif output is not None:
                output.append(line)
    return [(command, output) for command, output in steps if command.startswith("tarn ")]


def pattern_of(line):
    """What a line looks like on any machine: numbers, blanks and socket paths may differ."""
    parts = []
    for part in re.split(r"(ipc://\S+|\d[\d.:-]*|\s+)", line.rstrip()):
        if part.startswith("ipc://"):
            name = "/".join(part.split("/")[-2:])
            parts.append(r"ipc:///\S*" + re.escape(name))
        elif part[:1].isdigit():
            parts.append(r"\d[\d.:-]*")
        elif part.isspace():
            parts.append(r"\s+")
        else:
            parts.append(re.escape(part))
    return re.compile("".join(parts))


def end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def start_demo(command, directory):
    """The demo, once it is up. Its errors are in a file, which no pipe's reader has to keep up with."""
    with open(os.path.join(directory, "errors"), "w+", encoding="utf-8") as errors:
        demo = subprocess.Popen(shlex.split(command.rstrip("& ")), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=errors, text=True, preexec_fn=end_with_parent)
        for line in demo.stdout:
            if "Ctrl-C" in line:
                return demo
        status = demo.wait()
        errors.seek(0)
        said = errors.read()
    print(f"`{command}` ended with status {status}: {said}")
    sys.exit(DEVICE_ANSWERS if "the fabric of this device answers" in said else 1)


def end_demo(demo):
    demo.send_signal(signal.SIGINT)
    status = demo.wait(PATIENCE)
    if status != 0:
        sys.exit(f"the demo ended with status {status}")


def run_on_terminal(command):
    """The exit status of a command, and what a person sees of it on a terminal without colours."""
    ours, theirs = pty.openpty()
    termios.tcsetwinsize(theirs, (50, 200))
    process = subprocess.Popen(["sh", "-c", command], stdin=subprocess.DEVNULL, stdout=theirs, stderr=theirs,
                               env=os.environ | {"NO_COLOR": "1", "TERM": "xterm"}, preexec_fn=end_with_parent)
    os.close(theirs)
    shown = b""
    deadline = time.monotonic() + PATIENCE
    while select.select([ours], [], [], max(0, deadline - time.monotonic()))[0]:
        try:
            part = os.read(ours, 65536)
        except OSError:  # the other end is closed
            break
        shown += part
    else:
        process.kill()
        sys.exit(f"$ {command}\n{shown.decode()}takes more than {PATIENCE} s")
    os.close(ours)
    return process.wait(PATIENCE), shown.decode().replace("\r\n", "\n")


def check(command, expected):
    status, shown = run_on_terminal(command)
    lines = shown.splitlines()
    is_error = bool(expected) and re.match(r"tarn( [a-z]+)?: ", expected[-1]) is not None
    problem = ""
    if (status != 0) != is_error:
        problem = f"status {status}"
    elif len(lines) != len(expected):
        problem = f"{len(lines)} lines instead of {len(expected)}"
    for line, wanted in zip(lines, expected):
        if not pattern_of(wanted).fullmatch(line.rstrip()):
            problem = problem or f"the README has {wanted!r}"
    if problem:
        sys.exit(f"$ {command}\n{shown}is not what the README says: {problem}")
    print(f"$ {command}: as the README says", flush=True)


def check_service(page, program):
    """The service is found by its name beside the demo, as the README says."""
    with open(page, encoding="utf-8") as file:
        command = re.search(r"`(tarn get /hello/\S+)`", file.read())
    if not command:
        sys.exit(f"{page} doesn't say how to ask the service by its name")
    with subprocess.Popen([program], stdin=subprocess.DEVNULL, preexec_fn=end_with_parent) as service:
        deadline = time.monotonic() + PATIENCE
        while run_on_terminal(command[1]) != (0, "Hello, world!\n"): # it has just been started
            if service.poll() is not None or time.monotonic() > deadline:
                sys.exit(f"$ {command[1]}\n{run_on_terminal(command[1])[1]}")
        service.terminate()
    print(f"$ {command[1]}: as the README says", flush=True)


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    steps = read_tour(sys.argv[1])
    begin = time.monotonic()
    with tempfile.TemporaryDirectory() as directory, tempfile.TemporaryDirectory() as work:
        os.environ["XDG_RUNTIME_DIR"] = directory
        demo = None
        asked = 0
        for command, expected in steps:
            if shlex.split(command)[1] == "demo":
                demo = demo or start_demo(command, work)
                continue
            check(command, expected)
            asked += 1
        if not demo or asked < 3:
            sys.exit("the tour has no `tarn demo`, or fewer than three commands besides")
        if len(sys.argv) == 3:
            check_service(*sys.argv[1:])
            shutil.rmtree(os.path.join(directory, "tarn/hello"))
        end_demo(demo)
        if os.listdir(directory):
            sys.exit(f"the demo has left {os.listdir(directory)}")
    print(f"the tour of {asked} commands took {time.monotonic() - begin:.0f} s")


main()
