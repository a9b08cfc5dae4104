#!/usr/bin/env python3
"""calls_test.py PROGRAM DOUBLES: every system call of a command on the files in its folder fails in
turn, or the command is killed there; target! survives or does not."""

import itertools
import os
import re
import shutil
import sys

from setting import PIN, Setting, check, commands, counts, end

DOUBLES = os.path.abspath(sys.argv[2])
FILES = dict.fromkeys(("data", "signature", "ds.crt", "target!"), "old")
CALL_FAULTS = {"error=EIO": "Input/output error", "error=ENOSPC": "No space left on device",
               "error=EACCES": "Permission denied", "signal=KILL": None}


class Run:
    """A traced run in a folder of its own, with what holds for each; a signature is a real one."""

    def __init__(self, command, *options):
        folder = place.folder / "run"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        for name, content in {**FILES, "../calls": ""}.items():
            (folder / name).write_text(content)
        libraries = place.folder / "log2" if "create-ext" in command else DOUBLES
        env = dict(place.env, LD_LIBRARY_PATH=libraries, TRANSCRIPT="../calls")
        self.out = place.answer(*command, wrapper=place.traced(*options), env=env, cwd=folder)
        self.told = (place.folder / "calls").read_text()
        self.calls = [*place.system_calls()]
        self.left = {file.name: file.read_text("latin-1") for file in folder.iterdir()}
        self.what = f"{command} {options}\n{self.told}{self.out}"
        self.killed = "> status -9 " in self.out
        given_back = self.told.count("EUInitialize() = 0\n") == self.told.count("EUFinalize()\n")
        check(self.killed or "leak" not in self.told and given_back, self.what)
        counts["runs"] += 1

    def failed_for(self, cause):
        """Whether it came to nothing, and one record says so, which is for the cause."""
        records = re.findall(rf"^1 \S+ \S+: fail: ({cause})$", self.told, re.MULTILINE)
        return self.out == "FAIL" and len(records) == 1


place = Setting()
serial = place.token_with_key("Alice")
place.bash(f"mkdir log2; ln -s '{DOUBLES}/liblog2.so' log2")
for command in (words for words in commands("S1", "secret") if {*FILES} & {*words}):
    if "create-ext" in command:
        command[2:4] = serial, PIN
    smooth = Run(command)
    check(smooth.out in ("DONE", "PASSED"), smooth.what)
    named = rf'{place.folder}/run/[\w.]|"({"|".join(FILES)}|\.", O|\.sign)'
    points = [(call, number) for call, number, rest in smooth.calls
              if call != "execve" and re.search(named, rest)]
    synced = sum(call == "fsync" and f"{place.folder}/run" in rest
                 for call, _, rest in smooth.calls)
    check("create-ext" not in command or synced == 2, "a power cut may lose a signature")
    for (call, number), how in itertools.product(points, CALL_FAULTS):
        run = Run(command, "-e", f"inject={call}:{how}:when={number}")
        injected = any(name == call and rest.endswith("(INJECTED)") for name, _, rest in run.calls)
        cause = (rf".*({CALL_FAULTS[how]}|actual-size:0|the (data|signature) file ).*"
                 r"|zip_open \(answer:\d+\)")
        same = run.out == smooth.out
        check(run.killed or injected and (same or run.failed_for(cause)), run.what)
        kept = {**FILES, "target!": run.left["target!"]}
        check(kept == run.left or run.killed and kept.items() < run.left.items(), run.what)
        is_whole = abs(len(run.left["target!"]) - len(smooth.left["target!"])) < 8
        as_before = "export-crt" in command or run.left["target!"] == "old"
        check(not same and as_before or (same or run.killed) and is_whole, run.what)
end("calls:", counts["runs"], "runs,")
