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
COMMANDS = (
    "media list", "key create S1 secret ds kep req.zip", "sign verify blob sign crt",
    *(f"key {verb} S1 secret"
      for verb in ("delete", "test-access", "test-valid", "test-sign", "test-all")),
    "sign crt-info S1 secret", "sign export-crt S1 secret new.crt",
    "sign create-ext S1 secret blob new.p7s")
FAILURES = ("FAIL", "FAILED", *map(verdicts, range(3)))
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
        return self.out == "FAIL" and self.count(f"^1 .*fail: .*({cause})") == 1


def library_calls():
    for command in COMMANDS:
        smooth = Run(command)
        check(smooth.out not in FAILURES, smooth.what)
        functions = re.findall(r"^(EU\w+)\(.*\) = \d+$", smooth.told, re.MULTILINE)
        for k, function in enumerate(functions, start=1):
            for code in (5, 7, 18, 4242):
                run = Run(command, EU_FAIL=f"{k}:{code}")
                # The text of a code is asked once, where the call failed, for its one record.
                text = "why %s" if code != 4242 else r"\(null\)"
                told = run.count(
                    rf"\) = {code}\nEUGetErrorLangDesc\({code}, 3\)\n[12] \S+ \S+: fail: "
                    rf"{function.replace('Ctx', '(Ctx)?')}( \(| {code} \().*{text}\)$")
                # What there is no more of, or no access to, may have been expected.
                silent = (code, function[:6]) in ((7, "EUEnum"), (18, "EUIsPr"))
                asked, logged = run.count("EUGetErrorLangDesc"), run.count(rf"{text}\)$")
                check(told == asked == logged == (not silent), run.what)
                may_be = (smooth.out, "", "(usage)") if silent else ()
                check(run.out in (*FAILURES, *may_be), run.what)


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
        check(smooth.out in ("DONE", "PASSED"), smooth.what)
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
