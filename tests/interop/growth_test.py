#!/usr/bin/env python3
"""What a hostile signature or certificate costs grows no faster than its size: twice as much of it
takes at most 2.6 times the time and memory."""

import atexit
import os
import pathlib
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../faults")
from der import Element, attribute, build, edited, element, oid, parse, signed_with  # noqa: E402
from setting import PROGRAM, Setting, check, end  # noqa: E402

MOST = 256 << 10  # KiB, for up to 32 MiB of signature, with the sanitizers as well
setting = Setting()
atexit.register(setting.__exit__)
os.chdir(setting.folder)
setting.bash("""
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -keyout x.key -out crt \\
    -subj /CN=x
echo contract >data
openssl cms -sign -cades -binary -in data -signer crt -inkey x.key -outform DER -out made
openssl x509 -in crt -outform DER -out der""")
good, certificate = (pathlib.Path(name).read_bytes() for name in ("made", "der"))


def points(number):
    """A certificate with distribution points under relative names, that many of each."""
    common = element(0x30, oid("2.5.4.3"), Element(12, b"x"))
    relative = element(0x30, element(0xA0, element(0xA1, common)))
    crafted = parse(certificate)[0]
    crafted[0].inside[3] = element(0x30, *[element(0x31, common)] * number)
    crafted[0][-1][0].inside.append(element(0x30, oid("2.5.29.31"), Element(
        4, build(element(0x30, *[relative] * number)))))
    return build(crafted)


def unsigned(n):
    """With many of everything that nobody signs."""
    def edit(data, signer):
        data[1].inside.append(build(element(0x30, oid("1.2.3"))) * n)
        data.inside.insert(-1, Element(0xA0, build(Element(5, b"")) * n))
        data.inside.insert(-1, Element(0xA1, build(element(0x30, Element(5, b""))) * n))
        signer.inside.append(Element(0xA1, build(attribute("1.2.3")) * n))
    return edited(good, edit)


def signers(n):
    def edit(data, signer):
        serial = signer[1][1].inside
        data[-1].inside.append(build(signer).replace(serial, serial[::-1]) * n)
    return edited(good, edit)


def signed(name, values):
    return signed_with(setting.bash, good, element(0x30, oid(name), Element(0x31, values)), "x")


identifier = build(element(0x30, Element(4, bytes(20))))
HOSTILE = {  # what is made of a number, and the number
    "unsigned": (unsigned, 700000),
    "certificates": (lambda n: edited(good, lambda data, _: data.inside.insert(-1, Element(
        0xA0, points(500) * n))), 400),
    "signers": (signers, 15000),
    "signed attributes": (lambda n: edited(good, lambda _, signer: signer[3].inside.extend(
        attribute(f"1.2.{i}") for i in range(n))), 50000),
    "values of an attribute": (lambda n: signed("1.2.3", b"\5\0" * n), 300000),
    "identifiers": (lambda n: signed("1.2.840.113549.1.9.16.2.12", build(
        element(0x30, Element(0x30, identifier * n)))), 400000),
    "nesting": (lambda n: b"\x30\x80" * n, 4000000),
}


def cost(make, *arguments, by="crt"):
    """CPU seconds and KiB of a verification, the least of five."""
    if (child := os.fork()) == 0:  # this process's memory would count as the program's
        pathlib.Path("signature").write_bytes(make(*arguments))
        os._exit(0)
    check(os.waitpid(child, 0)[1] == 0, "made", arguments)
    costs = []
    for _ in range(5):
        ended = subprocess.Popen([PROGRAM, "sign", "verify", "data", "signature", by],
                                 env=setting.env, stdout=subprocess.DEVNULL)
        usage = os.wait4(ended.pid, 0)[2]
        costs.append((usage.ru_utime + usage.ru_stime, usage.ru_maxrss))
    return tuple(map(min, zip(*costs)))


idle = cost(lambda: good)
for name, (make, number) in HOSTILE.items():
    one, two = cost(make, number), cost(make, 2 * number)
    print(f"{name}: {one[0]:.2f} s, {one[1] >> 10} MiB; twice: {two[0]:.2f} s, {two[1] >> 10} MiB")
    check(two[0] <= 2.6 * max(one[0], 0.02) and two[0] < 2, name, "seconds", one, two)
    check(two[1] <= 2.6 * one[1] and two[1] <= MOST, name, "KiB", one, two)
for number in 1000, 2000:  # in the certificate itself
    pathlib.Path("hostile").write_bytes(points(number))
    seconds, memory = cost(lambda: good, by="hostile")
    check(seconds <= idle[0] + 0.05 and memory <= idle[1] + 4096, number, "points", seconds, memory)
end()
