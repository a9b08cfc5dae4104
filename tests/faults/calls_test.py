#!/usr/bin/env python3
"""calls_test.py PROGRAM DOUBLES: every call of the program that can fail fails once, of EUSignCP
and libzip as the doubles play them, and of the system for the files that it reads and writes."""

import collections
import errno
import os
import re
import shutil
import sys
import traceback

from setting import PIN, Setting, check, counts, end, verdicts

USAGE, FAIL, DONE, PASSED, FAILED = "(usage)", "FAIL", "DONE", "PASSED", "FAILED"
PERIOD = '{"min-time":"2024-01-31T09:05:00","max-time":"2026-12-31T23:59:58"}'

# What a command prints when all goes well, when there is no such medium, when there is no access
# to the medium, when the key does not open, and when the certificate or the signature fails.
COMMANDS = {
    "media list": ("S1", "", FAIL, FAIL, FAIL),
    "media list S1": ("S1", "", FAIL, FAIL, FAIL),
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


class Run:
    """A run on one medium, whose key is there until it is deleted; with what holds for each."""

    def __init__(self, setting, command, wrapper=(), libraries=sys.argv[2], **doubles):
        self.folder = setting.folder / "work"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        for name, content in FILES.items():
            (self.folder / name).write_text(content)
        env = dict(setting.env, LD_LIBRARY_PATH=os.path.abspath(libraries), TRANSCRIPT="../calls",
                   EU_MEDIA="@+,S1", EU_KEY="10" if "delete" in command else "1", **doubles)
        (setting.folder / "calls").write_text("")
        self.out = setting.answer(*command.split(), wrapper=wrapper, env=env, cwd=self.folder)
        self.told = (setting.folder / "calls").read_text()
        self.name = f"{command} {doubles} {' '.join(wrapper)}\n{self.told}{self.out}"
        self.check("leak" not in self.told)
        counts["runs"] += 1
        for given, back in (
                (r"EUInitialize\(\) = 0", r"EUFinalize\(\)"),
                ("zip_open", "zip_close|zip_discard"),
                ("zip_source_buffer", "zip_file_add|zip_source_free")):
            self.check(self.count(f"^({given})$") == self.count(f"^({back})$"))

    def count(self, pattern):
        return len(re.findall(pattern, self.told, re.MULTILINE))

    def check(self, holds):
        check(holds, self.name, *traceback.format_stack(limit=2)[:1])

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


def library_calls(setting):
    for command, outcomes in COMMANDS.items():
        smooth = Run(setting, command)
        smooth.check(smooth.out == outcomes[0])
        deleted = False
        calls = re.findall(r"^(EU\w+)\(.*\) = (\d+)$", smooth.told, re.MULTILINE)
        for k, (function, natural) in enumerate(calls, start=1):
            for code in (5, 7, 18, 4242):
                run = Run(setting, command, EU_FAIL=f"{k}:{code}")
                expected = answer(outcomes, function, int(natural), code, deleted)
                run.check(run.out == expected)
                # The text of a code is asked once, where the call failed, for its one record.
                text = "why %s" if code != 4242 else r"\(null\)"
                number = "" if expected == FAILED and "verify" in command else rf".*\b{code}\b.*"
                told = run.count(
                    rf"\) = {code}\nEUGetErrorLangDesc\({code}, 3\)\n[12] \S+ \S+: fail: "
                    rf"{function.replace('Ctx', '(Ctx)?')}( \()?{number}{text}\)$")
                silent = (code, function[:6]) in ((7, "EUEnum"), (18, "EUIsPr"))
                run.check(told == (0 if silent else 1))
                run.check(told == run.count("EUGetErrorLangDesc") == run.count(rf"{text}\)$"))
            deleted |= function == "EUDestroyPrivateKey"


def archive_calls(setting):
    command = "key create S1 secret ds kep req.zip"
    for k in range(1, 1 + Run(setting, command).count("^zip_(?!discard|source_free)")):
        for code, text in ((14, "Malloc failure"), (5, "Read error"), (18, "Invalid argument")):
            run = Run(setting, command, ZIP_FAIL=f"{k}:{code}")
            run.check(run.failed_for(f"zip_open .answer:{code}|zip_\\w+ .{text}"))
            run.check((run.folder / "req.zip").read_text() == "old")


def file_calls(setting):
    """Every system call of these commands on a file in their folder fails in turn; they write a
    file, which survives a failure or does not. The signature is one of a real token's."""
    serial = setting.token_with_key("Alice")
    (setting.folder / "log2").mkdir()
    (setting.folder / "log2/liblog2.so").symlink_to(os.path.abspath(f"{sys.argv[2]}/liblog2.so"))
    # Without the prctl by which the program keeps its files and memory from being looked at.
    # The sanitizer looks for leaks by tracing, and excludes another tracer.
    sanitizer = f"ASAN_OPTIONS=detect_leaks=0:{setting.env['ASAN_OPTIONS']}"
    tracing = ("env", sanitizer, "strace", "-qq", "-y", "-o", "../trace",
               "-e", "inject=prctl:retval=0")
    for command, made, survives, libraries in (
            ("key create S1 secret ds kep req.zip", "req.zip", True, sys.argv[2]),
            ("sign export-crt S1 secret new.crt", "new.crt", False, sys.argv[2]),
            ("sign verify blob sign crt", "blob", True, sys.argv[2]),
            (f"sign create-ext {serial} {PIN} blob new.p7s", "new.p7s", True,
             setting.folder / "log2")):
        smooth = Run(setting, command, tracing, libraries)
        whole = (smooth.folder / made).stat().st_size
        smooth.check(smooth.out in (DONE, PASSED))
        named = rf'{smooth.folder}/[\w.]|"({"|".join(FILES)}|\.", O|\.sign)'
        seen = collections.Counter()
        for line in (setting.folder / "trace").read_text().splitlines():
            call = line.partition("(")[0]
            seen[call] += 1
            if call == "execve" or not re.search(named, line):
                continue
            for error in (errno.EIO, errno.ENOSPC, errno.EACCES):
                inject = f"inject={call}:error={errno.errorcode[error]}:when={seen[call]}"
                run = Run(setting, command, (*tracing, "-e", inject), libraries)
                trace = (setting.folder / "trace").read_text()
                run.check(re.search(rf"^{call}\(.*INJECTED", trace, re.MULTILINE))
                run.check(run.out == smooth.out or run.failed_for(
                    f"{os.strerror(error)}|actual-size:0|zip_open|the (data|signature) file "))
                run.check({each.name for each in run.folder.iterdir()} == FILES.keys())
                left = (run.folder / made).read_bytes()
                run.check(abs(len(left) - whole) < 8 if run.out == smooth.out else
                          not survives or left == FILES[made].encode())


with Setting() as place:
    for sweep in (library_calls, archive_calls, file_calls):
        sweep(place)
    end("calls:", counts["runs"], "runs,")
