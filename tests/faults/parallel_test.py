#!/usr/bin/env python3
"""Many processes on one token at once: signatures, generations, everything with everything."""

import time
from collections import Counter

from setting import KEY, PIN, VERIFY, Setting, check, end, key, pool, verdicts

place = Setting()


def at_once(pause, commands):
    """What the commands answer, each started a pause after the one before."""
    running = []
    for words in commands:
        running.append((words[1], pool.submit(place.answer, *words)))
        time.sleep(pause)
    return Counter((verb, answer.result()) for verb, answer in running)


def sign(serial):
    targets, signing = [*range(64)] + ["same"] * 16, ["sign", "create-ext", serial, PIN, "data"]
    said = at_once(0, [[*signing, f"{each}.p7s"] for each in targets])
    verified = place.bash(f"for each in *.p7s; do {VERIFY} $each && echo yes; done | wc -l")
    right = said == {("create-ext", "DONE"): 80} and verified == "65"
    check(right, "signatures:", said, verified, "files verify")


def change(serial, rounds):
    create, delete = key("create", serial), key("delete", serial)
    looks = [key("test-access", serial), key("test-valid", serial), ["media", "list", serial]]
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


sign(place.token_with_key("Alice"))
change(place.token("Bob"), 16)
end("parallel:")
