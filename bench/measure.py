"""Runs commands and measures them. A run counts only if it did what it should: its exit status, its
output and what it left behind are checked every time, outside of the time measured."""

import dataclasses
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import typing


class Failed(Exception):
    """A command did not do what it should."""


@dataclasses.dataclass
class Command:
    name: str
    argv: list
    expected: typing.Callable  # tells whether the output (standard error too) is as it should be
    status: int = 0
    is_peer: bool = True  # does the same work, so the ratio may be to it
    prepare: typing.Callable = lambda: None  # before every run
    check: typing.Callable = lambda: None  # after every run; raises Failed
    env: dict = dataclasses.field(default_factory=dict)


class Runner:
    def __init__(self, env, log):
        self.env = env
        self.log = log
        self.input = os.open("/dev/null", os.O_RDONLY)
        self.output = os.open("output", os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o600)

    def run(self, command, wrapper=""):
        """The milliseconds that one checked run took, and those of them on a processor."""
        argv = [*wrapper.split(), *command.argv]
        program, env = shutil.which(argv[0]), self.env | command.env
        files = [(os.POSIX_SPAWN_DUP2, self.input, 0), (os.POSIX_SPAWN_DUP2, self.output, 1),
                 (os.POSIX_SPAWN_DUP2, self.output, 2)]
        command.prepare()
        os.truncate(self.output, 0)

        start = time.perf_counter_ns()
        child = os.posix_spawn(program, argv, env, file_actions=files)
        _, ending, usage = os.wait4(child, 0)
        elapsed = time.perf_counter_ns() - start

        status = os.waitstatus_to_exitcode(ending)
        output = pathlib.Path("output").read_text(errors="replace")
        if status != command.status or not command.expected(output):
            raise Failed(f"{' '.join(argv)}: exit status {status}, output: {output[-500:]}")
        command.check()
        return elapsed / 1e6, (usage.ru_utime + usage.ru_stime) * 1e3

    def many(self, command, count, at_once):
        """The seconds that so many runs of a command took, and how many of them ended well."""
        print(f"bench: {count} x {command.name}, {at_once} at a time", file=sys.stderr, flush=True)
        numbers, running, right = iter(range(count)), {}, 0
        start = time.perf_counter()
        while True:
            while len(running) < at_once and (number := next(numbers, None)) is not None:
                argv = [word.replace("{}", str(number)) for word in command.argv]
                child = subprocess.Popen(argv, env=self.env, stdin=self.input, text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                running[child.pid] = child
            if not running:
                return time.perf_counter() - start, right
            pid, ending = os.wait()
            child = running.pop(pid)
            child.returncode = os.waitstatus_to_exitcode(ending)
            output, _ = child.communicate()
            right += child.returncode == command.status and command.expected(output)

    def calls(self, command, notes):
        """The PKCS#11 calls of a run, as the spying module wrote them down."""
        notes.unlink(missing_ok=True)
        self.run(command)
        made = re.findall(r"^\d+: (C_\w+)", notes.read_text(errors="replace"), re.MULTILINE)
        return {"all": len(made), "logins": made.count("C_Login"),
                "searches": made.count("C_FindObjectsInit")}

    def refused(self, command, why):
        """Makes sure that a command which should not succeed does not."""
        try:
            self.run(command)
        except Failed:
            return
        raise Failed(f"{command.name} succeeds with {why}")

    def alternate(self, work, commands, rounds, may_fail=False):
        """Runs the commands in turn, each round beginning with another one, after a first round
        that does not count. Returns what all runs took, by name. If peers may fail, one that does
        so in the first round has no runs."""
        print(f"bench: {work}", file=sys.stderr, flush=True)
        shutil.rmtree(self.log, ignore_errors=True)  # all works find it as short
        times = {command.name: [] for command in commands}
        able = []
        for command in commands:
            try:
                self.run(command)
                able.append(command)
            except Failed:
                if command is commands[0] or not may_fail:
                    raise
        for turn in range(rounds):
            first = turn % len(able)
            for command in able[first:] + able[:first]:
                times[command.name].append(self.run(command))
        return times

    def peak(self, command):
        """The most memory, in MiB, that a run held. A small program starts it, since a process
        inherits the peak of the one that it was started from."""
        self.run(command, "time -f %M -o peak")
        return int(pathlib.Path("peak").read_text().splitlines()[-1]) / 1024

    def instructions(self, command):
        """How many million instructions a run took."""
        self.run(command, "valgrind --tool=callgrind --log-file=valgrind.log"
                          " --callgrind-out-file=callgrind.out")
        counts = pathlib.Path("callgrind.out").read_text()
        return int(re.search(r"^summary: (\d+)", counts, re.MULTILINE)[1]) / 1e6
