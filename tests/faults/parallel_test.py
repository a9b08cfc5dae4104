#!/usr/bin/env python3
"""Many processes on one token at once: signatures, generations, everything with everything."""

import subprocess
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from setting import KEY, PIN, PROGRAM, VERIFY, Setting, check, end, verdicts


def key(verb, serial):
    return ["key", verb, serial, PIN] + ["ds", "kep", "req.zip"] * (verb == "create")


def at_once(place, pause, commands):
    """What the commands answer, each started a pause after the one before."""
    started, how = [], {"cwd": place.folder, "env": place.env, "stdout": subprocess.PIPE}
    for each in commands:
        started.append(subprocess.Popen([PROGRAM, *each], **how))
        time.sleep(pause)
    return Counter(each.communicate()[0].decode().strip() for each in started)


def sign(place):
    serial = place.token_with_key("Alice")
    targets, signing = [*range(64)] + ["same"] * 16, ["sign", "create-ext", serial, PIN, "ds.pem"]
    said = at_once(place, 0, [[*signing, f"{each}.p7s"] for each in targets])
    each = f"{VERIFY} $each && echo yes"
    verified = place.bash(f"cp ds.pem data; for each in *.p7s; do {each}; done | wc -l")
    check(said == {"DONE": 80} and verified == "65", "signatures:", said, verified, "files verify")


def create(place, rounds):
    serial = place.token("Bob")
    for i in range(rounds):
        many = 2 if i < rounds // 2 else 12
        said = at_once(place, 0.005 * i / many, [key("create", serial)] * many)
        kinds = place.objects("Bob")[1]
        then = [place.answer(*key(each, serial)) for each in ("test-valid", "delete")]
        right = said == {"DONE": 1, "FAIL": many - 1} and kinds == KEY
        check(right and then == ["PASSED", "DONE"], "generations:", i, said, kinds, then)


def mix(place, times):
    serial = place.token("Carol")
    changers = [["create", "delete"], ["create", "delete"], ["delete", "create"]]
    groups = [["list"], ["test-access"] * 3, ["test-valid"]] + changers
    words = lambda each: key(each, serial) if each != "list" else ["media", "list", serial]
    answer = lambda each: (each, place.answer(*words(each)))
    with ThreadPoolExecutor(len(groups)) as pool:
        answers = pool.map(lambda group: [answer(each) for each in group * times], groups)
    heard = Counter(sum(answers, []))
    right = {"list": [serial], "create": ["DONE", "FAIL"], "delete": ["DONE", "FAIL", "(usage)"]}
    for each, text in heard:
        check(text in right.get(each, ["PASSED", "FAILED"]), each, "answers", text)
    check(min(heard["create", "DONE"], heard["delete", "DONE"]) >= times // 2, "too few:", heard)
    place.answer(*key("delete", serial))
    check(not place.objects("Carol")[0], "a deletion leaves", place.objects("Carol"))
    check(answer("create")[1] == "DONE", "no key can be made")
    place.certify(serial)
    check(answer("test-all")[1] == verdicts(3), "the key does not work")


with Setting() as setting:
    sign(setting)
    create(setting, 16)
    mix(setting, 12)
    end("parallel:")
