#!/usr/bin/env python3
"""Files, tokens, output and log that cannot be used: the answer, the cause, what is left."""

import collections
import os
import re
import subprocess
import sys

from setting import PIN, PROGRAM, Setting

if "INSIDE" not in os.environ:  # a mount namespace of its own, as root or as root of a user's own
    for unshare in ["unshare", "-m"], ["unshare", "-rm"]:
        if subprocess.run([*unshare, "true"], stderr=subprocess.DEVNULL).returncode == 0:
            os.execvpe("unshare", [*unshare, *sys.argv], {**os.environ, "INSIDE": "yes"})
    print("SKIPPED: no namespace to mount file systems in")
    sys.exit(77)

FAIL, DONE, PASSED = (b"FAIL\n", 70), (b"DONE\n", 0), (b"PASSED\n", 0)
UNPRIVILEGED = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
checks, failures = 0, 0


def check(holds, *what):
    global checks, failures
    checks += 1
    if not holds:
        failures += 1
        print("FAILED:", *what)


with Setting() as setting:
    serial, work, log = setting.token_with_key("Alice"), setting.folder, setting.folder / "log"
    other = setting.token("Bob")

    def answer(*words, **options):
        run = setting.run(*words, wrapper=UNPRIVILEGED, **options)
        return run.stdout, run.returncode

    def expect(expected, cause, *words):
        (log / "velmora.log").unlink(missing_ok=True)
        got, text = answer(*words), (log / "velmora.log").read_text()
        check(got == expected and cause in text, *words, got, text[-200:])

    (work / "data").write_bytes(b"data" * 1000)
    assert answer("sign", "create-ext", serial, PIN, "data", "sig") == DONE
    sign, make, delete, export = (("sign", "create-ext", serial, PIN, "data"),
        ("key", "create", other, PIN, "a", "b"), ("key", "delete", other, PIN),
        ("sign", "export-crt", serial, PIN))
    setting.bash("""
        mkdir full readonly locked; mount -t tmpfs -o size=16k full full; ln -s nowhere dangling
        mount -t tmpfs readonly readonly; ln -s loop loop; mkfifo fifo; date | tee linked >secret
        for each in full readonly locked; do echo old | tee $each/sig >$each/zip; done
        head -c 99999 /dev/zero >full/rest || true; mount -o remount,ro readonly
        chmod 444 locked/*; chmod 555 locked; chmod 0 secret; ln -s linked link""")

    for name in "full", "readonly", "locked", "missing":
        folder = work / name
        expect(FAIL, "the signature file cannot be written", *sign, f"{name}/sig")
        expect(FAIL, "fail: zip_", *make, f"{name}/zip")
        expect(DONE, "done", *delete)
        expect(FAIL, "fail: fwrite" if name == "full" else "fail: fopen", *export, f"{name}/new")
        if folder.exists():
            check({(folder / each).read_bytes() for each in ("sig", "zip")} == {b"old\n"}, name)
            check({f.name for f in folder.iterdir()} <= {"sig", "zip", "rest", "new"}, name)
    for target in ".", "loop", "/dev/full", "dangling", "fifo":
        expect(FAIL, "the signature file cannot be written", *sign, target)
        if target not in ("dangling", "fifo"):  # made; waited for, as any program does
            expect(FAIL, "fail: f", *export, target)
    expect(DONE, "done", *sign, "link")
    check((work / "link").is_symlink(), "a link that stays")
    expect(PASSED, "done", "sign", "verify", "data", "linked", "ds.pem")
    for source in ".", "none", "loop", "fifo", "/dev/null", "secret":
        expect(FAIL, "the data file cannot be read", *sign[:4], source, "new")
        for words in (source, "sig", "ds.pem"), ("data", source, "ds.pem"), ("data", "sig", source):
            expect(FAIL, "fail: f", "sign", "verify", *words)

    # The token's own disk: what fails leaves the key as it was.
    for disk in ("mount --bind tokens tokens; mount -o remount,bind,ro tokens",
                 "cp -r tokens as-before; mount -t tmpfs -o size=200k tokens tokens;"
                 "cp -r as-before/* tokens; head -c 999999 /dev/zero >tokens/rest || true"):
        setting.bash(disk)
        expect(FAIL, "fail: EUGeneratePrivateKeyEx", *make, "new.zip")
        expect(DONE, "done", *sign, "sig")
        if "remount" in disk:
            expect(FAIL, "fail: EUDestroyPrivateKey", *delete[:2], serial, PIN)
        setting.bash("umount tokens")
        expect(PASSED, "done", "key", "test-sign", serial, PIN)
        expect(DONE, "done", *make, "new.zip")
        expect(DONE, "done", *delete)

    # Output and log: the command is carried out, and its exit status says so.
    closed, unread = os.open("/dev/null", os.O_RDONLY), os.pipe()
    os.close(unread[0])
    commands = {("media", "list", serial): 0, ("sign", "verify", "ds.pem", "sig", "ds.pem"): 64,
                ("media",): 70}
    for words, status in commands.items():
        right = answer(*words)
        check(right[1] == status, words, right)
        for output in closed, unread[1], os.open("/dev/full", os.O_WRONLY):
            run = setting.run(*words, capture_output=False, stdout=output, stderr=output)
            check(run.returncode == status, words, output, run)
        for redirection in ">&-", "2>&-", "<&-", "<&- >&- 2>&-":
            run = setting.run(*words, wrapper=["sh", "-c", f'exec "$@" {redirection}', "sh"])
            check(run.returncode == status and run.stdout in (b"", right[0]), words, redirection)
        for place in None, "full/log", "readonly", "locked", "fifo", "loop", "linked", "/dev/full":
            env = {k: v for k, v in setting.env.items() if place or k not in ("HOME", "LOG2_DIR")}
            env.update({"LOG2_DIR": place} if place else {})
            check(answer(*words, env=env) == right, words, "log in", place)

    # Turned over while eight write: as many lines of each process as of one alone, all whole.
    expect((b"", 0), "done", "media", "list", "none")
    lines = (log / "velmora.log").read_bytes().count(b"\n")
    (log / "velmora.log").write_bytes(b"x\n" * ((4 << 20) - 2000))
    setting.bash(f"""for writer in {{1..8}}; do
        for run in {{1..10}}; do "{PROGRAM}" media list none; done & done; wait""")
    whole = rb"20\S+Z (\d+) [124] \w+ \S+:\d+ .+"
    written = b"".join((log / f"velmora.log{end}").read_bytes() for end in ("", ".1")).splitlines()
    records = [re.fullmatch(whole, line) for line in written if line != b"x"]
    check(all(records) and (log / "velmora.log.1").exists(), "torn lines")
    count = collections.Counter(record[1] for record in records if record)
    check(len(count) == 80 and set(count.values()) == {lines}, "lost lines", lines, count)

    setting.bash("umount full readonly")
print(f"disk, output and log: {checks} checks, {failures} failures")
sys.exit(failures > 0)
