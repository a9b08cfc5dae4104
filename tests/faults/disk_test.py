#!/usr/bin/env python3
"""Files, modules, output and log that cannot be used: the answer, the cause, what is left."""

import os

from setting import PIN, Setting, check, end

setting = Setting()
serial, work = setting.token_with_key("Alice"), setting.folder

# Of the modules that the machine has registered, SoftHSM among them, none is to be seen.
for change, is_seen in ({"LD_PRELOAD": ""}, True), ({"VELMORA_MODULES": f"{work}/none"}, False):
    seen = setting.answer("media", "list", env={**setting.env, **change})
    check(seen == serial * is_seen, change, "media of the machine's:", seen)


def expect(expected, cause, *words, **options):
    got, log = setting.logged(*words, **options)
    check(got == expected and cause in log, *words, got, log[-200:])


sign = "sign", "create-ext", serial, PIN
setting.bash("ln -s nowhere dangling; ln -s loop loop; mkfifo fifo; ln data same; cp data kept")
expect("DONE", "done", *sign, "data", "sig")
refused = {"no such folder": ["missing/x"], "it is the data file": ["data", "same"],
           "it is not a regular file": [".", "/dev/full", "fifo"],
           "it is a link of somebody else's or to nowhere": ["loop", "dangling"]}
for cause, targets in refused.items():
    for target in targets:
        expect("FAIL", f"the signature file cannot be written: {cause}", *sign, "data", target)
check((work / "data").read_bytes() == (work / "kept").read_bytes(), "the data have changed")
for source in ".", "none", "loop", "fifo", "/dev/null":
    expect("FAIL", "the data file cannot be read", *sign, source, "new")

# Output and log: the command is carried out, and its exit status says so.
unread, into = os.pipe()
os.close(unread)
lost = ">&-", "<&- >&- 2>&-", "1</dev/null 2</dev/null", ">/dev/full 2>&1", f">&{into} 2>&{into}"
for words, status in ((("media", "list", serial), 0), (("media",), 70),
                      (("sign", "verify", "ds.crt", "sig", "ds.crt"), 64)):
    printed = setting.run(*words).stdout
    for how in *lost, "2>&-", "<&-", "unset HOME LOG2_DIR;", "LOG2_DIR=/dev/full/log":
        wrapper = "bash", "-c", f'{how} exec "$@"', "bash"
        run = setting.run(*words, wrapper=wrapper, pass_fds=[into])
        right = run.returncode == status and run.stdout == (b"" if how in lost else printed)
        check(right, how, run)
end("disk, output and log:")
