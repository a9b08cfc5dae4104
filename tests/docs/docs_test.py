#!/usr/bin/env python3
"""What is said of the program holds: manual page, codes."""

import os
import re
import sys

sys.path.insert(0, os.path.dirname(__file__) + "/../faults")
from setting import ROOT, USAGE, check, end  # noqa: E402


def manual_page():
    """It has every command of the usage text, with its parameters, and every exit status."""
    page = (ROOT / "man/velmora.1").read_text()
    commands = re.findall(r"^velmora +(\w+) +(\S+) *(.*)", USAGE, re.M)
    check(len(commands) == 12, "commands of the usage text", commands)
    for group, command, parameters in commands:
        entry = f".It Cm {group} {command} Ar {re.sub('[<>]', '', parameters)}".removesuffix(" Ar ")
        check(entry in page.splitlines(), "velmora.1 without", entry)
    statuses = re.findall(r"exit_\w+ = (\d+);", (ROOT / "core/src/cli.cpp").read_text())
    check(len(statuses) == 3 and re.findall(r"^\.It (\d+)$", page, re.M) == statuses, statuses)


def codes():
    """The header has them in both notations, docs/troubleshooting.md with what to do."""
    page = (ROOT / "docs/troubleshooting.md").read_text()
    header = (ROOT / "euscp/include/EUSignCP.h").read_text()
    texts = dict(re.findall(r'{(?:pkcs11\()?(\w+)\)?,\s*((?:"[^"]*"\s*)+)}',
                            (ROOT / "euscp/src/texts.cpp").read_text()))
    defined = r"^#define (EU_[EW]\w+_\w+) +(0x\w{4})UL(.*)"
    for name, code, decimal in re.findall(defined, header, re.M):
        number = int(code, 16)
        check(decimal.strip() == f"/* {number} */", "EUSignCP.h:", name, decimal)
        text = re.sub(r'"\s*"', "", texts.get(name, "")).strip('"')
        row = f"\n| {number} | 0x{number:02X} | {text} | "
        check(row in page or name == "EU_ERROR_PKCS11", "docs/troubleshooting.md without", row)
    wrong = [name for name, text in texts.items() if list(texts.values()).count(text) > 1
             or name.startswith("CKR_") and f"({name})" not in text]
    check(len(texts) > 80 and not wrong, "texts that do not tell what it is:", wrong)


manual_page()
codes()
end()
