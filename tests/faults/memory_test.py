#!/usr/bin/env python3
"""Every allocation of every command fails in turn: the answer is the one that was earned, or FAIL.

PROGRAM FAILING_MEMORY: tries each place in velmora's own binaries once, and some of the libraries'
(of what those make of it, only a verdict is judged)."""

import collections
import shutil
import sys

from setting import PIN, Setting, check, end, verdicts

OWN = ("velmora", "euscp.so", "liblog2.so")
STRIDE = 150


class Sweep(Setting):
    tried, seen = collections.Counter(), set()

    def __init__(self):
        super().__init__()
        self.key, self.empty = self.token_with_key("Alice"), self.token("Bob")
        self.bash("cp -r tokens as-before")
        assert self.answer("sign", "create-ext", self.key, PIN, "data", "good.p7s") == "DONE"

    def failing(self, words, *failure):
        """The answer and the log, with all else as it was before; and the places in the trace."""
        (self.folder / "target!").write_text("old")
        shutil.rmtree(self.folder / "tokens")
        shutil.copytree(self.folder / "as-before", self.folder / "tokens")
        preload = f"LD_PRELOAD={sys.argv[2]}:{self.env['LD_PRELOAD']}"
        told = self.logged(*words, wrapper=["timeout", "60", "env", preload, *failure])
        places = (self.folder / "trace").read_text().splitlines()
        return *told, dict(line.split() for line in places)

    def harm(self, words, answer):
        """What is wrong with what the command left, or nothing."""
        command = words[1] if words else ""
        if [*self.folder.glob(".signature.*"), *self.folder.glob("target!.*")]:
            return "a temporary file"
        changed = (self.folder / "target!").read_bytes() != b"old"
        if changed and command != "export-crt" and not self.is_whole(command):
            return "half a signature or archive"
        if command == "create" and self.answer("key", "test-valid", *words[2:4]) != "PASSED":
            if answer == "DONE" or self.answer(*words) != "DONE":
                return "no key, or none to be made"
        if command == "delete" and answer == "DONE":
            if len([*self.folder.glob("tokens/*/*.object")]) > 2:  # with the token's own
                return "objects that should be gone"
        return None

    def sweep(self, *words, negative=()):
        earned, _, places = self.failing(words)
        new = places.keys() - self.seen
        self.seen |= new
        for place in sorted(new):
            owner = places[place]
            if owner not in OWN and int(place, 16) % STRIDE != 0:
                continue
            answer, log, failed = self.failing(words, f"FAIL_MEMORY={place}")
            self.tried[owner] += len(failed)  # a few are not met again
            crashed = "ended by a signal" in log
            right = answer in (earned, "FAIL", *negative) and not crashed
            wrong = self.harm(words, answer) if right else "a crash" if crashed else answer
            # The loader ends the process: no memory for a library's thread-local data.
            loader = "thread-local data" in answer + log or " status 127 " in answer
            judged = answer == "PASSED" or owner in OWN and not loader
            check(not (wrong and judged), *words, "allocation", place, owner, wrong)


sweep = Sweep()
key, negative = (sweep.key, PIN), ["FAILED"]
sweep.sweep()
sweep.sweep("media", "list", sweep.key)
sweep.sweep("key", "test-access", *key)
sweep.sweep("key", "test-valid", *key, negative=negative)
sweep.sweep("key", "test-sign", *key, negative=negative)
sweep.sweep("key", "test-all", *key, negative=[verdicts(n) for n in range(3)])
sweep.sweep("sign", "crt-info", *key)
sweep.sweep("sign", "export-crt", *key, "target!")
sweep.sweep("sign", "create-ext", *key, "data", "target!")
# FAILED is the contract's word for all that fails there; the log tells why.
sweep.sweep("sign", "verify", "data", "good.p7s", "ds.pem", negative=negative)
sweep.sweep("sign", "verify", "ds.pem", "good.p7s", "ds.pem", negative=negative)
sweep.sweep("key", "create", sweep.empty, PIN, "ds", "kep", "target!")
sweep.sweep("key", "delete", *key)
check(sweep.tried.total() > 400, "no allocation fails")
end("memory:", dict(sweep.tried))
