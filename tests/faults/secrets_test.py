#!/usr/bin/env python3
"""secrets_test.py PROGRAM: a password is looked for wherever a command might leave it: on its
command line, in its memory when it ends, in what it prints and logs, in a core dump. And a private
key is asked what it would let out."""

import ctypes
import os
import resource
import shutil
import signal
import subprocess
import sys

from setting import PIN, PROGRAM, Setting

TRACEME, PEEKUSER, POKEUSER, SYSCALL, SETOPTIONS = 0, 3, 6, 24, 0x4200  # requests of ptrace
NUMBER, PRCTL, GETPID = 120, 157, 39  # where the number of a system call stands, and two numbers
TRACESYSGOOD, TRACEEXIT = 0x1, 0x40  # its options
SYSTEM_CALL, EXIT = signal.SIGTRAP | 0x80, signal.SIGTRAP | 6 << 8  # what stops the process
ptrace = ctypes.CDLL(None).ptrace
ptrace.argtypes = ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p


def begin():
    ptrace(TRACEME, 0, None, None)
    resource.setrlimit(resource.RLIMIT_CORE, (-1, -1))


def memory(pid):
    """All that the process may write to."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as contents:
        for place, rights, *_ in map(str.split, maps):
            if rights.startswith("rw"):
                start, end = (int(number, 16) for number in place.split("-"))
                contents.seek(start)
                yield contents.read(end - start)


def watch(setting, password, command, crash=False):
    """Runs a command from one system call to the next. The places where its password was found."""
    secret, log, printed = password.encode(), setting.folder / "log", setting.folder / "printed"
    shutil.rmtree(log, ignore_errors=True)
    env = {name: value for name, value in setting.env.items() if name != "GNUTLS_PIN"}
    with open(printed, "wb") as output:
        process = subprocess.Popen(
            command, cwd=setting.folder, env=env, stdin=subprocess.DEVNULL, stdout=output,
            stderr=output, preexec_fn=begin)
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
        if crash:
            if log.exists() or command[0] != PROGRAM:
                os.kill(pid, signal.SIGABRT)
        elif status >> 8 == EXIT and any(secret in part for part in memory(pid)):
            found.add("memory")
        elif status >> 8 == SYSTEM_CALL and ptrace(PEEKUSER, pid, NUMBER, None) == PRCTL:
            ptrace(POKEUSER, pid, NUMBER, GETPID)  # the user himself could not look at it after it
    if os.WIFSIGNALED(status) and os.WCOREDUMP(status):
        found.add("core dump")
    if not seen:
        found.add("nowhere, not even at the start: the test is blind")
    for file in (printed, *log.rglob("*")):
        if secret in file.read_bytes():
            found.add(file.name)
    return found


failures = runs = 0
with Setting() as place:
    tokens = [(place.token_with_key("Short"), PIN)]
    kept = place.bash(
        f"pkcs11-tool --module /usr/lib/softhsm/libsofthsm2.so --login --pin {PIN} --token-label "
        "Short --list-objects --type privkey | grep -c 'always sensitive, never extractable'")
    exposed = kept != "2"
    print("private keys:", "FAILED" if exposed else "never out of the token")
    long_pin = "long-" * 12 + "pin."
    tokens.append((place.bash(f"new_token Long {long_pin}"), long_pin))
    for serial, pin in tokens:
        for password in (pin, pin[:-1] + "x"):
            for words in ("key create {} ds kep new.zip", "key test-access {}", "key test-valid {}",
                          "key test-sign {}", "key test-all {}", "sign crt-info {}",
                          "sign export-crt {} new.crt", "sign create-ext {} ds.pem new.p7s",
                          "key delete {}"):
                command = [PROGRAM, *words.format(f"{serial} {password}").split()]
                places = watch(place, password, command)
                failures += bool(places)
                runs += 1
                if places:
                    print("FAILED:", *command, "leaves the password in:", *sorted(places))
    print(f"passwords: {runs} runs, {failures} failures")
    possible = "core dump" in watch(place, "77", ["sleep", "77"], crash=True)
    command = [PROGRAM, "key", "test-valid", "x", PIN]
    dumped = "core dump" in watch(place, PIN, command, crash=True)
    print("core dumps:", "FAILED" if dumped else "none" if possible else "this machine makes none")
sys.exit(failures > 0 or exposed or dumped)
