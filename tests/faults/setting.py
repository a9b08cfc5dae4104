"""A place for the built program to run in: a private SoftHSM, a log folder, a working folder."""

import collections
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

PROGRAM = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else "velmora"
SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
PIN = "24681012"
KEY = {"Public": 2, "Private": 2}  # the objects of a key that was generated
VERIFY = ("openssl cms -verify -binary -inform DER -content data -certfile ds.pem -nointern"
          " -noverify -out /dev/null -in ")  # and the signature's name


class Setting:
    """Every test makes one; the folder goes with it."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velmora-faults."))
        self.env = dict(
            os.environ,
            HOME=str(self.folder),
            LOG2_DIR=str(self.folder / "log"),
            SOFTHSM2_CONF=str(self.folder / "softhsm2.conf"),
            GNUTLS_PIN=PIN,
            LC_ALL="C",
        )
        self.bash('private_softhsm "$PWD"')

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder, ignore_errors=True)

    def bash(self, script):
        """The output of a script that may use the functions of scripts/token.sh; it has to succeed."""
        whole = f'set -euo pipefail; source "{SCRIPTS}/token.sh"; {script}'
        return subprocess.run(
            ["bash", "-c", whole], cwd=self.folder, env=self.env, check=True, text=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        ).stdout.strip()

    def token(self, label):
        """A new empty token's serial."""
        return self.bash(f'new_token "{label}" {PIN}')

    def run(self, *words, wrapper=(), **options):
        """Runs the program; a run that hangs ends the test. Without its log if env says so."""
        return subprocess.run(
            [*wrapper, PROGRAM, *words], timeout=120,
            **{"cwd": self.folder, "env": self.env, "stdin": subprocess.DEVNULL,
               "capture_output": True, **options}
        )

    def certify(self, serial, archive="req.zip"):
        """Issues certificates for both requests in the archive and puts them on the token; the one
        for signatures becomes ds.pem."""
        self.bash(f"""
            [[ -e ca.pem ]] || openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc \
                -keyout ca.key -out ca.pem -subj /CN=CA
            unzip -qo {archive}
            for name in ds kep; do
                openssl x509 -req -inform DER -in $name -copy_extensions copy -days 365 \
                    -CA ca.pem -CAkey ca.key -out $name.pem
                p11tool --batch --login --write --load-certificate $name.pem --label $name \
                    "pkcs11:serial={serial}"
            done""")

    def token_with_key(self, label):
        """The serial of a new token with a certified key."""
        serial = self.token(label)
        made = self.run("key", "create", serial, PIN, "ds", "kep", "req.zip")
        assert made.stdout == b"DONE\n", made
        self.certify(serial)
        return serial

    def objects(self, label):
        """The objects on a token, as another tool shows them, and how many there are of a kind."""
        tool = "pkcs11-tool --module /usr/lib/softhsm/libsofthsm2.so --login --pin $GNUTLS_PIN"
        shown = self.bash(f"{tool} --token-label '{label}' --list-objects")
        return shown, collections.Counter(re.findall(r"^(\w+) ", shown, re.M))
