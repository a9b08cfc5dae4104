#!/usr/bin/env python3
"""Files, tokens, output and log that cannot be used: the answer, the cause, what is left."""

import os
import subprocess
import sys

from setting import PIN, Setting, check, end

if "INSIDE" not in os.environ:  # a mount namespace of its own, as root or as root of a user's own
    for unshare in ["unshare", "-m"], ["unshare", "-rm"]:
        if subprocess.run([*unshare, "true"], stderr=subprocess.DEVNULL).returncode == 0:
            os.execvpe("unshare", [*unshare, *sys.argv], {**os.environ, "INSIDE": "yes"})
    print("SKIPPED: no namespace to mount file systems in")
    sys.exit(77)

UNPRIVILEGED = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]

with Setting() as setting:
    serial, work, log = setting.token_with_key("Alice"), setting.folder, setting.folder / "log"
    other = setting.token("Bob")

    def answer(*words, **options):
        return setting.answer(*words, wrapper=UNPRIVILEGED, **options)

    def expect(expected, cause, *words):
        (log / "velmora.log").unlink(missing_ok=True)
        got, text = answer(*words), (log / "velmora.log").read_text()
        check(got == expected and cause in text, *words, got, text[-200:])

    (work / "data").write_bytes(b"data" * 1000)
    assert answer("sign", "create-ext", serial, PIN, "data", "sig") == "DONE"
    sign, make, delete, export = (("sign", "create-ext", serial, PIN, "data"),
        ("key", "create", other, PIN, "a", "b"), ("key", "delete", other, PIN),
        ("sign", "export-crt", serial, PIN))
    setting.bash("""
        mkdir full readonly locked; mount -t tmpfs -o size=16k full full; ln -s nowhere dangling
        mount -t tmpfs readonly readonly; ln -s loop loop; mkfifo fifo; date | tee file >secret
        for each in full readonly locked; do echo old | tee $each/sig >$each/zip; done
        head -c 99999 /dev/zero >full/rest || true; mount -o remount,ro readonly
        chmod 444 locked/*; chmod 555 locked; chmod 0 secret""")

    for name in "full", "readonly", "locked", "missing":
        folder = work / name
        expect("FAIL", "the signature file cannot be written", *sign, f"{name}/sig")
        expect("FAIL", "fail: zip_", *make, f"{name}/zip")
        expect("DONE", "done", *delete)
        expect("FAIL", "fail: fwrite" if name == "full" else "fail: fopen", *export, f"{name}/new")
        if folder.exists():
            check({(folder / each).read_bytes() for each in ("sig", "zip")} == {b"old\n"}, name)
            check({f.name for f in folder.iterdir()} <= {"sig", "zip", "rest", "new"}, name)
    for target in ".", "loop", "/dev/full", "dangling", "fifo":
        expect("FAIL", "the signature file cannot be written", *sign, target)
    for source in ".", "none", "loop", "fifo", "/dev/null", "secret":
        expect("FAIL", "the data file cannot be read", *sign[:4], source, "new")

    # The token's own disk: what fails leaves the key as it was.
    for disk in ("mount --bind tokens tokens; mount -o remount,bind,ro tokens",
                 "cp -r tokens as-before; mount -t tmpfs -o size=200k tokens tokens;"
                 "cp -r as-before/* tokens; head -c 999999 /dev/zero >tokens/rest || true"):
        setting.bash(disk)
        expect("FAIL", "fail: EUGeneratePrivateKeyEx", *make, "new.zip")
        expect("DONE", "done", *sign, "sig")
        if "remount" in disk:
            expect("FAIL", "fail: EUDestroyPrivateKey", *delete[:2], serial, PIN)
        setting.bash("umount tokens")
        expect("PASSED", "done", "key", "test-sign", serial, PIN)
        expect("DONE", "done", *make, "new.zip")
        expect("DONE", "done", *delete)

    # Output and log: the command is carried out, and its exit status says so.
    closed, unread = os.open("/dev/null", os.O_RDONLY), os.pipe()
    os.close(unread[0])
    how = [{"capture_output": False, "stdout": output, "stderr": output}
           for output in (closed, unread[1], os.open("/dev/full", os.O_WRONLY))]
    how += [{"wrapper": ["sh", "-c", f'{start} "$@" {redirection}', "sh"]}
            for start, redirection in (("exec", ">&-"), ("exec", "2>&-"), ("exec", "<&-"),
                ("exec", "<&- >&- 2>&-"), ("unset HOME LOG2_DIR; exec", ""))]
    how += [{"wrapper": UNPRIVILEGED, "env": {**setting.env, "LOG2_DIR": place}}
            for place in ("full/log", "readonly", "locked", "fifo", "loop", "file", "/dev/full")]
    for words, status in ((("media", "list", serial), 0), (("media",), 70),
                          (("sign", "verify", "ds.pem", "sig", "ds.pem"), 64)):
        right = setting.run(*words).stdout
        for options in how:
            run = setting.run(*words, **options)
            said = run.stdout == right or not run.stdout and ">&-" in str(options)
            check(run.returncode == status and (said or "stdout" in options), options, run)

    setting.bash("umount full readonly")
    end("disk, output and log:")
