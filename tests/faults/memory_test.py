#!/usr/bin/env python3
"""Every allocation of every command fails in turn: the answer is the one that was earned, or FAIL.

PROGRAM FAILING_MEMORY: tries each place in velmora's own binaries and in libzip once, and some of
the other libraries' (of what those make of it, only a verdict is judged)."""

import collections
import re
import shutil
import sys

from setting import PIN, Setting, check, commands, end, key, verdicts

SWEPT = ("velmora", "euscp.so", "liblog2.so", "libzip.so")
STRIDE = 150
# What an answer may be besides the one that was earned and FAIL: that of a key that cannot be
# opened, or of any verification that fails; the log tells why.
NEGATIVE = {"test-valid": ["FAILED"], "test-sign": ["FAILED"], "verify": ["FAILED"],
            "test-all": [*map(verdicts, range(3))]}

setting, tried, seen, causes = Setting(), collections.Counter(), set(), set()
serial, empty, folder = setting.token_with_key("Alice"), setting.token("Bob"), setting.folder
setting.bash("cp -r tokens as-before")


def failing(words, *failure):
    """The answer and the log, with all else as it was before; and the places in the trace."""
    (folder / "target!").write_text("old")
    shutil.rmtree(folder / "tokens")
    shutil.copytree(folder / "as-before", folder / "tokens")
    preload = f"LD_PRELOAD={sys.argv[2]}:{setting.env['LD_PRELOAD']}"
    told = setting.logged(*words, wrapper=["timeout", "60", "env", preload, *failure])
    places = (folder / "trace").read_text().splitlines()
    return *told, dict(line.split() for line in places)


def harm(words, answer):
    """What is wrong with what the command left, or nothing."""
    command = words[1] if words else ""
    changed = (folder / "target!").read_bytes() != b"old"
    if changed and command != "export-crt" and not setting.is_whole(command):
        return "half a signature or archive"
    if command == "create" and setting.answer("key", "test-valid", *words[2:4]) != "PASSED":
        if answer == "DONE" or setting.answer(*words) != "DONE":
            return "no key, or none to be made"
    if (command, answer) == ("delete", "DONE") and len([*folder.glob("tokens/*/*.object")]) > 2:
        return "objects besides the two tokens' own"
    return None


def sweep(words):
    earned, _, places = failing(words)
    may_be = [earned, "FAIL", *NEGATIVE.get(words[1] if words else "", [])]
    new = places.keys() - seen
    seen.update(new)
    for place in sorted(new):
        owner = places[place]
        swept = owner.startswith(SWEPT)
        if not swept and int(place, 16) % STRIDE != 0:
            continue
        answer, log, failed = failing(words, f"FAIL_MEMORY={place}")
        causes.update(re.findall(r"fail: (zip_\w+) \(", log))
        tried[owner] += len(failed)  # a few are not met again
        untold = owner.startswith("libzip") and answer == "FAIL" and not (
            "fail: zip_" in log and (folder / "target!").read_bytes() == b"old")
        wrong = ("a crash" if "ended by a signal" in log else
                 "no cause, or an archive" if untold else
                 harm(words, answer) if answer in may_be else answer)
        # The loader ends the process: no memory for a library's thread-local data.
        loader = "thread-local data" in answer + log or " status 127 " in answer
        judged = answer == "PASSED" or swept and not loader
        check(not (wrong and judged), *words, "allocation", place, owner, wrong)


assert setting.answer("sign", "create-ext", serial, PIN, "data", "signature") == "DONE"
for words in ([], key("create", empty), *commands(serial),
              ["sign", "verify", "ds.pem", "signature", "ds.crt"]):
    sweep(words)
check(tried.total() > 400, "no allocation fails")
check(causes >= {"zip_open", "zip_source_buffer", "zip_file_add", "zip_close"}, causes)
end("memory:", dict(tried))
