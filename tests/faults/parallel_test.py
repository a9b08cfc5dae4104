#!/usr/bin/env python3
"""Many processes on one token at once: signatures, generations, everything with everything."""

import subprocess
import sys
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from setting import KEY, PIN, PROGRAM, VERIFY, Setting


def key(verb, serial):
    return ["key", verb, serial, PIN] + ["ds", "kep", "req.zip"] * (verb == "create")


def at_once(place, pause, *commands):
    """What the commands answer, each started a pause after the one before."""
    started, how = [], {"cwd": place.folder, "env": place.env, "stdout": subprocess.PIPE}
    for each in commands:
        started.append(subprocess.Popen([PROGRAM, *each], **how))
        time.sleep(pause)
    return Counter(each.communicate()[0].decode().strip() for each in started)


def sign(place):
    serial = place.token_with_key("Alice")
    targets = [f"{i}.p7s" for i in range(64)] + ["same.p7s"] * 16
    signing = ["sign", "create-ext", serial, PIN, "ds.pem"]
    said = at_once(place, 0, *([*signing, each] for each in targets))
    right = place.bash(f"cp ds.pem data; for each in *.p7s; do {VERIFY} $each && echo yes; done")
    print(f"signatures: {dict(said)}, {right.count('yes')} of 65 files verify")
    return said == {"DONE": 80} and right.count("yes") == 65


def create(place, rounds):
    serial, wrong = place.token("Bob"), []
    for i in range(rounds):
        many = 2 if i < rounds // 2 else 12
        said = at_once(place, 0.005 * i / many, *[key("create", serial)] * many)
        kinds = place.objects("Bob")[1]
        then = b"".join(place.run(*key(each, serial)).stdout for each in ("test-valid", "delete"))
        if said != {"DONE": 1, "FAIL": many - 1} or kinds != KEY or then != b"PASSED\nDONE\n":
            wrong.append((i, said, kinds, then))
    print(f"generations, 2 or 12: {rounds} rounds, {len(wrong)} failures", *wrong)
    return not wrong


def mix(place, times):
    serial = place.token("Carol")
    changers = [["create", "delete"], ["create", "delete"], ["delete", "create"]]
    groups = [["list"], ["test-access"] * 3, ["test-valid"]] + changers
    words = lambda each: key(each, serial) if each != "list" else ["media", "list", serial]
    answer = lambda each: (each, place.run(*words(each)).stdout.decode().split("\n")[0])
    with ThreadPoolExecutor(len(groups)) as pool:
        answers = pool.map(lambda group: [answer(each) for each in group * times], groups)
    heard = Counter(sum(answers, []))
    right = {"list": [serial]} | dict.fromkeys(["test-access", "test-valid"], ["PASSED", "FAILED"])
    wrong = [(each, text) for each, text in heard if text not in right.get(each, [text])]
    place.run(*key("delete", serial))
    left = place.objects("Carol")[0]
    created = answer("create")[1]
    place.certify(serial)
    passed = place.run(*key("test-all", serial)).stdout.count(b"passed")
    print(f"list, tests, create, delete: {sum(heard.values())} runs, wrong answers {wrong},"
          f" a deletion leaves <{left}>, then {created}, {passed} tests passed")
    often = min(heard["create", "DONE"], heard["delete", "DONE"]) >= times // 2
    return often and not wrong and not left and created == "DONE" and passed == 4


with Setting() as setting:
    results = [sign(setting), create(setting, 16), mix(setting, 12)]
sys.exit(not all(results))
