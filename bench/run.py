#!/usr/bin/env python3
"""Times velmora beside its peers, on one private token and the same files, and prints the medians
as tables. docs/performance.md says how to read them."""

import argparse
import dataclasses
import json
import os
import pathlib
import platform
import random
import shutil
import signal
import statistics
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.append(str(ROOT / "tests/faults"))

import commands
from measure import Failed, Runner
from modules import spy_on_softhsm
from report import pictures, size, tables
from setting import PIN, Setting

KIB, MIB, GIB = 2**10, 2**20, 2**30
ROOM = 24  # the MiB of memory that work on a large file may take


class Benchmark:
    def __init__(self, setting, runs, large, largest):
        self.setting, self.runs, self.large, self.largest = setting, runs, large, largest
        self.few_runs = max(3, runs // 10)
        self.serials = [setting.token_with_key("Alice Example")]
        self.runner = Runner(setting.env, setting.folder / "log")
        self.block = random.randbytes(MIB)
        self.results = {"works": [], "memory": [], "instructions": {}, "growth": {},
                        "at_once": {}, "calls": {}}

    def works(self):
        self.runner.run(commands.peer("p11tool --list-token-urls",
                                      lambda urls: urls.count("pkcs11:") == 1))
        self.refusals()
        self.work("list the media", commands.media(self.serials), 1.0)
        self.work("check a password", commands.password(*self.serials, PIN), 1.0)
        self.work("sign 1 KiB", self.sign(self.file(KIB)), 0.8)
        self.work("verify 1 KiB", commands.verify(*self.signed(KIB)), 1.0)
        self.work("usage text", commands.usage(), 2.0)
        usage, (data, signature) = commands.usage()[0], self.signed(self.large)
        self.large_work("sign", self.sign(data), 1.05, self.runner.peak(usage) + ROOM)
        self.large_work("verify", commands.verify(data, signature), 1.3, self.large / MIB + ROOM)

    def refusals(self):
        """None of the checks that are timed may accept everything."""
        for command in commands.password(*self.serials, "wrong-password"):
            self.runner.refused(command, "a wrong password")
        for command in filter(is_peer, commands.verify(self.file(2 * KIB), self.signed(KIB)[1])):
            self.runner.refused(command, "the signature of another file")

    def work(self, name, contenders, target, runs=None):
        times = self.runner.alternate(name, contenders, runs or self.runs)
        peers = [command.name for command in filter(is_peer, contenders[1:])]
        fastest = min(peers, key=lambda peer: medians(times)[peer])
        self.compare(name, target, times, fastest)

    def large_work(self, verb, contenders, target, allowed):
        """Here the limit counts, the digest alone. Peers may find the file too large."""
        name, limit = f"{verb} {size(self.large)}", commands.digest(self.file(self.large))
        contenders = [*filter(is_peer, contenders)]
        times = self.runner.alternate(name, [*contenders, limit], self.few_runs, may_fail=True)
        self.compare(name, target, times, limit.name)
        peaks = {command.name: self.runner.peak(command) for command in contenders
                 if times[command.name]}
        self.results["memory"].append({"work": name, "peaks_mib": peaks, "allowed_mib": allowed,
                                       "met": peaks["velmora"] <= allowed})

    def compare(self, name, target, times, against):
        whole, cpu = medians(times), medians(times, which=1)
        ratio = whole["velmora"] / whole[against]
        self.results["works"].append({
            "work": name, "medians_ms": whole, "against": against, "ratio": ratio,
            "cpu_ratio": cpu["velmora"] / cpu[against], "target": target,
            "met": ratio <= target if target else None, "runs_ms": times})

    def instructions(self):
        data, signature = self.signed(KIB)
        runs = {"usage text": commands.usage(), "media list": commands.media(self.serials),
                "key test-valid": commands.password(*self.serials, PIN),
                "sign create-ext, 1 KiB": self.sign(data),
                "sign verify, 1 KiB": commands.verify(data, signature)}
        for name, contenders in runs.items():
            self.results["instructions"][name] = {
                command.name: self.runner.instructions(command) for command in contenders}

    def growth_with_size(self):
        growth = self.results["growth"]["Size"] = {}
        for length in (KIB, 32 * KIB, MIB, 32 * MIB, 256 * MIB, GIB, 2 * GIB):
            if length > self.largest:
                break
            data, signature = self.signed(length)
            contenders = [dataclasses.replace(command, name=f"{command.name} {verb}")
                          for verb, both in (("sign", self.sign(data)),
                                             ("verify", commands.verify(data, signature)))
                          for command in both if command.name in ("velmora", "openssl")]
            growth[length] = medians(self.runner.alternate(
                f"growth, {size(length)}", [*contenders, commands.digest(data)],
                self.runs if length <= MIB else self.few_runs, may_fail=True))

    def growth_with_tokens(self):
        growth = self.results["growth"]["Tokens"] = {}
        for count in (1, 2, 4, 8, 16, 32):
            while len(self.serials) < count:
                self.serials.append(self.setting.token(f"Token {len(self.serials)}"))
            growth[count] = medians(self.runner.alternate(
                f"growth, {count} tokens", commands.media(self.serials), self.runs))

    def two_at_once(self):
        """What a second processor is worth: the same signatures one after the other, and two at a
        time, on one token; and how many of these were right."""
        for command in commands.sign_apart(*self.serials, self.file(KIB), self.file(32)):
            alone, _ = self.runner.many(command, self.runs * 4, at_once=1)
            both, right = self.runner.many(command, self.runs * 4, at_once=2)
            self.results["at_once"][command.name] = {
                "alone_s": alone, "two_s": both, "gain": alone / both, "right": right,
                "of": self.runs * 4}

    def calls_to_the_token(self):
        """What a slow card feels, from a token without a key to one: everything from here on goes
        through a module that takes notes."""
        notes = self.setting.folder / "notes"
        spy = spy_on_softhsm(self.setting.folder / "modules")
        self.runner.env |= {"PKCS11SPY": commands.SOFTHSM, "PKCS11SPY_OUTPUT": str(notes)}
        self.count_calls("key create", commands.make(*self.serials, spy), notes)
        self.setting.certify(*self.serials)
        self.count_calls("media list", commands.media(self.serials, spy), notes)
        self.count_calls("key test-valid", commands.password(*self.serials, PIN, spy), notes)
        self.count_calls("sign create-ext", self.sign(self.file(KIB), engine_module=spy), notes)

    def count_calls(self, name, contenders, notes):
        self.results["calls"][name] = {command.name: self.runner.calls(command, notes)
                                       for command in filter(is_peer, contenders)}

    def generation(self):
        make, delete = commands.make_and_delete(self.runner.run, *self.serials)
        self.runner.run(dataclasses.replace(delete[0], prepare=lambda: None))
        self.work("make a key (peer: one pair)", make, None, runs=self.few_runs)
        self.work("delete a key (peer: one pair)", delete, None, runs=self.few_runs)

    def file(self, length):
        path = pathlib.Path(f"data-{length}")
        if not path.exists():
            with path.open("wb") as file:
                for start in range(0, length, MIB):
                    file.write(self.block[:length - start])
            os.sync()
        return path

    def sign(self, data, **options):
        return commands.sign(self.runner.run, *self.serials, data, **options)

    def signed(self, length):
        """A file and velmora's signature of it."""
        data = self.file(length)
        signature = data.with_suffix(".p7s")
        if not signature.exists():
            self.runner.run(self.sign(data)[0])
            os.rename("velmora.p7s", signature)
        return data, signature


def is_peer(command):
    return command.is_peer


def medians(times, which=0):
    return {name: statistics.median(run[which] for run in runs) if runs else None
            for name, runs in times.items()}


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("program", help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="few runs, 64 MiB in place of 1 GiB")
    parser.add_argument("--runs", type=int, help="runs of the small works, default 100")
    parser.add_argument("--pictures", type=pathlib.Path, help="a folder to draw two pictures into")
    parser.add_argument("--json", type=pathlib.Path, default=ROOT / "build/bench.json",
                        help="where the results go, with all runs; default build/bench.json")
    chosen = parser.parse_args()
    chosen.json = chosen.json.absolute()
    chosen.pictures = chosen.pictures and chosen.pictures.absolute()

    large, largest = (64 * MIB, 256 * MIB) if chosen.quick else (GIB, 2 * GIB)
    runs = chosen.runs or (10 if chosen.quick else 100)
    setting = Setting()
    os.chdir(setting.folder)
    if shutil.disk_usage(".").free < 2 * largest:
        raise Failed(f"{size(2 * largest)} needed in {setting.folder.parent}; see TMPDIR")
    loads = [os.getloadavg()[0]]
    benchmark = Benchmark(setting, runs, large, largest)
    benchmark.works()
    benchmark.instructions()
    benchmark.growth_with_size()
    benchmark.two_at_once()
    benchmark.generation()
    benchmark.calls_to_the_token()
    benchmark.growth_with_tokens()
    os.chdir("/")
    loads.append(os.getloadavg()[0])
    cpu = pathlib.Path("/proc/cpuinfo").read_text().partition("model name\t: ")[2].split("\n")[0]
    kernel = platform.release().split("-")[0]
    about = (f"{time.strftime('%F %T %Z')}; {cpu}, {os.cpu_count()} cores, Linux {kernel};"
             f" {runs} runs; load {loads[0]:.1f} before, {loads[1]:.1f} now")
    print(about)
    tables(benchmark.results)
    if chosen.pictures:
        pictures(benchmark.results["growth"], chosen.pictures)
    chosen.json.parent.mkdir(parents=True, exist_ok=True)
    chosen.json.write_text(json.dumps({"about": about, **benchmark.results}, indent=1))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("bench: terminated"))
    try:
        main()
    except (Failed, OSError) as failure:
        sys.exit(f"bench: {failure}")
