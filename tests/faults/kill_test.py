#!/usr/bin/env python3
"""Kills each command at its system calls: what it leaves, and how the next commands fare.

What a killed process leaves is what it has written, so a kill before a call that changes a file or
a folder stands for one at any call since the change before. SoftHSM rewrites an object some thirty
times to make it, which leaves much the same each time: of the changes to one file the first two,
the last six (which complete an object) and every twentieth are taken; where the target exists, only
what touches it.
"""

import os
import re
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack

from setting import KEY, PIN, Setting, check, end

COMMANDS = {  # the words after serial and password
    "key create": "ds kep target!", "key delete": "",
    "sign create-ext": "data target!", "sign export-crt": "target!",
}
CHANGES = {"write", "pwrite64", "ftruncate", "rename", "renameat", "unlink", "fchmod"}


class Place(Setting):
    """A token, and files beside it, that are put back before each kill."""

    left = []  # by the kills in all places

    def __init__(self):
        super().__init__()
        self.env["ASAN_OPTIONS"] = "detect_leaks=0"  # which does not work under a tracer
        self.serial = self.token_with_key("Alice")
        self.bash("openssl x509 -in ds.pem -outform DER -out ds.crt")
        self.bash("cp ca.pem data; cp -r tokens full")
        self.do("key delete")
        self.bash("cp -r tokens bare")

    def do(self, command, *wrapper):
        words = COMMANDS.get(command, "").split()
        return self.answer(*command.split(), self.serial, PIN, *words, wrapper=wrapper)

    def start(self, command, before):
        """Puts everything back; before is what the command's target holds, or None."""
        token = "bare" if command == "key create" else "full"
        target = f"printf {before.decode()} >target!" if before else ""
        self.bash(f"rm -rf tokens log target!* .signature.*; cp -r {token} tokens; {target}")

    def calls(self, command, before):
        """What to kill at: a system call's name, and its number among those of that name."""
        self.start(command, before)
        # Without the prctl that keeps its files from being looked at.
        tracing = "strace", "-fqqyo", "trace", "-e", "inject=prctl:retval=0"
        assert self.do(command, *tracing) == "DONE"
        trace = (self.folder / "trace").read_text()
        own = trace.split()[0] + r' +(\w+)\((?:(?<=at\()[^ "]* )?(?:\d+<([/p][^>]*)>|"([^"]*)")?(.*)'
        counts, points = Counter(), {}
        for name, opened, named, rest in re.findall(own, trace):
            counts[name] += 1
            path = opened or named
            made = name == "openat" and "O_CREAT" in rest and path not in points
            if path and (made or name in CHANGES):
                points.setdefault(path, []).append((name, counts[name]))
        return [
            call for path, group in points.items() for i, call in enumerate(group)
            if (before is None or re.search(r"target!|\.signature", path))
            and (i < 2 or i % 20 == 0 or i >= len(group) - 6)
        ]

    def kill(self, command, before, call):
        """Kills there, and looks at what that leaves."""
        self.start(command, before)
        name, number = call
        killed = self.do(command, "strace", "-fqqo", "trace", "-e", f"trace={name}",
                         "-e", f"inject={name}:signal=KILL:when={number}")
        # At each login SoftHSM cuts the token's own file to nothing, and then writes it anew. Any
        # program that is killed in between leaves a token that is none any more; and without a
        # login no key opens.
        if not next(self.folder.glob("tokens/*/token.object")).stat().st_size:
            return self.left.append("token lost")
        if "> status -9 " not in killed:  # another module's thread shifts the calls
            self.left.append("not killed")
        now = next((each.read_bytes() for each in self.folder.glob("target!")), None)
        point, verb = (command, before, name, number), command.split()[1]
        public = r"Public Key(?:.*\n )+ label: +DS\n(?: .*\n)+? +Usage:.*\bverify\b"
        shows = re.search(public, self.objects("Alice")[0]) is not None
        listed, access = self.answer("media", "list", self.serial), self.do("key test-access")
        check(listed == self.serial, point, "the token is not listed")
        check(access == ("PASSED" if shows else "FAILED"), point, "test-access", access, shows)
        check(now == before or verb == "export-crt" or self.is_whole(verb), point, "half a target")
        right = command.startswith("key") or self.do(command) == "DONE" and self.is_whole(verb)
        check(right, point, "the next run does not do it")
        check(not shows or self.do("key delete") == "DONE", point, "no deletion")
        check(self.do("key create") == "DONE" and self.is_whole("create"), point, "no generation")
        check(self.do("key test-valid") == "PASSED", point, "its key does not open")
        kinds = self.objects("Alice")[1]
        # What SoftHSM had given no class yet: nobody can tell what it was to be, and no one asks.
        if kinds.pop("Data", 0):
            self.left.append("object without a class")
        check(kinds == KEY, point, "two key pairs should be there, not", kinds)


workers = os.cpu_count() or 1
with ThreadPoolExecutor(workers) as pool, ExitStack() as stack:
    places = [stack.enter_context(Place()) for _ in range(workers)]
    for command, words in COMMANDS.items():
        starts = [(command, before) for before in ([None, b"before"] if words else [None])]
        points = [(*start, call) for start in starts for call in places[0].calls(*start)]
        sweep = lambda i: [places[i].kill(*each) for each in points[i::workers]]
        list(pool.map(sweep, range(workers)))
        left = Counter(Place.left)
        print(f"{command}: {len(points)} kill points; what is left: {dict(left)}")
        check(len(points) >= 10, command, "has few points to kill it at")
        few = left["token lost"] <= 4 * len(starts) and left["not killed"] <= 2 + len(points) // 99
        check(few, command, "loses too many tokens, or is killed too seldom")
        Place.left.clear()
    end("kills:")
