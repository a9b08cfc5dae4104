#!/usr/bin/env python3
"""Kills each command at its system calls: what it leaves, and how the next commands fare.

What a killed process leaves is what it has written, so a kill before a call that changes a file or
a folder stands for one at any call since the change before. SoftHSM rewrites an object some thirty
times to make it, which leaves much the same each time: of the changes to one file the first two,
the last six (which complete an object) and every twentieth are taken; where the target exists, only
what touches it. VELMORA_FAULTS=all kills at every call, and looks at all that leaves other sizes.
"""

import os
import re
import sys
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack

from setting import KEY, PIN, VERIFY, Setting

ALL = os.environ.get("VELMORA_FAULTS") == "all"
COMMANDS = {  # the words after serial and password; what tells that the target is whole
    "key create": ("ds kep target!", "unzip -tq target! && unzip -qo target! && for each in ds kep;"
                   " do openssl req -inform DER -in $each -verify -noout || exit; done"),
    "key delete": ("", ""),
    "sign create-ext": ("data target!", VERIFY + "target!"),
    "sign export-crt": ("target!", "cmp target! ds.crt"),
}
CHANGES = {"write", "pwrite64", "ftruncate", "rename", "unlink", "fchmod"}


class Place(Setting):
    """A token, and files beside it, that are put back before each kill."""

    def __init__(self):
        super().__init__()
        self.env["ASAN_OPTIONS"] = "detect_leaks=0"  # which does not work under a tracer
        self.serial, self.seen = self.token_with_key("Alice"), set()
        self.bash("openssl x509 -in ds.pem -outform DER -out ds.crt; cp ca.pem data")
        self.bash("cp -r tokens full")
        self.do("key delete")
        self.bash("cp -r tokens bare")

    def do(self, command, *wrapper):
        words = COMMANDS[command][0].split() if command in COMMANDS else []
        done = self.run(*command.split(), self.serial, PIN, *words, wrapper=wrapper)
        return done.stdout.decode().strip() if done.returncode != -9 else "killed"

    def start(self, command, before):
        """Puts everything back; before is what the command's target holds, or None."""
        token = "bare" if command == "key create" else "full"
        target = f"printf {before.decode()} >target!" if before else ""
        self.bash(f"rm -rf tokens log target!* .signature.*; cp -r {token} tokens; {target}")

    def calls(self, command, before):
        """What to kill at: a system call's name, and its number among those of that name."""
        self.start(command, before)
        assert self.do(command, "strace", "-fqqyo", "trace") == "DONE"
        trace = (self.folder / "trace").read_text()
        own = trace.split()[0] + r' +(\w+)\((?:AT_FDCWD\S* )?(?:\d+<([/p][^>]*)>|"([^"]*)")?(.*)'
        counts, points = Counter(), {}
        for name, opened, named, rest in re.findall(own, trace):
            counts[name] += 1
            path = opened or named
            made = name == "openat" and "O_CREAT" in rest and path not in points
            if ALL and name != "execve" or path and (made or name in CHANGES):
                points.setdefault(path, []).append((name, counts[name]))
        return [
            call for path, group in points.items() for i, call in enumerate(group)
            if ALL or (before is None or re.search(r"target!|/\.signature", path))
            and (i < 2 or i % 20 == 0 or i >= len(group) - 6)
        ]

    def is_whole(self, command):
        return self.bash(f"({COMMANDS[command][1]}) >the-check && echo yes || true") == "yes"

    def kill(self, command, before, call):
        """Kills there. Returns what that may leave, and did, and what is wrong."""
        self.start(command, before)
        inject = f"inject={call[0]}:signal=KILL:when={call[1]}"
        end = self.do(command, "strace", "-fqqo", "trace", "-e", f"trace={call[0]}", "-e", inject)
        # At each login SoftHSM cuts the token's own file to nothing, and then writes it anew. Any
        # program that is killed in between leaves a token that is none any more; and without a
        # login no key opens.
        if not next(self.folder.glob("tokens/*/token.object")).stat().st_size:
            return ["token lost"], []
        left = [] if end == "killed" else ["not killed"]  # another module's thread shifts the calls
        now = next((each.read_bytes() for each in self.folder.glob("target!")), None)
        sizes = sorted((it.suffix, it.stat().st_size) for it in self.folder.glob("tokens/*/*"))
        if ALL and (command, before, now, *sizes) in self.seen:
            return left + ["seen"], []
        self.seen.add((command, before, now, *sizes))
        key = r"Public Key(?:.*\n )+ label: +DS\n(?: .*\n)+? +Usage:.*verify"
        shows = re.search(key, self.objects("Alice")[0]) is not None
        checks = {
            "the token is listed": self.run("media", "list", self.serial).stdout != b"",
            "test-access is true": self.do("key test-access") == ("PASSED" if shows else "FAILED"),
            "the target is whole or as it was":
                now == before or command == "sign export-crt" or self.is_whole(command),
            "the next run does it":
                command[0] == "k" or self.do(command) == "DONE" and self.is_whole(command),
            "a deletion succeeds": not shows or self.do("key delete") == "DONE",
            "a generation succeeds": self.do("key create") == "DONE",
            "its requests are whole": self.is_whole("key create"),
            "its key opens": self.do("key test-valid") == "PASSED",
        }
        kinds = self.objects("Alice")[1]
        # What SoftHSM had given no class yet: nobody can tell what it was to be, and no one asks.
        left += ["object without a class"] if kinds.pop("Data", 0) else []
        checks[f"two key pairs are there, not {dict(kinds)}"] = kinds == KEY
        return left, [what for what, holds in checks.items() if not holds]


workers, failed = os.cpu_count() or 1, False
with ThreadPoolExecutor(workers) as pool, ExitStack() as stack:
    places = [stack.enter_context(Place()) for _ in range(workers)]
    for command, (words, _) in COMMANDS.items():
        starts = [(command, before) for before in ([None, b"before"] if words else [None])]
        points = [(*start, call) for start in starts for call in places[0].calls(*start)]
        sweep = lambda i: [(each, *places[i].kill(*each)) for each in points[i::workers]]
        results = sum(pool.map(sweep, range(workers)), [])
        left = Counter(what for _, known, _ in results for what in known)
        wrong = [f"\n{point}: not so: {what}" for point, _, what in results if what]
        print(f"{command}: {len(points)} kill points, {len(wrong)} failures; {dict(left)}", *wrong)
        few = left["token lost"] <= 4 * len(starts) and left["not killed"] <= 2 + len(points) // 99
        failed = failed or bool(wrong) or not few or len(points) < 10
sys.exit(failed)
