#!/usr/bin/env python3
"""A command with a hostile word goes as it does with a harmless one of the same length, and so does
its log, with the word escaped: no more records, no control characters, nothing expanded."""

import itertools
import re

from setting import PIN, Setting, check, end

LONGEST = 128 * 1024 - 1  # that the system takes
HOSTILE = {
    "every byte": bytes(byte for byte in range(1, 256) if byte != ord("/")),
    "forged record": b"x\n2026-01-01T00:00:00.000Z 1 1 main main.cpp:1 fail: forged\n ",
    "conversions": b"%s%n%1$s%99999999d%*d%",
    "128 KiB": (b"\n\x1b[2J%s%n\\\xc2\x9b\xff" * LONGEST)[:LONGEST],
}
CONTROL = rb"[\x00-\x1f\x7f\\]|\xc2(?=[\x80-\x9f])|(?<=\xc2)[\x80-\x9f]"
NAMED = {b"\t": rb"\t", b"\n": rb"\n", b"\r": rb"\r", b"\\": rb"\\"}


def escaped(word):
    return re.sub(CONTROL, lambda byte: NAMED.get(byte[0], b"\\x%02x" % ord(byte[0])), word)


def runs(word):
    """What commands with the word answer, and what they log, without time and process."""
    log = setting.folder / "log/velmora.log"
    log.unlink(missing_ok=True)
    commands = [["media", "list", word], ["key", "test-access", word, PIN], [word] * 9,
                ["key", "delete", word, PIN], ["key", "test-sign", serial, word],
                ["sign", "verify", word, word, word],
                ["key", "create", serial, PIN, "ds", "kep", word], ["key", "delete", serial, PIN]]
    return ([setting.answer(*command) for command in commands],
            [record.split(b" ", 2)[2] for record in log.read_bytes().split(b"\n")[:-1]])


with Setting() as setting:
    serial = setting.token("arguments")
    holding = 0
    for name, word in HOSTILE.items():
        harmless = b"y" * len(word)
        (answers, records), actual = runs(harmless), runs(word)
        holding += sum(harmless in record for record in records)
        expected = answers + [record.replace(harmless, escaped(word)) for record in records]
        for wanted, got in itertools.zip_longest(expected, sum(actual, [])):
            check(wanted == got, f"{name}: expected {wanted!r:.500}, got {got!r:.500}")
    check(holding == 4 * len(HOSTILE), holding, "records hold a hostile word")
    end("arguments:")
