#!/usr/bin/env python3
"""Every allocation of every command fails in turn: the answer is the one that was earned, or FAIL.

PROGRAM FAILING_MEMORY: tries each place in velmora's own binaries once, and some of the libraries'
(what those make of it is told, not judged). With EXHAUSTIVE set each place of each command."""

import collections
import os
import shutil
import subprocess
import sys
import zipfile

from setting import PIN, Setting

OWN = ("velmora", "euscp.so", "euscp-pkcs11.so", "liblog2.so")
STRIDE = 1 if "EXHAUSTIVE" in os.environ else 50
DONE, PASSED, FAILED, FAIL = (b"DONE\n", 0), (b"PASSED\n", 0), (b"FAILED\n", 0), (b"FAIL\n", 70)
UNVERIFIED = (b"FAILED\n", 64)  # the contract's word for all that fails there; the log tells why
LOADER = (b"", 127)  # the loader ends the process: no memory for a library's thread-local data
VERDICTS = [(b'{"test-key-access":"%s","test-key-valid":"%s",'
             b'"test-key-sign":"%s","test-all":"%s"}\n'
             % tuple(b"passed" if i < n else b"failed" for i in (0, 1, 2, 2)), 0)
            for n in range(3)]


class Sweep(Setting):
    tried, strange, failures, seen = 0, collections.Counter(), 0, set()

    def __init__(self):
        super().__init__()
        self.key, self.empty = self.token_with_key("Alice"), self.token("Bob")
        (self.folder / "data").write_bytes(b"data" * 1000)
        assert self.answer("sign", "create-ext", self.key, PIN, "data", "good.p7s") == DONE
        shutil.copytree(self.folder / "tokens", self.folder / "as-before")

    def answer(self, *words, **env):
        try:
            run = self.run(*words, env={**self.env, **env})
        except subprocess.TimeoutExpired:
            return "hangs"
        return (run.stdout, run.returncode, run.stderr)[:3 if run.stderr else 2]

    def failing(self, words, **failure):
        """The answer, with all else as it was before."""
        for name in "out.p7s", "out.zip":
            (self.folder / name).write_bytes(b"old")
        shutil.rmtree(self.folder / "tokens")
        shutil.copytree(self.folder / "as-before", self.folder / "tokens")
        return self.answer(*words, LD_PRELOAD=sys.argv[2], TRACE_MEMORY="trace", **failure)

    def trace(self):
        return [line.split() for line in (self.folder / "trace").read_text().splitlines()]

    def harm(self, words, answer):
        """What is wrong with what the command left, or nothing."""
        if [*self.folder.glob(".signature.*"), *self.folder.glob("out.zip.*")]:
            return "a temporary file"
        if (self.folder / "out.p7s").read_bytes() != b"old" and self.answer(
                "sign", "verify", "data", "out.p7s", "ds.pem") != PASSED:
            return "half a signature"
        if (self.folder / "out.zip").read_bytes() != b"old":
            with zipfile.ZipFile(self.folder / "out.zip") as archive:
                if archive.namelist() != ["a", "b"] or archive.testzip():
                    return "half an archive"
        if words[1:2] == ("create",) and self.answer("key", "test-valid", *words[2:4]) != PASSED:
            if answer == DONE or self.answer(*words) != DONE:
                return "no key, or none to be made"
        if words[1:2] == ("delete",) and answer == DONE:
            if len([*self.folder.glob("tokens/*/*.object")]) > 2:  # with the token's own
                return "objects that should be gone"
        return None

    def sweep(self, *words, negative=()):
        earned, tried = self.failing(words), 0
        for number, place, owner in self.trace():
            if place in self.seen or (owner not in OWN and int(place, 16) % STRIDE != 0):
                continue
            self.seen.add(place)
            answer = self.failing(words, FAIL_MEMORY=f"{number}:{place}")
            wrong = self.harm(words, answer)
            if answer not in (earned, FAIL, *negative):
                wrong = answer
            if wrong and owner in OWN and answer[:2] != LOADER:
                self.failures += 1
                print("FAILED:", *words, "allocation", number, place, owner, wrong)
            elif wrong:
                self.strange[owner] += 1
            tried += len(self.trace())  # a few are not met again
        self.tried += tried
        if STRIDE == 1:
            print(*words[:2], tried, "allocations failed", flush=True)
            self.seen.clear()


with Sweep() as sweep:
    key = sweep.key, PIN
    sweep.sweep()
    sweep.sweep("media", "list")
    sweep.sweep("media", "list", sweep.key)
    sweep.sweep("key", "test-access", *key)
    sweep.sweep("key", "test-valid", *key, negative=[FAILED])
    sweep.sweep("key", "test-sign", *key, negative=[FAILED])
    sweep.sweep("key", "test-all", *key, negative=VERDICTS)
    sweep.sweep("sign", "crt-info", *key)
    sweep.sweep("sign", "export-crt", *key, "new.crt")
    sweep.sweep("sign", "create-ext", *key, "data", "out.p7s")
    sweep.sweep("sign", "verify", "data", "good.p7s", "ds.pem", negative=[UNVERIFIED])
    sweep.sweep("sign", "verify", "ds.pem", "good.p7s", "ds.pem", negative=[UNVERIFIED])
    sweep.sweep("key", "create", sweep.empty, PIN, "a", "b", "out.zip")
    sweep.sweep("key", "delete", *key)
    print(f"memory: {sweep.tried} allocations failed, {sweep.failures} failures;",
          "other libraries' crashes and wrong answers:", dict(sweep.strange))
    sys.exit(sweep.failures > 0)
