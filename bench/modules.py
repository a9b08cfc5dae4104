"""Which PKCS#11 modules the programs find registered."""

import ctypes
import os
import pathlib
import shutil

REGISTERED = [pathlib.Path("/usr/share/p11-kit/modules"), pathlib.Path("/etc/pkcs11/modules")]
NEW_MOUNTS, NEW_USER = 0x20000, 0x10000000
BIND, RECURSIVE, PRIVATE = 0x1000, 0x4000, 0x40000


def call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), f"SoftHSM as the only module: {function.__name__} failed")


def keep_softhsm_alone(folder):
    """From here on, this process and those it starts find SoftHSM registered and no other module:
    in a view of the file system that is theirs alone, set up once, so that it costs all of them
    the same. It takes root, or a kernel that lets users have namespaces."""
    folder.mkdir()
    shutil.copy(REGISTERED[0] / "softhsm2.module", folder)
    libc = ctypes.CDLL(None, use_errno=True)
    user, group = os.getuid(), os.getgid()
    call(libc.unshare, NEW_MOUNTS | (NEW_USER if user else 0))
    if user:
        for name, text in (("setgroups", "deny"), ("uid_map", f"{user} {user} 1"),
                           ("gid_map", f"{group} {group} 1")):
            pathlib.Path("/proc/self", name).write_text(text)
    call(libc.mount, None, b"/", None, RECURSIVE | PRIVATE, None)
    for place in filter(pathlib.Path.is_dir, REGISTERED):
        call(libc.mount, bytes(folder), bytes(place), None, BIND, None)
