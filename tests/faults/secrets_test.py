#!/usr/bin/env python3
"""secrets_test.py PROGRAM: a password is looked for wherever a command might leave it: on its
command line, in its memory when it ends, in what it prints and logs, in a core dump. And a private
key is asked what it would let out."""

import ctypes
import os
import pathlib
import shutil
import signal
import subprocess

from setting import PIN, PROGRAM, Setting, check, commands, end

TRACEME, SYSCALL, SETOPTIONS = 0, 24, 0x4200  # requests of ptrace
TRACEEXIT, EXIT = 0x40, 6  # its option, and the event that it makes
ptrace = ctypes.CDLL(None).ptrace
ptrace.argtypes = ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p


def writable(maps, memory):
    """All that a process may write to."""
    for place, rights, *_ in map(str.split, maps):
        if rights.startswith("rw"):
            first, last = (int(number, 16) for number in place.split("-"))
            memory.seek(first)
            yield memory.read(last - first)


def watch(setting, password, command):
    """Runs a command from one system call to the next. The places where its password was found."""
    secret, log = password.encode(), setting.folder / "log"
    shutil.rmtree(log, ignore_errors=True)
    how = {**setting.how, "env": {**setting.env, "GNUTLS_PIN": ""}, "stderr": subprocess.STDOUT}
    process = subprocess.Popen(command, preexec_fn=lambda: ptrace(TRACEME, 0, None, None), **how)
    process.returncode = 0  # only this function waits for it
    pid, own = process.pid, pathlib.Path(f"/proc/{process.pid}")
    status = os.waitpid(pid, 0)[1]  # before its first instruction
    ptrace(SETOPTIONS, pid, None, TRACEEXIT)
    seen = secret in (own / "cmdline").read_bytes()
    found = set() if seen else {"nowhere, not even at the start: the test is blind"}
    # Opened now: soon the program keeps its memory from being looked at.
    with open(own / "maps") as maps, open(own / "mem", "rb", 0) as memory:
        while os.WIFSTOPPED(status):
            if log.exists() and secret in (own / "cmdline").read_bytes():
                found.add("command line")
            if status >> 16 == EXIT and any(secret in part for part in writable(maps, memory)):
                found.add("memory")
            signalled = os.WSTOPSIG(status)
            ptrace(SYSCALL, pid, None, signalled if signalled != signal.SIGTRAP else 0)
            status = os.waitpid(pid, 0)[1]
    left = [process.communicate()[0], *(file.read_bytes() for file in log.rglob("*"))]
    return found | {"output or log" for text in left if secret in text}


def dumps_core(setting, command):
    """Whether it does, if a signal ends it where it first writes: for velmora, to its log."""
    return "core dumped" in setting.bash(
        f"ulimit -c unlimited; strace -e inject=write:signal=QUIT {command} 2>&1 || true")


place = Setting()
short, long_pin = place.token_with_key("Short"), "long-" * 12 + "pin."
kept = place.objects("Short")[0].count("always sensitive, never extractable")
check(kept == 2, "private keys that the token would let out")
for serial, pin in (short, PIN), (place.token("Long", long_pin), long_pin):
    for password in pin, pin[:-1] + "x":
        for words in (words for words in commands(serial, password) if password in words):
            places = watch(place, password, [PROGRAM, *words])
            check(not places, *words, "leaves the password in:", *sorted(places))
check(not dumps_core(place, f"{PROGRAM} key test-valid x {PIN}"), "a core dump")
end("secrets:" if dumps_core(place, "date") else "secrets, but no core dumps on this machine:")
