#!/usr/bin/env python3
"""calls_test.py PROGRAM DOUBLES: every call that can fail fails once, of libzip, and of the system
for the files that the program reads and writes."""

import itertools
import os
import re
import shutil
import sys

from setting import PIN, Setting, check, commands, counts, end, key

DOUBLES = os.path.abspath(sys.argv[2])
FILES = dict.fromkeys(("data", "signature", "ds.crt", "target!"), "old")
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
        self.out = place.answer(*command, wrapper=wrapper, env=env, cwd=self.folder)
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
        """Whether it came to nothing, and one record says so, which is for the cause."""
        return self.out == "FAIL" and self.count(rf"^1 \S+ \S+: fail: ({cause})$") == 1


def archive_calls():
    command = key("create", "S1", "secret")
    for k in range(1, 1 + Run(command).count("^zip_(?!discard|source_free)")):
        for code, text in ((14, "Malloc failure"), (5, "Read error"), (18, "Invalid argument")):
            run = Run(command, ZIP_FAIL=f"{k}:{code}")
            cause = rf"zip_open \(answer:{code}\)|zip_\w+ \({text}(: Success)?\)"
            check(run.failed_for(cause), run.what)
            check((run.folder / "target!").read_text() == "old", run.what)


def file_calls():
    """Every system call of a command on the files in its folder fails in turn, or it is killed
    there; target! survives or does not. A signature is a real one."""
    serial, real = place.token_with_key("Alice"), place.folder / "log2"
    place.bash(f"mkdir log2; ln -s '{DOUBLES}/liblog2.so' log2")
    for command in (words for words in commands("S1", "secret") if {*FILES} & {*words}):
        survives, libraries = "export-crt" not in command, DOUBLES
        if "create-ext" in command:
            command[2:4], libraries = [serial, PIN], real
        smooth = Run(command, place.traced(), libraries)
        check(smooth.out in ("DONE", "PASSED"), smooth.what)
        whole = (smooth.folder / "target!").stat().st_size
        named = rf'{smooth.folder}/[\w.]|"({"|".join(FILES)}|\.", O|\.sign)'
        calls = [*place.system_calls()]
        points = [(call, number) for call, number, rest in calls
                  if call != "execve" and re.search(named, rest)]
        synced = sum(call == "fsync" and f"{smooth.folder}" in rest for call, _, rest in calls)
        check("create-ext" not in command or synced == 2, "a power cut may lose a signature")
        for (call, number), how in itertools.product(points, CALL_FAULTS):
            run = Run(command, place.traced("-e", f"inject={call}:{how}:when={number}"), libraries)
            injected = any(name == call and rest.endswith("(INJECTED)")
                           for name, _, rest in place.system_calls())
            cause = f".*({CALL_FAULTS[how]}|actual-size:0|zip_open|the (data|signature) file ).*"
            same = run.out == smooth.out
            check(run.killed or injected and (same or run.failed_for(cause)), run.what)
            left = {file.name: file.read_text("latin-1") for file in run.folder.iterdir()}
            kept = {**FILES, "target!": left["target!"]}
            check(kept == left or run.killed and kept.items() < left.items(), run.what)
            is_whole = abs(len(left["target!"]) - whole) < 8
            as_before = not survives or left["target!"] == "old"
            check(not same and as_before or (same or run.killed) and is_whole, run.what)


place = Setting()
archive_calls()
file_calls()
end("calls:", counts["runs"], "runs,")
