"""A place for the built program to run in: a private SoftHSM, a log folder, a working folder."""

import collections
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import traceback
from concurrent.futures import ThreadPoolExecutor

PROGRAM = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else "velmora"
ROOT = pathlib.Path(__file__).resolve().parents[2]
USAGE = (ROOT / "tests/tool/usage.txt").read_text()
PIN = "24681012"
KEY = {"Public": 2, "Private": 2}  # the objects of a key that was generated
VERIFY = ("openssl cms -verify -binary -inform DER -content data -certfile ds.pem -nointern"
          " -noverify -out /dev/null -in ")  # and the signature's name
WHOLE = {  # what tells that what a command made of target! is whole
    "create": "unzip -tq target! && unzip -qo target! && for each in ds kep; do"
              " openssl req -inform DER -in $each -verify -noout 2>&1 |"
              " grep -q 'verify OK' || exit; done",  # its status tells nothing of the signature
    "create-ext": VERIFY + "target!",
    "export-crt": "cmp target! ds.crt",
}
counts = collections.Counter()
pool = ThreadPoolExecutor(96)  # for what runs at the same time


def check(holds, *what):
    counts["checks"] += 1
    if not holds:
        counts["failures"] += 1
        print("FAILED:", *what, *traceback.format_stack()[:-1], flush=True)


def end(*figures):
    """Ends the test, which passes if all checks did."""
    print(*figures, f"{counts['checks']} checks, {counts['failures']} failures")
    sys.exit(counts["failures"] > 0)


def verdicts(passed):
    """The answer of test-all when so many of the three tests pass."""
    names = "test-key-access", "test-key-valid", "test-key-sign", "test-all"
    words = ("passed" if i < passed else "failed" for i in (0, 1, 2, 2))
    return "{" + ",".join(f'"{name}":"{word}"' for name, word in zip(names, words)) + "}"


def key(verb, serial, pin=PIN):
    """The words of a command."""
    return ["key", verb, serial, pin, *["ds", "kep", "target!"] * (verb == "create")]


def commands(serial, pin=PIN):
    """Those of every command; the key is deleted last."""
    tests = "test-access", "test-valid", "test-sign", "test-all"
    return [["media", "list"], ["media", "list", serial],
            *(key(verb, serial, pin) for verb in ("create", *tests)),
            ["sign", "crt-info", serial, pin], ["sign", "export-crt", serial, pin, "target!"],
            ["sign", "create-ext", serial, pin, "data", "target!"],
            ["sign", "verify", "data", "signature", "ds.crt"], key("delete", serial, pin)]


class Setting:
    """Every test makes one; its folder goes with it."""

    def __init__(self):
        self.kept = tempfile.TemporaryDirectory("", "velmora-faults.", ignore_cleanup_errors=True)
        self.folder = pathlib.Path(self.kept.name)
        self.env = dict(os.environ, HOME=f"{self.folder}", LOG2_DIR=f"{self.folder}/log",
                        GNUTLS_PIN=PIN, LC_ALL="C")
        self.how = {"cwd": self.folder, "env": self.env, "stdin": subprocess.DEVNULL,
                    "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        exported = self.bash('private_softhsm "$PWD"; env -0').split("\0")
        self.env.update(each.split("=", 1) for each in exported if each)

    def bash(self, script):
        """What a script prints, with the functions of scripts/token.sh; it has to succeed."""
        whole = f'set -euo pipefail; source "{ROOT}/scripts/token.sh"; {script}'
        ended = subprocess.run(["bash", "-c", whole], check=True, text=True, **self.how)
        return ended.stdout.strip()

    def run(self, *words, wrapper=(), **options):
        """Runs the program; a run that hangs ends the test."""
        return subprocess.run([*wrapper, PROGRAM, *words], timeout=120, **{**self.how, **options})

    def answer(self, *words, **options):
        """The line that a run prints; all that came of it, if its status is not that line's."""
        ended = self.run(*words, **options)
        text = ended.stdout.decode(errors="replace").replace(USAGE, "(usage)\n").removesuffix("\n")
        unverified = text == "FAILED" and "verify" in words
        status = 70 if text in ("(usage)", "FAIL") else 64 if unverified else 0
        as_told = ended.returncode == status and not ended.stderr
        return text if as_told else f"<{text}> status {ended.returncode} {ended.stderr}"

    def logged(self, *words, **options):
        """The same, and what the run logs."""
        log = self.folder / "log/velmora.log"
        log.unlink(missing_ok=True)
        answer = self.answer(*words, **options)
        return answer, log.read_text("latin-1") if log.exists() else ""

    def traced(self, *options):
        """A wrapper that writes a run's system calls to the file trace."""
        # Without the prctl that keeps the program's files from being looked at, and without the
        # sanitizer's search for leaks, which excludes another tracer.
        return ("env", f"ASAN_OPTIONS={self.env['ASAN_OPTIONS']}:detect_leaks=0", "strace",
                "-fqqyo", self.folder / "trace", "-e", "inject=prctl:retval=0", *options)

    def system_calls(self):
        """Those of the traced run: name, number among those of that name, arguments and result."""
        seen, trace = collections.Counter(), (self.folder / "trace").read_text()
        for name, rest in re.findall(rf"^{trace.split()[0]} +(\w+)\((.*)", trace, re.M):
            seen[name] += 1
            yield name, seen[name], rest

    def token(self, label, pin=PIN):
        """A new empty token's serial."""
        return self.bash(f'new_token "{label}" {pin}')

    def token_with_key(self, label):
        """The serial of a new token with a certified key; ds.crt is its certificate for signatures,
        and data a file to sign."""
        serial = self.token(label)
        made = self.answer(*key("create", serial))
        assert made == "DONE", made
        self.certify(serial)
        self.bash("openssl x509 -in ds.pem -outform DER -out ds.crt; cp ca.pem data")
        return serial

    def certify(self, serial):
        """Has both requests in target! certified, also on the token; ds.pem is for signatures."""
        self.bash(f"unzip -qo target!; certify {serial} {PIN} ''")

    def objects(self, label):
        """The objects on a token, as another tool shows them, and how many there are of a kind."""
        tool = "pkcs11-tool --module /usr/lib/softhsm/libsofthsm2.so --login --pin $GNUTLS_PIN"
        shown = self.bash(f"{tool} --token-label '{label}' --list-objects")
        return shown, collections.Counter(re.findall(r"^(\w+) ", shown, re.M))

    def is_whole(self, command):
        return self.bash(f"({WHOLE[command]}) >the-check && echo yes || true") == "yes"
