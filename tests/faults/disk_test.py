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

with Setting() as setting:
    serial, work, log = setting.token_with_key("Alice"), setting.folder, setting.folder / "log"
    other = setting.token("Bob")

    # Of the modules that the machine has registered, SoftHSM among them, none is to be seen.
    bare = {name: value for name, value in setting.env.items() if name != "LD_PRELOAD"}
    check(serial.encode() in setting.run("media", "list", env=bare).stdout, "none is registered")
    seen = setting.answer("media", "list", env={**setting.env, "VELMORA_MODULES": f"{work}/none"})
    check(seen == "", "media of the machine's:", seen)

    def expect(expected, cause, *words):
        (log / "velmora.log").unlink(missing_ok=True)
        got, text = setting.answer(*words), (log / "velmora.log").read_text()
        check(got == expected and cause in text, *words, got, text[-200:])

    (work / "data").write_bytes(b"data" * 1000)
    expect("DONE", "done", "sign", "create-ext", serial, PIN, "data", "sig")
    sign, make, delete = (("sign", "create-ext", serial, PIN, "data"),
        ("key", "create", other, PIN, "a", "b"), ("key", "delete", other, PIN))
    setting.bash("""
        mkdir full; mount -t tmpfs -o size=16k full full; echo old | tee full/sig >full/zip
        head -c 99999 /dev/zero >full/rest || true
        ln -s nowhere dangling; ln -s loop loop; mkfifo fifo; ln data same""")
    expect("FAIL", "the signature file cannot be written", *sign, "full/sig")
    expect("FAIL", "fail: zip_close", *make, "full/zip")
    expect("DONE", "done", *delete)
    expect("FAIL", "fail: fwrite", "sign", "export-crt", serial, PIN, "full/new")
    check({(work / "full" / each).read_bytes() for each in ("sig", "zip")} == {b"old\n"})
    check({file.name for file in (work / "full").iterdir()} <= {"sig", "zip", "rest", "new"})
    refused = {"no such folder": ["missing/x"], "it is the data file": ["data", "same"],
               "it is not a regular file": [".", "/dev/full", "fifo"],
               "it is a link of somebody else's or to nowhere": ["loop", "dangling"]}
    for cause, targets in refused.items():
        for target in targets:
            expect("FAIL", f"the signature file cannot be written: {cause}", *sign, target)
    check((work / "data").read_bytes() == b"data" * 1000)
    for source in ".", "none", "loop", "fifo", "/dev/null":
        expect("FAIL", "the data file cannot be read", *sign[:4], source, "new")

    # The token's own disk: what fails leaves the key as it was.
    setting.bash("mount --bind tokens tokens; mount -o remount,bind,ro tokens")
    expect("FAIL", "fail: EUGeneratePrivateKeyEx", *make, "new.zip")
    expect("FAIL", "fail: EUDestroyPrivateKey", *delete[:2], serial, PIN)
    expect("PASSED", "done", "key", "test-sign", serial, PIN)
    setting.bash("umount tokens")
    expect("DONE", "done", *make, "new.zip")

    # Output and log: the command is carried out, and its exit status says so.
    closed, unread = os.open("/dev/null", os.O_RDONLY), os.pipe()
    os.close(unread[0])
    how = [{"capture_output": False, "stdout": output, "stderr": output}
           for output in (closed, unread[1], os.open("/dev/full", os.O_WRONLY))]
    how += [{"wrapper": ["sh", "-c", f'{start} "$@" {redirection}', "sh"]}
            for start, redirection in (("exec", ">&-"), ("exec", "2>&-"), ("exec", "<&-"),
                ("exec", "<&- >&- 2>&-"), ("unset HOME LOG2_DIR; exec", ""))]
    how.append({"env": {**setting.env, "LOG2_DIR": "full/log"}})
    for words, status in ((("media", "list", serial), 0), (("media",), 70),
                          (("sign", "verify", "ds.pem", "sig", "ds.pem"), 64)):
        right = setting.run(*words).stdout
        for options in how:
            run = setting.run(*words, **options)
            said = run.stdout == right or not run.stdout and ">&-" in str(options)
            check(run.returncode == status and (said or "stdout" in options), options, run)

    setting.bash("umount full")
    end("disk, output and log:")
