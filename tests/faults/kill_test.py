#!/usr/bin/env python3
"""Kills generations and deletions at their system calls: what is left, how the next commands fare.

What a killed process leaves is what it has written, and SoftHSM writes an object some thirty times
until it is complete: every few changes of a file there is a kill, and one at each of the last."""

import os
import re
from collections import Counter

from setting import KEY, Setting, check, end, key, pool

CHANGES = {"write", "pwrite64", "ftruncate", "rename", "renameat", "unlink", "fchmod"}


class Place(Setting):
    """A token, and files beside it, that are put back before each kill."""

    def __init__(self):
        super().__init__()
        self.serial = self.token_with_key("Alice")
        self.bash("cp -r tokens before-delete")
        self.do("delete")
        self.bash("cp -r tokens before-create")

    def do(self, verb, *wrapper):
        return self.answer(*key(verb, self.serial), wrapper=wrapper)

    def anew(self, verb, *options):
        """Puts everything back, and does it traced."""
        self.bash(f"rm -rf tokens target!*; cp -r before-{verb} tokens")
        return self.do(verb, *self.traced(*options))

    def calls(self, verb):
        """What to kill at: a system call's name, and its number among those of that name."""
        assert self.anew(verb) == "DONE"
        changes = [(name, number) for name, number, rest in self.system_calls()
                   if name in CHANGES and ("/tokens/" in rest or "target!" in rest)]
        return [*dict.fromkeys(changes[::1 + len(changes) // 90] + changes[-6:])]

    def kill(self, verb, name, number):
        """Kills there, and looks at what that leaves."""
        killed = self.anew(verb, "-e", f"inject={name}:signal=KILL:when={number}")
        # At each login SoftHSM cuts the token's own file to nothing, and then writes it anew. Any
        # program that is killed in between leaves a token that is none any more; and without a
        # login no key opens.
        if not next(self.folder.glob("tokens/*/token.object")).stat().st_size:
            return left.append("token lost")
        if "> status -9 " not in killed:  # another module's thread shifts the calls
            left.append("not killed")
        point, target = (verb, name, number), self.folder / "target!"
        public = r"Public Key(?:.*\n )+ label: +DS\n(?: .*\n)+? +Usage:.*\bverify\b"
        shows = re.search(public, self.objects("Alice")[0]) is not None
        listed, access = self.answer("media", "list", self.serial), self.do("test-access")
        check(listed == self.serial, point, "the token is not listed")
        check(access == ("PASSED" if shows else "FAILED"), point, "test-access", access, shows)
        check(not target.exists() or self.is_whole("create"), point, "half a target")
        check(not shows or self.do("delete") == "DONE", point, "no deletion")
        check(self.do("create") == "DONE" and self.is_whole("create"), point, "no generation")
        check(self.do("test-valid") == "PASSED", point, "its key does not open")
        kinds = self.objects("Alice")[1]
        # What SoftHSM had given no class yet: nobody can tell what it was to be, and no one asks.
        if kinds.pop("Data", 0):
            left.append("object without a class")
        check(kinds == KEY, point, "two key pairs should be there, not", kinds)


places = [Place() for _ in range(os.cpu_count() or 1)]
for verb in "create", "delete":
    left = []  # by the kills in all places
    points = places[0].calls(verb)
    sweep = lambda i: [places[i].kill(verb, *each) for each in points[i::len(places)]]
    list(pool.map(sweep, range(len(places))))
    count = Counter(left)
    print(f"{verb}: {len(points)} kill points; what is left: {dict(count)}", flush=True)
    few = count["token lost"] <= 4 and count["not killed"] <= 2
    check(few and len(points) >= 20, verb, "loses too many tokens, or is killed too seldom")
end("kills:")
