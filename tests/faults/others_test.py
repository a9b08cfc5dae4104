#!/usr/bin/env python3
"""What another user of the machine puts where a command's file is to go, before it runs or while it
does: the answer, the cause, whose file it becomes, and that no other file is touched."""

import re
import stat
import subprocess
import sys
import time
import zipfile

from setting import PIN, Setting, check, end, key, pool

OTHER = "setpriv --reuid=23456 --regid=23456 --clear-groups"
if subprocess.run([*OTHER.split(), "true"], stderr=subprocess.DEVNULL).returncode:
    print("SKIPPED: cannot become another user")
    sys.exit(77)

# What to plant, and how these commands end, done or failed, when it is there before, and meanwhile.
PLANTS = {
    "ln -s ../target! it": ("FFF", "DDF"), "cp /bin/true it; chmod 6777 it": ("DDF", "DDF"),
    "echo >it; chmod 666 it": ("DDF", "DDF"), "mkdir it": ("FFF", "FFF"),
    "mkfifo -m 666 it": ("FFF", "DDF"),
}
CAUSE = r"fail: (EUCtxSignFile .*the (data|signature) file |(target|fopen|rename|entry) <.*> \(\w)"

setting = Setting()
serial, new, folder = setting.token_with_key("Alice"), setting.token("Bob"), setting.folder
shared, own, target = folder / "shared", folder / "target!", folder / "shared/it"
setting.bash("chmod 711 .; mkdir -m 1777 shared; echo own >target!; chmod 600 target!")

# Commands, and the last system call of each on the folder, at which it is stopped.
COMMANDS = ((["sign", "create-ext", serial, PIN, "data", "shared/it"], "renameat"),
            (["key", "create", new, PIN, "ds", "kep", "shared/it"], "renameat"),
            (["sign", "export-crt", serial, PIN, "shared/it"], "openat:when=2"))

def run(words, **options):
    """What it answers, and logs."""
    if "create" in words:
        setting.answer(*key("delete", new))
    return setting.logged(*words, **options)

def meanwhile(words, stop, do):
    """The same of one that is stopped, and something is done when it has found its files."""
    trace = folder / "trace"
    trace.write_text("")
    running = pool.submit(run, words, wrapper=setting.traced(
        "-P", folder / "data", "-P", shared, "-e", f"inject={stop}:delay_enter=700000"))
    while not running.done() and "O_PATH" not in trace.read_text():
        time.sleep(0.01)
    do()
    check(not running.done(), words, "was not stopped until then")
    return running.result()

def plant(what):
    setting.bash(f"cd shared; rm -rf *; {OTHER} sh -c '{what}'")

cases = [(what, late, *each) for what, ends in PLANTS.items() for late in (False, True)
         for each in zip(COMMANDS, ends[late])]
for what, late, (words, stop), end_letter in cases:
    plant("true" if late else what)
    got, log = meanwhile(words, stop, lambda: plant(what)) if late else run(words)
    point, status = (what, words, late, got, log), target.lstat()
    check(got[0] == end_letter and (got == "DONE" or re.search(CAUSE, log)), *point)
    check(got == "FAIL" or status.st_mode == stat.S_IFREG | 0o644 and not status.st_uid, *point)
    check(own.read_bytes() == b"own\n" and [*shared.iterdir()] == [target], *point)
    if got == "DONE" and "create" in words:
        modes = {each.external_attr >> 16 for each in zipfile.ZipFile(target).infolist()}
        check(modes == {stat.S_IFREG | 0o644}, *point, modes)

setting.bash("rm -rf shared/*; ln -s ../target! shared/it")  # one's own link
for words, _ in COMMANDS:
    check(run(words)[0] == "DONE" and target.is_symlink(), words)
    check(setting.is_whole(words[1]) and own.stat().st_mode & 0o777 == 0o600, words)
got, log = meanwhile(COMMANDS[0][0], "read:when=1", lambda: setting.bash("echo more >>data"))
check(got == "FAIL" and "changed while" in log, got, log)

setting.bash("rm -rf shared/*; echo >shared/a; ln shared/a shared/it; chown 23456 shared")
setting.bash("chmod 755 shared")  # a third user's folder, whose owner may have given it names
got, log = run(COMMANDS[-1][0])
check(got == "FAIL" and "a file with other names in a shared folder" in log, got, log)

# The log: what is planted is neither written to nor turned over, and the command goes on. What
# is there, made by whom; the folder's mode and owner; whether that becomes the log.
setting.env["LOG2_DIR"] = shared
plain, twice, link = "echo >velmora.log", "echo >a; ln a velmora.log", "ln -s ../own velmora.log"
chain = "n=velmora.log; for i in 2 3 4 5 6 7 8 9 ../own; do ln -s $i $n; n=$i; done"
full = "truncate -s 8M velmora.log; mkdir velmora.log.1"
for what, by, mode, owner, ours in (
        (plain, "", 1777, 0, True), (twice, "", 1777, 0, False), (twice, "", 755, 0, True),
        (plain, OTHER, 1777, 0, False), (plain, OTHER, 777, 0, True), (plain, OTHER, 755, 0, True),
        (plain, OTHER, 1777, 23456, True), (link, OTHER, 755, 0, False),
        (link, OTHER, 755, 23456, True), (link, OTHER, 1777, 0, False),
        (chain, "", 755, 0, False), (full, OTHER, 777, 0, False)):
    setting.bash(f"""rm -rf shared; mkdir -m 777 shared; echo >own; cd shared; umask 0
        {by} sh -c '{what}'; chown {owner} .; chmod {mode} .""")
    got, log = setting.answer("media", "list", serial), shared / "velmora.log"
    text = (folder / "own" if log.is_symlink() else log).read_text()
    check(got == serial and ("mediaList" in text) == ours, what, by, mode, owner, text[-200:])

setting.env["LOG2_DIR"] = made = shared / "made"
setting.bash(f"chmod 1777 shared; {OTHER} mkdir -m 777 shared/made")
check(setting.answer("media", "list", serial) == serial and not [*made.iterdir()], "their folder")
end("others:")
