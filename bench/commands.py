"""What velmora is asked to do, and the commands of other programs that do the same on the same
token and the same files. Of each list velmora's command is the first."""

import hashlib
import os
import pathlib
from dataclasses import replace

from measure import Command

SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so"
USAGE = pathlib.Path(__file__).parents[1] / "tests/tool/usage.txt"
CURVE = "EC:prime256v1"


def equals(text):
    return lambda output: output == text


def holds(*texts):
    return lambda output: all(text in output for text in texts)


class Commands:
    def __init__(self, runner, program, serial, pin):
        self.runner = runner
        self.program = program
        self.serial = serial
        self.pin = pin
        self.token = f"pkcs11:serial={serial}"

    def velmora(self, *words, prints, **details):
        return Command("velmora", [self.program, *words], equals(prints), **details)

    def usage(self):
        least = os.path.join(os.path.dirname(self.program), "one_line")
        return [
            self.velmora(prints=USAGE.read_text(), status=70),
            Command("one line of C++", [least], equals("one line\n")),
        ]

    def media(self, serials):
        """With as many tokens as serials: velmora lists them all, in whatever order."""
        listed = lambda output: sorted(output.splitlines()) == sorted(serials)
        return [
            Command("velmora", [self.program, "media", "list"], listed),
            Command("p11tool", ["p11tool", "--list-tokens"], holds(*serials)),
            Command("pkcs11-tool", ["pkcs11-tool", "--module", SOFTHSM, "-L"], holds(*serials)),
        ]

    def password(self, pin):
        login = ["pkcs11-tool", "--module", SOFTHSM, "--login", "--pin", pin, "-O"]
        return [
            self.velmora("key", "test-valid", self.serial, pin, prints="PASSED\n"),
            Command("pkcs11-tool", login, holds("Private Key Object", "DS")),
        ]

    def sign(self, data, engine_module=SOFTHSM):
        key = f"{self.token};object=DS;type=private"
        openssl = ["openssl", "cms", "-sign", "-binary", "-engine", "pkcs11", "-keyform", "engine",
                   "-inkey", f"{key};pin-value={self.pin}", "-signer", "ds.pem", "-nocerts",
                   "-nosmimecap", "-cades", "-in", data, "-outform", "DER", "-out", "openssl.p7s"]
        certtool = ["certtool", "--p7-detached-sign", "--p7-time", "--no-p7-include-cert",
                    "--hash", "SHA256", "--load-privkey", key, "--load-certificate", "ds.pem",
                    "--infile", data, "--outder", "--outfile", "certtool.p7s"]
        env = {"PKCS11_MODULE_PATH": engine_module}
        commands = [
            self.velmora("sign", "create-ext", self.serial, self.pin, data, "velmora.p7s",
                         prints="DONE\n"),
            Command("openssl", openssl, equals('Engine "pkcs11" set.\n'), env=env),
            Command("certtool", certtool, equals("")),
        ]
        for command in commands:
            signature = pathlib.Path(f"{command.name}.p7s")
            command.prepare = lambda made=signature: made.unlink(missing_ok=True)
            command.check = lambda made=signature: self.runner.run(self.openssl_verify(
                data, made, "-CAfile", "ca.pem"))
        return commands

    def openssl_verify(self, data, signature, *trust):
        return Command("openssl", ["openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                                   signature, "-content", data, "-certfile", "ds.pem", "-nointern",
                                   *trust, "-out", "/dev/null"], holds("Verification successful"))

    def verify(self, data, signature):
        certtool = ["certtool", "--p7-verify", "--inder", "--infile", signature, "--load-data",
                    data, "--load-certificate", "ds.pem"]
        return [
            self.velmora("sign", "verify", data, signature, "ds.pem", prints="PASSED\n"),
            self.openssl_verify(data, signature, "-noverify"),
            Command("certtool", certtool, holds("Signature status: ok")),
        ]

    def digest(self, data):
        with open(data, "rb") as file:
            right = hashlib.file_digest(file, "sha256").hexdigest()
        return Command("openssl dgst", ["openssl", "dgst", "-sha256", data], holds(right))

    def generation(self):
        """Making and deleting a key, which is two pairs for velmora and one for its peers. Each run
        of one is made ready, or undone and so checked, by the other."""
        archive = pathlib.Path("requests.zip").absolute()
        create = self.velmora("key", "create", self.serial, self.pin, "ds", "kep", archive,
                              prints="DONE\n")
        delete = self.velmora("key", "delete", self.serial, self.pin, prints="DONE\n")
        make_pair = Command("pkcs11-tool", [
            "pkcs11-tool", "--module", SOFTHSM, "--login", "--pin", self.pin, "--keypairgen",
            "--key-type", CURVE, "--label", "pair"], holds("Key pair generated"))
        delete_pair = Command("p11tool", [
            "p11tool", "--batch", "--login", "--delete", f"{self.token};object=pair"],
            holds("2 objects deleted"))

        both = ((create, delete), (make_pair, delete_pair))
        run = self.runner.run
        return (
            [replace(make, check=lambda undo=undo: run(undo)) for make, undo in both],
            [replace(undo, prepare=lambda make=make: run(make)) for make, undo in both],
        )
