#!/usr/bin/env python3
"""calls_test.py PROGRAM DOUBLES: every call of the program that can fail fails once, of EUSignCP
and libzip as the doubles play them, and of the system for the files that it reads and writes."""

import itertools
import os
import re
import shutil
import sys

from setting import PIN, Setting, check, counts, end, verdicts

DOUBLES = os.path.abspath(sys.argv[2])
USAGE, FAIL, DONE, PASSED, FAILED = "(usage)", "FAIL", "DONE", "PASSED", "FAILED"
PERIOD = '{"min-time":"2024-01-31T09:05:00","max-time":"2026-12-31T23:59:58"}'

# What a command prints when all goes well, when there is no such medium, when there is no access
# to the medium, when the key does not open, and when the certificate or the signature fails.
COMMANDS = {
    "media list": ("S1", "", FAIL, FAIL, FAIL),
    "key create S1 secret ds kep req.zip": (DONE, USAGE, FAIL, FAIL, FAIL),
    "key delete S1 secret": (DONE, USAGE, USAGE, FAIL, FAIL),
    "key test-access S1 secret": (PASSED, FAILED, FAILED, FAIL, FAIL),
    "key test-valid S1 secret": (PASSED, FAILED, FAILED, FAILED, FAIL),
    "key test-sign S1 secret": (PASSED, USAGE, USAGE, FAIL, FAILED),
    "key test-all S1 secret": (verdicts(3), USAGE, verdicts(0), verdicts(1), verdicts(2)),
    "sign crt-info S1 secret": (PERIOD, USAGE, USAGE, FAIL, FAIL),
    "sign export-crt S1 secret new.crt": (DONE, USAGE, USAGE, FAIL, FAIL),
    "sign create-ext S1 secret blob new.p7s": (DONE, USAGE, USAGE, FAIL, FAIL),
    "sign verify blob sign crt": (PASSED, FAIL, FAIL, FAIL, FAILED),
}
FILES = {"blob": "some data", "sign": "a signature", "crt": "a certificate",
         "new.crt": "old", "req.zip": "old", "new.p7s": "old"}
CALL_FAULTS = {"error=EIO": "Input/output error", "error=ENOSPC": "No space left on device",
               "error=EACCES": "Permission denied", "signal=KILL": None}


class Run:
    """A run on one medium, whose key is there until it is deleted; with what holds for each."""

    def __init__(self, command, wrapper=(), libraries=DOUBLES, **doubles):
        self.folder = place.folder / "work"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        for name, content in {**FILES, "../calls": ""}.items():
            (self.folder / name).write_text(content)
        env = dict(place.env, LD_LIBRARY_PATH=libraries, TRANSCRIPT="../calls", EU_MEDIA="@+,S1",
                   EU_KEY="10" if "delete" in command else "1", **doubles)
        self.out = place.answer(*command.split(), wrapper=wrapper, env=env, cwd=self.folder)
        self.told = (place.folder / "calls").read_text()
        self.what = f"{command} {doubles} {wrapper}\n{self.told}{self.out}"
        counts["runs"] += 1
        self.killed = "> status -9 " in self.out
        if self.killed:
            return
        check("leak" not in self.told, self.what)
        for given, back in ((r"EUInitialize\(\) = 0", r"EUFinalize\(\)"),
                            ("zip_open", "zip_close|zip_discard"),
                            ("zip_source_buffer", "zip_file_add|zip_source_free")):
            check(self.count(f"^({given})$") == self.count(f"^({back})$"), self.what)

    def count(self, pattern):
        return len(re.findall(pattern, self.told, re.MULTILINE))

    def failed_for(self, cause):
        """Whether it came to nothing, for the cause in its log."""
        return self.out == FAIL and self.count(f"^1 .*fail: .*({cause})") == 1


def answer(outcomes, function, natural, code, deleted):
    """What a command prints when a call returns the code for its natural one."""
    success, no_medium, no_access, not_opened, not_signed = outcomes
    if function == "EUIsPrivateKeyExists" and code == 18:
        return success if deleted else no_access
    if function.startswith("EUEnum") and code == 7:
        return success if natural == 7 else no_medium
    if function in ("EUCtxCreate", "EUCtxReadPrivateKey"):
        return not_opened
    return not_signed if re.search("Certificate|SignData|Verify", function) else FAIL


def library_calls():
    for command, outcomes in COMMANDS.items():
        smooth = Run(command)
        check(smooth.out == outcomes[0], smooth.what)
        deleted = False
        calls = re.findall(r"^(EU\w+)\(.*\) = (\d+)$", smooth.told, re.MULTILINE)
        for k, (function, natural) in enumerate(calls, start=1):
            for code in (5, 7, 18, 4242):
                run = Run(command, EU_FAIL=f"{k}:{code}")
                expected = answer(outcomes, function, int(natural), code, deleted)
                # The text of a code is asked once, where the call failed, for its one record.
                text = "why %s" if code != 4242 else r"\(null\)"
                number = "" if expected == FAILED and "verify" in command else rf".*\b{code}\b.*"
                told = run.count(
                    rf"\) = {code}\nEUGetErrorLangDesc\({code}, 3\)\n[12] \S+ \S+: fail: "
                    rf"{function.replace('Ctx', '(Ctx)?')}( \()?{number}{text}\)$")
                silent = (code, function[:6]) in ((7, "EUEnum"), (18, "EUIsPr"))
                asked, logged = run.count("EUGetErrorLangDesc"), run.count(rf"{text}\)$")
                check(run.out == expected and told == asked == logged == (not silent), run.what)
            deleted |= function == "EUDestroyPrivateKey"


def archive_calls():
    command = "key create S1 secret ds kep req.zip"
    for k in range(1, 1 + Run(command).count("^zip_(?!discard|source_free)")):
        for code, text in ((14, "Malloc failure"), (5, "Read error"), (18, "Invalid argument")):
            run = Run(command, ZIP_FAIL=f"{k}:{code}")
            check(run.failed_for(f"zip_open .answer:{code}|zip_\\w+ .{text}"), run.what)
            check((run.folder / "req.zip").read_text() == "old", run.what)


def file_calls():
    """Every system call of these commands on a file in their folder fails in turn, or they are
    killed there; they write a file, which survives or does not. The last signature is a real one."""
    real = place.folder / "log2"
    place.bash(f"mkdir log2; ln -s '{DOUBLES}/liblog2.so' log2")
    signing = f"sign create-ext {place.token_with_key('Alice')} {PIN} blob new.p7s"
    for command, made, survives, libraries in (
            ("key create S1 secret ds kep req.zip", "req.zip", True, DOUBLES),
            ("sign export-crt S1 secret new.crt", "new.crt", False, DOUBLES),
            ("sign verify blob sign crt", "blob", True, DOUBLES),
            (signing, "new.p7s", True, real)):
        smooth = Run(command, place.traced(), libraries)
        check(smooth.out in (DONE, PASSED), smooth.what)
        whole = (smooth.folder / made).stat().st_size
        named = rf'{smooth.folder}/[\w.]|"({"|".join(FILES)}|\.", O|\.sign)'
        points = [(call, number) for call, number, rest in place.system_calls()
                  if call != "execve" and re.search(named, rest)]
        for (call, number), how in itertools.product(points, CALL_FAULTS):
            run = Run(command, place.traced("-e", f"inject={call}:{how}:when={number}"), libraries)
            injected = any(name == call and rest.endswith("(INJECTED)")
                           for name, _, rest in place.system_calls())
            cause = f"{CALL_FAULTS[how]}|actual-size:0|zip_open|the (data|signature) file "
            same = run.out == smooth.out
            check(run.killed or injected and (same or run.failed_for(cause)), run.what)
            names, left = {each.name for each in run.folder.iterdir()}, run.folder / made
            check(names == FILES.keys() or run.killed and names > FILES.keys(), run.what)
            is_whole = abs(left.stat().st_size - whole) < 8
            as_before = not survives or left.read_text("latin-1") == FILES[made]
            check(not same and as_before or (same or run.killed) and is_whole, run.what)


place = Setting()
for sweep in (library_calls, archive_calls, file_calls):
    sweep()
end("calls:", counts["runs"], "runs,")
