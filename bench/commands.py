"""What velmora is asked to do, and the commands of other programs that do the same on the same
token and the same files. Of each list velmora's command is the first."""

import hashlib
import pathlib
from dataclasses import replace

from measure import Command
from setting import PIN, PROGRAM, key

SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so"
USAGE = pathlib.Path(__file__).parents[1] / "tests/tool/usage.txt"


def equals(text):
    return lambda output: output == text


def holds(*texts):
    return lambda output: all(text in output for text in texts)


def velmora(words, expected, **details):
    return Command("velmora", [PROGRAM, *words.split()], expected, **details)


def peer(line, expected, **details):
    words = line.split()
    return Command(words[0], words, expected, **details)


def pkcs11_tool(words, expected, module=SOFTHSM):
    return peer(f"pkcs11-tool --module {module} {words}", expected)


def beside(name):
    """A program of the benchmark's own, built along with velmora."""
    return str(pathlib.Path(PROGRAM).with_name(name))


def usage():
    return [velmora("", equals(USAGE.read_text()), status=70),
            Command("one line of C++", [beside("one_line")], equals("one line\n"))]


def media(serials, module=SOFTHSM):
    """Velmora prints the serials and nothing else, in whatever order."""
    return [velmora("media list", lambda output: sorted(output.split()) == sorted(serials)),
            peer("p11tool --list-tokens", holds(*serials)),
            pkcs11_tool("-L", holds(*serials), module)]


def password(serial, pin, module=SOFTHSM):
    return [velmora(f"key test-valid {serial} {pin}", equals("PASSED\n")),
            pkcs11_tool(f"--login --pin {pin} -O", holds("Private Key Object", "DS"), module)]


def sign(run, serial, data, engine_module=SOFTHSM):
    """Every signature is checked with openssl, down to the certificate's issuer."""
    key = f"pkcs11:serial={serial};object=DS;type=private"
    commands = [
        velmora(f"sign create-ext {serial} {PIN} {data} velmora.p7s", equals("DONE\n")),
        peer(f"openssl cms -sign -binary -in {data} -engine pkcs11 -keyform engine"
             f" -inkey {key};pin-value={PIN} -signer ds.pem -cades -nocerts -nosmimecap"
             " -outform DER -out openssl.p7s", equals('Engine "pkcs11" set.\n'),
             env={"PKCS11_MODULE_PATH": engine_module}),
        peer(f"certtool --p7-detached-sign --infile {data} --load-privkey {key}"
             " --load-certificate ds.pem --hash SHA256 --p7-time --no-p7-include-cert"
             " --outder --outfile certtool.p7s", equals("")),
    ]
    for command in commands:
        signature = pathlib.Path(f"{command.name}.p7s")
        checking = openssl_verify(data, signature, "-CAfile ca.pem")
        command.prepare = lambda signature=signature: signature.unlink(missing_ok=True)
        command.check = lambda checking=checking: run(checking)
    least = [beside("least_signature"), SOFTHSM, PIN, "DS"]
    return [*commands, Command("token alone", least, equals(""), is_peer=False)]


def sign_apart(serial, data, digest):
    """Signing commands that may run at once: "{}" in each is a number of its own. The peer signs
    32 bytes as they are."""
    return [velmora(f"sign create-ext {serial} {PIN} {data} velmora-{{}}.p7s", equals("DONE\n")),
            pkcs11_tool("--sign --mechanism ECDSA --label DS"
                        f" --pin {PIN} --input-file {digest} --output-file pkcs11-tool-{{}}.sig",
                        holds("Using signature algorithm ECDSA"))]


def openssl_verify(data, signature, trust):
    """Without the system's certification authorities, which take it ten times as long to read."""
    return peer(f"openssl cms -verify -binary -inform DER -in {signature} -content {data}"
                f" -certfile ds.pem -nointern {trust} -no-CApath -no-CAstore -out /dev/null",
                equals("CMS Verification successful\n"))


def verify(data, signature):
    return [velmora(f"sign verify {data} {signature} ds.pem", equals("PASSED\n")),
            openssl_verify(data, signature, "-noverify -no-CAfile"),
            peer(f"certtool --p7-verify --inder --infile {signature} --load-data {data}"
                 " --load-certificate ds.pem", holds("Signature status: ok")),
            Command("certificate alone", [beside("least_verification"), "ds.pem"], equals(""),
                    is_peer=False)]


def digest(data):
    with open(data, "rb") as file:
        right = hashlib.file_digest(file, "sha256").hexdigest()
    return replace(peer(f"openssl dgst -sha256 {data}", holds(right)), name="openssl dgst")


def make(serial, module=SOFTHSM):
    """A key, of two pairs; for the peer one pair."""
    return [velmora(" ".join(key("create", serial)), equals("DONE\n")),
            pkcs11_tool(f"--login --pin {PIN} --keypairgen --key-type EC:prime256v1 --label pair",
                        holds("Key pair generated"), module)]


def make_and_delete(run, serial):
    """Each run of one command is made ready, or undone and so checked, by the other."""
    ours, peers = make(serial)
    both = (
        (ours, velmora(f"key delete {serial} {PIN}", equals("DONE\n"))),
        (peers,
         peer(f"p11tool --batch --login --delete pkcs11:serial={serial};object=pair",
              holds("2 objects deleted"))),
    )
    return ([replace(make, check=lambda delete=delete: run(delete)) for make, delete in both],
            [replace(delete, prepare=lambda make=make: run(make)) for make, delete in both])
