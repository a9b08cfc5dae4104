#!/usr/bin/env python3
"""A command with a hostile word goes as it does with a harmless one of the same length, and so does
its log, with the word escaped: no more records, no control characters, nothing expanded."""

import itertools
import re

from setting import PIN, Setting, check, end

ODD = "".join(map(chr, [*range(1, 32), *range(127, 256)]))  # written as bytes
NAME = "x\n2026-01-01T00:00:00.000Z 1 1 f m.cpp:1 fail: forged\n \\ %s%n%1$s%99999999d%*d%" + ODD
LONGEST = (NAME * 999)[:128 * 1024 - 1]  # that the system takes
CONTROL = r"[\x00-\x1f\x7f\\]|\xc2(?=[\x80-\x9f])|(?<=\xc2)[\x80-\x9f]"
NAMED = {"\t": r"\t", "\n": r"\n", "\r": r"\r", "\\": r"\\"}


def escaped(word):
    return re.sub(CONTROL, lambda byte: NAMED.get(byte[0], f"\\x{ord(byte[0]):02x}"), word)


def runs(word):
    """What commands with the word answer, and what they log, without time and process."""
    commands = [["media", "list", word], ["key", "test-access", word, PIN], [word] * 9,
                ["key", "delete", word, PIN], ["key", "test-sign", serial, word],
                ["sign", "verify", word, word, word],
                ["key", "create", serial, PIN, "ds", "kep", word], ["key", "delete", serial, PIN]]
    encoded = ([each.encode("latin-1") for each in command] for command in commands)
    answers, logs = zip(*(setting.logged(*command) for command in encoded))
    return [*answers, *(record.split(" ", 2)[2] for record in "".join(logs).split("\n")[:-1])]


setting = Setting()
serial = setting.token("arguments")
for word in NAME, LONGEST, "\xc2\x9b" * 99:
    harmless = "y" * len(word)
    expected, actual = runs(harmless), runs(word)
    check(sum(harmless in each for each in expected) == 4, "four records hold the word")
    for wanted, got in itertools.zip_longest(expected, actual):
        wanted = wanted and wanted.replace(harmless, escaped(word))
        check(wanted == got, f"expected {wanted!r:.500}, got {got!r:.500}")
end("arguments:")
