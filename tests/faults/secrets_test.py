#!/usr/bin/env python3
"""secrets_test.py PROGRAM: a password is looked for wherever a command might leave it: on its
command line, in its memory when it ends, in what it prints and logs, in a core dump. And a private
key is asked what it would let out."""

import ctypes
import os
import shutil
import signal
import subprocess

from setting import PIN, PROGRAM, Setting, check, end

TRACEME, PEEKUSER, POKEUSER, SYSCALL, SETOPTIONS = 0, 3, 6, 24, 0x4200  # requests of ptrace
NUMBER, PRCTL, GETPID = 120, 157, 39  # where the number of a system call stands, and two numbers
TRACESYSGOOD, TRACEEXIT = 0x1, 0x40  # its options
SYSTEM_CALL, EXIT = signal.SIGTRAP | 0x80, signal.SIGTRAP | 6 << 8  # what stops the process
ptrace = ctypes.CDLL(None).ptrace
ptrace.argtypes = ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p


def memory(pid):
    """All that the process may write to."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as contents:
        for place, rights, *_ in map(str.split, maps):
            if rights.startswith("rw"):
                first, last = (int(number, 16) for number in place.split("-"))
                contents.seek(first)
                yield contents.read(last - first)


def watch(setting, password, command):
    """Runs a command from one system call to the next. The places where its password was found."""
    secret, log, printed = password.encode(), setting.folder / "log", setting.folder / "printed"
    shutil.rmtree(log, ignore_errors=True)
    env = {name: value for name, value in setting.env.items() if name != "GNUTLS_PIN"}
    with open(printed, "wb") as output:
        process = subprocess.Popen(
            command, cwd=setting.folder, env=env, stdin=subprocess.DEVNULL, stdout=output,
            stderr=output, preexec_fn=lambda: ptrace(TRACEME, 0, None, None))
    process.returncode = 0  # only this function waits for it
    pid, found, seen, signalled = process.pid, set(), False, 0
    os.waitpid(pid, 0)
    ptrace(SETOPTIONS, pid, None, TRACESYSGOOD | TRACEEXIT)
    while True:
        ptrace(SYSCALL, pid, None, signalled)
        status = os.waitpid(pid, 0)[1]
        if not os.WIFSTOPPED(status):
            break
        signalled = 0 if status >> 8 in (SYSTEM_CALL, EXIT) else os.WSTOPSIG(status)
        with open(f"/proc/{pid}/cmdline", "rb") as line:
            shown = secret in line.read()
        seen |= shown
        if shown and log.exists():
            found.add("command line")
        if status >> 8 == EXIT and any(secret in part for part in memory(pid)):
            found.add("memory")
        elif status >> 8 == SYSTEM_CALL and ptrace(PEEKUSER, pid, NUMBER, None) == PRCTL:
            ptrace(POKEUSER, pid, NUMBER, GETPID)  # the user himself could not look at it after it
    if not seen:
        found.add("nowhere, not even at the start: the test is blind")
    return found | {file.name for file in (printed, *log.rglob("*")) if secret in file.read_bytes()}


def dumps_core(setting, command):
    """Whether it does, if a signal ends it where it first writes: for velmora, to its log."""
    return "core dumped" in setting.bash(
        f"ulimit -c unlimited; strace -e inject=write:signal=QUIT {command} 2>&1 || true")


with Setting() as place:
    long_pin = "long-" * 12 + "pin."
    tokens = ((place.token_with_key("Short"), PIN),
              (place.bash(f"new_token Long {long_pin}"), long_pin))
    kept = place.objects("Short")[0].count("always sensitive, never extractable")
    check(kept == 2, "private keys that the token would let out")
    for serial, pin in tokens:
        for password in (pin, pin[:-1] + "x"):
            for words in ("key create {} ds kep new.zip", "key test-access {}", "key test-valid {}",
                          "key test-sign {}", "key test-all {}", "sign crt-info {}",
                          "sign export-crt {} new.crt", "sign create-ext {} ds.pem new.p7s",
                          "key delete {}"):
                command = [PROGRAM, *words.format(f"{serial} {password}").split()]
                places = watch(place, password, command)
                check(not places, *command, "leaves the password in:", *sorted(places))
    check(not dumps_core(place, f"{PROGRAM} key test-valid x {PIN}"), "a core dump")
    end("secrets:" if dumps_core(place, "date") else "secrets, but no core dumps on this machine:")
