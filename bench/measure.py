"""Runs commands and measures them. A run counts only if it did what it should: its exit status, its
output and what it left behind are checked every time, outside of the time measured."""

import dataclasses
import os
import pathlib
import re
import shutil
import statistics
import time
import typing


class Failed(Exception):
    """A command did not do what it should."""


def nothing():
    """Where a command needs no preparation, or left nothing behind to check."""


@dataclasses.dataclass
class Command:
    name: str
    argv: list
    expected: typing.Callable  # tells whether the output (standard error too) is as it should be
    status: int = 0
    prepare: typing.Callable = nothing  # before every run
    check: typing.Callable = nothing  # after every run; raises Failed
    env: dict = dataclasses.field(default_factory=dict)


class Runner:
    def __init__(self, env, log):
        self.env = env
        self.log = log
        self.input = os.open("/dev/null", os.O_RDONLY)
        self.output = os.open("output", os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o600)

    def run(self, command, wrapper=()):
        """The milliseconds that one checked run took."""
        argv = [*map(str, (*wrapper, *command.argv))]
        program, env = shutil.which(argv[0]) or argv[0], {**self.env, **command.env}
        command.prepare()
        os.ftruncate(self.output, 0)
        files = [(os.POSIX_SPAWN_DUP2, self.input, 0)]
        files += [(os.POSIX_SPAWN_DUP2, self.output, descriptor) for descriptor in (1, 2)]

        start = time.perf_counter_ns()
        child = os.posix_spawn(program, argv, env, file_actions=files)
        _, ending = os.waitpid(child, 0)
        elapsed = time.perf_counter_ns() - start

        output = pathlib.Path("output").read_text(errors="replace")
        status = os.waitstatus_to_exitcode(ending)
        if status != command.status or not command.expected(output):
            raise Failed(f"{command.name}: exit status {status}, output {output[-300:]!r}")
        command.check()
        return elapsed / 1e6

    def refused(self, command, why):
        """Makes sure that a command which should not succeed does not."""
        try:
            self.run(command)
        except Failed:
            return
        raise Failed(f"{command.name} succeeds with {why}")

    def alternate(self, commands, rounds, may_fail=False):
        """Runs the commands in turn, each round beginning with another one, after a first round that
        does not count. Returns the milliseconds of all runs by name. A peer that may fail is left
        out, without runs, if the first round shows that it cannot do the work."""
        shutil.rmtree(self.log, ignore_errors=True)
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
        """The most memory, in KiB, that a run held. It is started by a small program: a process
        inherits the peak of the one that starts it."""
        self.run(command, ["time", "-q", "-f", "%M", "-o", "peak"])
        return int(pathlib.Path("peak").read_text())

    def instructions(self, command):
        """How many instructions a run took."""
        shutil.rmtree(self.log, ignore_errors=True)
        counter = ["valgrind", "--tool=callgrind", "--log-file=valgrind.log"]
        self.run(command, [*counter, "--callgrind-out-file=callgrind.out"])
        report = pathlib.Path("callgrind.out").read_text()
        return int(re.search(r"^(?:summary|totals): (\d+)", report, re.MULTILINE)[1])


def median(times):
    return statistics.median(times) if times else None
