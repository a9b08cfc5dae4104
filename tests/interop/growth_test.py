#!/usr/bin/env python3
"""What hostile signatures and certificates cost: less than 2 s and 256 MiB, though they hold so
many of something that a cost which grows faster than their size is far beyond that."""

import os
import pathlib
import subprocess

from making import bash, edited, in_der, openssl, setting, signed
from der import Element, attribute, build, element, oid, parse, sequence
from setting import PROGRAM, check, end

bash("issue x '' $ec:P-256")
good, certificate = openssl("-cades", "x"), in_der("x")


def points(number):
    """A certificate with distribution points under relative names, that many of each."""
    common = sequence(oid("2.5.4.3"), Element(12, b"x"))
    relative = sequence(element(0xA0, element(0xA1, common)))
    crafted = parse(certificate)[0]
    crafted[0].inside[3] = sequence(*[element(0x31, common)] * number)
    crafted[0][-1][0].inside.append(sequence(oid("2.5.29.31"), Element(
        4, build(sequence(*[relative] * number)))))
    return build(crafted)


def unsigned(n):
    """With many of everything that nobody signs."""
    def edit(data, signer):
        data[1].inside.append(build(sequence(oid("1.2.3"))) * n)
        data.inside.insert(-1, Element(0xA0, build(Element(5, b"")) * n))
        data.inside.insert(-1, Element(0xA1, build(sequence(Element(5, b""))) * n))
        signer.inside.append(Element(0xA1, build(attribute("1.2.3")) * n))
    return edited(good, edit)


def signers(n):
    def edit(data, signer):
        serial = signer[1][1].inside
        data[-1].inside.append(build(signer).replace(serial, serial[::-1]) * n)
    return edited(good, edit)


ESS_V1 = "1.2.840.113549.1.9.16.2.12"
identifier = build(sequence(Element(4, bytes(20))))
HOSTILE = {  # the signature, of up to 32 MiB, and the certificate; made where that costs nothing
    "unsigned": lambda: (unsigned(1400000), certificate),
    "certificates": lambda: (edited(good, lambda data, _: data.inside.insert(-1, Element(
        0xA0, points(500) * 800))), certificate),
    "signers": lambda: (signers(30000), certificate),
    "signed attributes": lambda: (edited(good, lambda _, signer: signer[3].inside.extend(
        attribute(f"1.2.{i}") for i in range(100000))), certificate),
    "values of an attribute": lambda: (signed(sequence(
        oid("1.2.3"), Element(0x31, b"\5\0" * 600000)), by="x"), certificate),
    "identifiers": lambda: (signed(attribute(
        ESS_V1, sequence(Element(0x30, identifier * 800000))), by="x"), certificate),
    "nesting": lambda: (b"\x30\x80" * 8000000, certificate),
    "points in the certificate": lambda: (good, points(2000)),
}
for name, make in HOSTILE.items():
    if (child := os.fork()) == 0:  # this process's memory would count as the program's
        for file, contents in zip(("signature", "certificate"), make()):
            pathlib.Path(file).write_bytes(contents)
        os._exit(0)
    check(os.waitpid(child, 0)[1] == 0, name, "made")
    ended = subprocess.Popen([PROGRAM, "sign", "verify", "data", "signature", "certificate"],
                             env=setting.env, stdout=subprocess.DEVNULL)
    usage = os.wait4(ended.pid, 0)[2]
    seconds, size = usage.ru_utime + usage.ru_stime, usage.ru_maxrss >> 10
    check(seconds < 2 and size <= 256, name, f"{seconds:.2f} s, {size} MiB")
end()
