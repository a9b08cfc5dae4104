#!/usr/bin/env python3
"""Files, modules, output and log that cannot be used: the answer, the cause, what is left."""

import os

from setting import PIN, Setting, check, end

setting = Setting()
serial, work = setting.token_with_key("Alice"), setting.folder

# Of the modules that the machine has registered, SoftHSM among them, none is to be seen.
bare = {name: value for name, value in setting.env.items() if name != "LD_PRELOAD"}
check(serial.encode() in setting.run("media", "list", env=bare).stdout, "none is registered")
seen = setting.answer("media", "list", env={**setting.env, "VELMORA_MODULES": f"{work}/none"})
check(seen == "", "media of the machine's:", seen)


def expect(expected, cause, *words, **options):
    got, log = setting.logged(*words, **options)
    check(got == expected and cause in log, *words, got, log[-200:])


# A hostile word goes to the log escaped, and is no format.
expect("FAILED", r"media-serial:no\nsuch %s%n\\", "key", "test-access", "no\nsuch %s%n\\", PIN)
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
closed, unread = os.open("/dev/null", os.O_RDONLY), os.pipe()
os.close(unread[0])
how = [{"capture_output": False, "stdout": output, "stderr": output}
       for output in (closed, unread[1], os.open("/dev/full", os.O_WRONLY))]
how += [{"wrapper": ["sh", "-c", f'{start} exec "$@" {redirection}', "sh"]}
        for start, redirection in (("", ">&-"), ("", "2>&-"), ("", "<&-"), ("", "<&- >&- 2>&-"),
            ("unset HOME LOG2_DIR;", ""), ("LOG2_DIR=/dev/full/log", ""))]
for words, status in ((("media", "list", serial), 0), (("media",), 70),
                      (("sign", "verify", "ds.crt", "sig", "ds.crt"), 64)):
    right = setting.run(*words).stdout
    for options in how:
        run = setting.run(*words, **options)
        said = run.stdout == right or not run.stdout and ">&-" in str(options)
        check(run.returncode == status and (said or "stdout" in options), options, run)
end("disk, output and log:")
