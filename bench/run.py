#!/usr/bin/env python3
"""Times velmora beside its peers on one private token and the same files, and prints what came out
as tables; docs/performance.md says how to read them."""

import argparse
import json
import os
import pathlib
import platform
import random
import shutil
import signal
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.append(str(ROOT / "tests/faults"))

import report
from commands import Commands, holds
from measure import Command, Failed, Runner, median
from modules import keep_softhsm_alone
from setting import PIN, PROGRAM, Setting

KIB, MIB, GIB = 2**10, 2**20, 2**30
ROOM = 24 * KIB  # the KiB of memory that a large file may cost


class Benchmark:
    def __init__(self, setting, runs, large):
        self.setting = setting
        self.runs = runs
        self.large = large
        self.serial = setting.token_with_key("Alice Example")
        self.runner = Runner(setting.env, setting.folder / "log")
        self.commands = Commands(self.runner, PROGRAM, self.serial, PIN)
        self.block = random.randbytes(MIB)
        self.results = {"works": [], "memory": [], "instructions": {}, "growth": {}}

    def file(self, size):
        path = pathlib.Path(f"data-{size}")
        if not path.exists():
            with path.open("wb") as file:
                for start in range(0, size, MIB):
                    file.write(self.block[:size - start])
            os.sync()
        return path

    def signed(self, size):
        """A file and velmora's signature of it."""
        data = self.file(size)
        signature = pathlib.Path(f"{data}.p7s")
        if not signature.exists():
            self.runner.run(self.commands.sign(data)[0])
            os.rename("velmora.p7s", signature)
        return data, signature

    def times(self, commands, rounds=None, size=0):
        """The median milliseconds of the commands by name, and all of them."""
        rounds = rounds or (self.runs if size <= MIB else max(3, self.runs // 10))
        runs = self.runner.alternate(commands, rounds, may_fail=size > MIB)
        return {name: median(times) for name, times in runs.items()}, runs

    def work(self, name, commands, target, size=0, limit=None):
        """Compares velmora with the limit, or else with the fastest of the others."""
        progress(name)
        medians, runs = self.times([*commands, limit] if limit else commands, size=size)
        others = [other for other in medians if other != "velmora" and medians[other]]
        against = limit.name if limit else min(others, key=medians.get)
        ratio = medians["velmora"] / medians[against]
        self.results["works"].append(
            {"work": name, "medians_ms": medians, "against": against, "ratio": ratio,
             "target": target, "met": ratio <= target, "runs_ms": runs})

    def memory(self, name, commands, allowed):
        progress(f"{name}, memory")
        peaks = {command.name: self.runner.peak(command) for command in commands}
        self.results["memory"].append({"work": name, "peaks_kib": peaks, "allowed_kib": allowed,
                                       "met": peaks["velmora"] <= allowed})

    def all_modules(self):
        velmora, p11tool, _ = self.commands.media([self.serial])
        self.work("list the media, all modules", [velmora, p11tool], 0.8)
        proxy = self.commands.sign(self.file(KIB), engine_module="p11-kit-proxy.so")
        self.work("sign 1 KiB, all modules", proxy, 0.8)

    def softhsm_alone(self):
        make = self.commands
        velmora, p11tool, pkcs11_tool = make.media([self.serial])
        self.runner.run(Command("one module", ["p11tool", "--list-token-urls"],
                                lambda urls: urls.count("pkcs11:") == 1))
        self.work("list the media", [velmora, p11tool, pkcs11_tool], 1.0)
        self.works_with_wrong_input()
        self.work("check a password", make.password(PIN), 1.0)
        for size, target in ((KIB, 0.8), (self.large, 1.05)):
            limit = make.digest(self.file(size)) if size > MIB else None
            self.work(f"sign {report.size(size)}", make.sign(self.file(size)), target, size, limit)
        for size, target in ((KIB, 1.0), (self.large, 1.3)):
            limit = make.digest(self.file(size)) if size > MIB else None
            commands = make.verify(*self.signed(size))
            self.work(f"verify {report.size(size)}", commands, target, size, limit)
        self.work("usage text", make.usage(), 2.0)

    def works_with_wrong_input(self):
        """None of the checks that are timed may accept everything."""
        for command in self.commands.password("wrong-password"):
            self.runner.refused(command, "a wrong password")
        _, signature = self.signed(KIB)
        changed = self.file(KIB + 1)
        for command in self.commands.verify(changed, signature):
            self.runner.refused(command, "a changed file")

    def peaks(self):
        make, name = self.commands, report.size(self.large)
        usage = self.runner.peak(make.usage()[0])
        self.memory(f"sign {name}", make.sign(self.file(self.large)), usage + ROOM)
        self.memory(f"verify {name}", make.verify(*self.signed(self.large)),
                    self.large // KIB + ROOM)

    def instructions(self):
        make = self.commands
        for name, commands in (("usage text", make.usage()),
                               ("media list", make.media([self.serial])),
                               ("key test-valid", make.password(PIN)),
                               ("sign create-ext, 1 KiB", make.sign(self.file(KIB))),
                               ("sign verify, 1 KiB", make.verify(*self.signed(KIB)))):
            progress(f"{name}, instructions")
            self.results["instructions"][name] = self.runner.instructions(commands[0])

    def growth_with_size(self, sizes):
        rows = self.results["growth"]["size"] = {}
        for size in sizes:
            progress(f"growth, {report.size(size)}")
            data, signature = self.signed(size)
            sign, verify = self.commands.sign(data)[0], self.commands.verify(data, signature)[0]
            sign.name, verify.name = "sign", "verify"
            rows[size], _ = self.times([sign, verify, self.commands.digest(data)], size=size)

    def growth_with_tokens(self, counts):
        rows = self.results["growth"]["tokens"] = {}
        serials = [self.serial]
        for count in counts:
            progress(f"growth, {count} tokens")
            serials += [self.setting.token(f"Token {i}") for i in range(len(serials), count)]
            rows[count], _ = self.times(self.commands.media(serials), max(3, self.runs // 5))

    def generation(self):
        """On the token as it is: with its key gone."""
        make, delete = self.commands.generation()
        self.runner.run(Command("velmora", [PROGRAM, "key", "delete", self.serial, PIN],
                                holds("DONE")))
        for name, commands in (("make a key", make), ("delete a key", delete)):
            progress(name)
            medians, _ = self.times(commands, max(3, self.runs // 5))
            self.results["growth"][name] = medians

    def tables(self):
        results = self.results
        report.table("Work", ["Work", "velmora", "Measured against", "Its time", "Ratio",
                              "To reach", "Met", "Others"], map(report.work, results["works"]))
        report.table("Peak memory", ["Work", "velmora", "Allowed", "Met", "Others"],
                     map(report.memory, results["memory"]))
        report.table("Instructions of one run", ["Run", "Millions"],
                     ((name, f"{count / 1e6:.2f}") for name, count in
                      results["instructions"].items()))
        growth = results["growth"]
        report.growth("Growth with the size of the file", "Size",
                      {report.size(size): row for size, row in growth["size"].items()})
        report.growth("Growth with the number of tokens", "Tokens", growth["tokens"])
        report.growth("Generation (velmora: two pairs of keys, two requests; the others: one pair)",
                      "Work", {name: growth[name] for name in ("make a key", "delete a key")})


def progress(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def machine():
    cpu = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo")
                if line.startswith("model name")), platform.machine())
    return {"cpu": cpu, "cores": os.cpu_count(), "kernel": platform.release(),
            "load": os.getloadavg()[0]}


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("program", help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="few runs and 64 MiB instead of 1 GiB")
    parser.add_argument("--runs", type=int, help="runs of each small work (100)")
    parser.add_argument("--json", type=pathlib.Path, default=ROOT / "build/bench.json")
    chosen = parser.parse_args()
    chosen.json = chosen.json.absolute()
    return chosen


def main():
    chosen = arguments()
    large, largest = (64 * MIB, 64 * MIB) if chosen.quick else (GIB, 2 * GIB)
    runs = chosen.runs or (10 if chosen.quick else 100)
    with Setting() as setting:
        os.chdir(setting.folder)
        setting.env["XDG_CONFIG_HOME"] = str(setting.folder)  # no modules of the user's
        needed = 5 * largest // 2
        if shutil.disk_usage(".").free < needed:
            raise Failed(f"needs {report.size(needed)} in {setting.folder.parent} (or in $TMPDIR)")
        benchmark = Benchmark(setting, runs, large)
        results = benchmark.results
        results |= {"date": time.strftime("%F %T %Z"), "runs": runs, "before": machine()}
        benchmark.all_modules()
        keep_softhsm_alone(setting.folder / "modules")
        benchmark.softhsm_alone()
        benchmark.peaks()
        benchmark.instructions()
        benchmark.growth_with_size([s for s in (KIB, 32 * KIB, MIB, 32 * MIB, 256 * MIB, GIB)
                                    if s < largest] + [largest])
        benchmark.generation()
        benchmark.growth_with_tokens([1, 2, 4, 8, 16, 32])
        results["after"] = machine()
    before, after = results["before"], results["after"]
    print(f"{results['date']}, {before['cpu']}, {before['cores']} cores, Linux {before['kernel']},"
          f" load {before['load']:.1f} before and {after['load']:.1f} after, {runs} runs")
    benchmark.tables()
    chosen.json.parent.mkdir(parents=True, exist_ok=True)
    chosen.json.write_text(json.dumps(results, indent=1))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("bench: terminated"))
    try:
        main()
    except (Failed, OSError) as failure:
        sys.exit(f"bench: {failure}")
