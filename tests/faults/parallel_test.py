#!/usr/bin/env python3
"""Many processes on one token at once: signatures, generations, everything with everything; and
beside one that hangs."""

import os
import re
import signal
import subprocess
import time
from collections import Counter

from setting import KEY, PIN, PROGRAM, USAGE, VERIFY, Setting, check, end, verdicts

place = Setting()
how = {"cwd": place.folder, "env": place.env}


def key(verb, serial):
    return ["key", verb, serial, PIN] + ["ds", "kep", "req.zip"] * (verb == "create")


def at_once(pause, commands):
    """What the commands answer, each started a pause after the one before."""
    started = []
    for each in commands:
        process = subprocess.Popen([PROGRAM, *each], stdout=subprocess.PIPE, text=True, **how)
        started.append((each[1], process))
        time.sleep(pause)
    answers = ((verb, process.communicate()[0]) for verb, process in started)
    return Counter((verb, text.replace(USAGE, "(usage)").strip()) for verb, text in answers)


def sign(serial):
    targets, signing = [*range(64)] + ["same"] * 16, ["sign", "create-ext", serial, PIN, "data"]
    said = at_once(0, [[*signing, f"{each}.p7s"] for each in targets])
    verified = place.bash(f"for each in *.p7s; do {VERIFY} $each && echo yes; done | wc -l")
    right = said == {("create-ext", "DONE"): 80} and verified == "65"
    check(right, "signatures:", said, verified, "files verify")


def stopped(command, lock):
    """The number of a process that has stopped with its first lock of the kind."""
    trace, locked = place.folder / "trace", rf"/dev/null>, F_OFD_SETLK, \{{l_type={lock}.* = 0"
    while True:  # whoever has to wait for another one makes more calls
        place.answer(*command, wrapper=place.traced())
        when = next(i for _, i, rest in place.system_calls() if re.search(locked, rest))
        stop = place.traced("-e", f"inject=fcntl:signal=STOP:when={when}")
        trace.write_text("")
        started = subprocess.Popen([*stop, PROGRAM, *command], stdout=subprocess.DEVNULL, **how)
        while "stopped by SIGSTOP" not in trace.read_text() and started.poll() is None:
            time.sleep(0.01)
        process = int(trace.read_text().split()[0])
        if re.search(locked + ".*\n.*SIGSTOP", trace.read_text()):
            return process
        if started.poll() is None:
            os.kill(process, signal.SIGKILL)


def hang(command, lock, other):
    """A process that hangs is waited for, but not for long by those at another token."""
    process, begun = stopped(command, lock), time.monotonic()
    signing = ["sign", "create-ext", other, PIN, "data"]
    said = at_once(0, [["media", "list", other], key("test-access", other),
                       *([*signing, f"{each}.p7s"] for each in range(16))])
    took = time.monotonic() - begun
    os.kill(process, signal.SIGKILL)
    right = {("list", other): 1, ("test-access", "PASSED"): 1, ("create-ext", "DONE"): 16}
    check(said == right and 4 < took < 20, "beside", command, "that hangs:", said, "after", took)


def change(serial, rounds):
    create, delete, *looks = (
        *(key(each, serial) for each in ("create", "delete", "test-access", "test-valid")),
        ["media", "list", serial])
    heard = Counter()
    for i in range(rounds):
        many = 2 if i < rounds // 2 else 12
        pause = 0.005 * i / many
        made = at_once(pause, [create, *looks] + [create] * (many - 1))
        valid, kinds = place.answer(*key("test-valid", serial)), place.objects("Bob")[1]
        right = made["create", "DONE"] == 1 and made["create", "FAIL"] == many - 1
        check(right and valid == "PASSED" and kinds == KEY, "generations:", i, made, valid, kinds)
        mixed = at_once(pause, [delete, *looks, create, delete])
        place.answer(*delete)
        left = place.objects("Bob")[0]
        check(mixed["delete", "DONE"] and not left, "deletions:", i, mixed, left)
        heard += made + mixed
    right = {"list": [serial], "create": ["DONE", "FAIL"], "delete": ["DONE", "FAIL", "(usage)"]}
    for verb, text in heard:
        check(text in right.get(verb, ["PASSED", "FAILED"]), verb, "answers", text)
    check(place.answer(*create) == "DONE", "no key can be made")
    place.certify(serial)
    check(place.answer(*key("test-all", serial)) == verdicts(3), "the key does not work")


alice = place.token_with_key("Alice")
sign(alice)
hang(key("test-valid", place.token_with_key("Carol")), "F_WRLCK", alice)
hang(["media", "list"], "F_RDLCK", alice)
change(place.token("Bob"), 16)
end("parallel:")
