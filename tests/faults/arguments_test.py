#!/usr/bin/env python3
"""A command with a hostile word goes as it does with a harmless one of the same length, and so does
its log, with the word escaped: no more records, no control characters, nothing expanded."""

import re
import sys
from itertools import zip_longest

from setting import PIN, Setting

LONGEST = 128 * 1024 - 1  # that the system takes
HOSTILE = {
    "every byte": bytes(byte for byte in range(1, 256) if byte != ord("/")),
    "forged record": b"x\n2026-01-01T00:00:00.000Z 1 1 main main.cpp:1 fail: forged\n ",
    "conversions": b"%s%n%1$s%99999999d%*d%",
    "no UTF-8": b"\xff\xfe\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xc2",
    "128 KiB": (b"\n\x1b[2J%s%n\\\xc2\x9b\xff" * LONGEST)[:LONGEST],
}


def escaped(word):
    def byte(value):
        return {9: rb"\t", 10: rb"\n", 13: rb"\r", 92: rb"\\"}.get(value, b"\\x%02x" % value)

    control = rb"\xc2[\x80-\x9f]|[\x00-\x1f\x7f\\]"
    return re.sub(control, lambda found: b"".join(map(byte, found[0])), word)


def runs(setting, serial, word):
    """What commands with the word answer; what they log, without time and process."""
    log = setting.folder / "log/velmora.log"
    log.unlink(missing_ok=True)
    commands = [["key", "test-access", word, PIN], ["key", "delete", word, PIN], ["media", "list", word],
                ["sign", "verify", word, word, word], ["key", "test-sign", serial, word],
                ["key", "create", serial, PIN, "ds", "kep", word], ["key", "delete", serial, PIN],
                [word] * 9]
    answers = [setting.run(*command) for command in commands]
    records = log.read_bytes().split(b"\n")[:-1]
    return ([(done.returncode, done.stdout, done.stderr) for done in answers],
            [record.split(b" ", 2)[2] for record in records])


with Setting() as setting:
    serial = setting.token("arguments")
    count = failures = 0
    for name, word in HOSTILE.items():
        harmless = b"y" * len(word)
        answers, records = runs(setting, serial, harmless)
        expected = answers + [record.replace(harmless, escaped(word)) for record in records]
        actual = sum(runs(setting, serial, word), [])
        for wanted, got in zip_longest(expected, actual):
            if wanted != got:
                failures += 1
                print(f"{name}: expected {wanted!r:.500}, got {got!r:.500}")
        count += sum(harmless in record for record in records)
    print(f"arguments: {count} records that hold a hostile word, {failures} failures")
    sys.exit(failures > 0 or count != 4 * len(HOSTILE))
