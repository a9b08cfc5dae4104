"""A place where the built program verifies what OpenSSL makes there: certificates, and signatures
that are edited afterwards."""

import os
import pathlib
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../faults")
from der import Element, build, parse  # noqa: E402
from setting import Setting  # noqa: E402

setting = Setting()
os.chdir(setting.folder)
ISSUE = """
ec=ec,ec_paramgen_curve
issue() { # NAME ISSUER KEY [OPTION]...: NAME.pem and NAME.key
    openssl req -x509 -newkey ${3//,/ -pkeyopt } -noenc -keyout $1.key -out $1.pem -subj "/CN=$1" \\
        ${2:+-CA $2.pem -CAkey $2.key} -days 9999 "${@:4}"
}
"""


def bash(script):
    return setting.bash(ISSUE + script)


bash("echo contract >data; echo another >another")


def made(command):
    bash(command)
    return pathlib.Path("made").read_bytes()


def in_der(name):
    return made(f"openssl x509 -in {name}.pem -outform DER -out made")


def openssl(options="", by="rsa", how="cms", data="data"):
    """A signature."""
    return made(f"openssl {how} -sign -binary -in {data} -signer {by}.pem -inkey {by}.key"
                f" -out made -outform DER {options}")


def edited(signature, edit, ber=""):
    """The message after an edit of its SignedData and its signer, the last."""
    message = parse(signature)[0]
    edit(message[1][0], message[1][0][-1][0])
    return build(message, ber)


def signed(*attributes, by="rsa", digest="sha256"):
    """A signature with signed attributes in the place of their namesakes. One without values is
    left out."""
    def again(_, signer):
        names = [each[0].inside for each in attributes]
        kept = [each for each in signer[3] if each[0].inside not in names]
        signer[3].inside = sorted(kept + [each for each in attributes if each[1].inside], key=build)
        pathlib.Path("attributes").write_bytes(build(Element(0x31, signer[3].inside)))
        signer[5].inside = made(f"openssl dgst -{digest} -sign {by}.key -out made attributes")
    return edited(openssl("-cades", by), again)
