#!/usr/bin/env python3
"""What sign verify says of the signatures that other tools make, one row of a table each: how it is
made, and the log's cause if it is refused. And what other tools say of velmora's own."""

import atexit
import base64
import hashlib
import os
import pathlib
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../faults")
from der import Element, attribute, build, edited, element, oid, parse, signed_with  # noqa: E402
from setting import PIN, Setting, check, end  # noqa: E402

setting = Setting()
atexit.register(setting.__exit__)  # gpg-agent ends with its folder
setting.env.update(GNUPGHOME=f"{setting.folder}/gpg")
os.chdir(setting.folder)
bash = setting.bash
bash('''
issue() { # NAME ISSUER KEY [OPTION]...
    openssl req -x509 -newkey ${3//,/ -pkeyopt } -noenc -keyout $1.key -out $1.pem -subj "/CN=$1" \\
        ${2:+-CA $2.pem -CAkey $2.key} -days 9 -addext subjectAltName=email:$1@example.org "${@:4}"
}
ec=ec,ec_paramgen_curve
leaf='-addext basicConstraints=critical,CA:false -addext keyUsage=critical,digitalSignature'
issue ca '' $ec:P-256; issue between ca $ec:P-256
issue ec ca $ec:P-256 $leaf; issue rsa between rsa:2048 $leaf; issue other ca $ec:P-256 $leaf
issue p384 ca $ec:P-384; issue p521 ca $ec:P-521; issue koblitz ca $ec:secp256k1
issue explicit ca $ec:P-256,ec_param_enc:explicit; issue edwards ca ed25519; issue pss ca rsa-pss
issue short ca rsa:1024; issue three ca rsa:2048,rsa_keygen_pubexp:3
issue agreement ca $ec:P-256 -addext keyUsage=keyAgreement
openssl req -x509 -key ec.key -out renewed.pem -subj /CN=ec -CA ca.pem -CAkey ca.key -days 9 \\
    -set_serial 0x$(openssl x509 -in ec.pem -noout -serial | cut -d= -f2)
openssl req -x509 -key rsa.key -out stamp.pem -subj /CN=stamp \\
    -addext extendedKeyUsage=critical,timeStamping
printf '[ts]\\nserial=n\\ndefault_policy=1.2.3\\ndigests=sha256\\nsigner_digest=sha256\\n' >ts.cnf
openssl ca -gencrl -config <(printf '[ca]\\ndefault_ca=x\\n[x]\\ndatabase=/dev/null\\n') \\
    -cert ca.pem -keyfile ca.key -crldays 9 -md sha256 -out crl.pem
echo contract >data; echo another >another; cat between.pem ca.pem >chain.pem
openssl pkcs12 -export -legacy -in rsa.pem -inkey rsa.key -certfile chain.pem -passout pass:x \\
    -name rsa -out rsa.p12
mkdir nss; certutil -N -d nss --empty-password; pk12util -i rsa.p12 -d nss -W x
for each in ca between; do certutil -A -d nss -n $each -t CT,CT,CT -i $each.pem; done
mkdir -m 700 gpg
printf 'disable-crl-checks\\ndisable-dirmngr\\nbatch\\npinentry-mode loopback\\n' >gpg/gpgsm.conf
openssl x509 -in ca.pem -noout -fingerprint -sha1 | sed 's/.*=//; s/$/ S relax/' >gpg/trustlist.txt
echo x | gpgsm --passphrase-fd 0 --import rsa.p12 || true; gpgsm --import chain.pem
''')


CERTTOOL = ("certtool --p7-detached-sign --load-certificate rsa.pem --load-privkey rsa.key"
            " --infile data --outfile made ")
GPGSM = "rm -f made; echo x | gpgsm --passphrase-fd 0 -u rsa --detach-sign -o made {} data"
NSS = "cmsutil -S -d nss -N rsa -Y NONE -T -i data -o made "


def made(command):
    bash(command)
    return pathlib.Path("made").read_bytes()


def openssl(options="", by="rsa", how="cms", data="data"):
    return made(f"openssl {how} -sign -binary -in {data} -signer {by}.pem -inkey {by}.key"
                f" -out made -outform DER {options}")


def signed(name, *values, by="rsa", digest="sha256"):
    """With other values of a signed attribute, or without it."""
    return signed_with(bash, openssl("-cades", by), attribute(name, *values), by, digest)


def unsigned(*attributes):
    return edited(cades, lambda _, signer: signer.inside.append(element(0xA1, *attributes)))


def stamp():
    """A time stamp of the signature's value."""
    pathlib.Path("value").write_bytes(parse(cades)[0][1][0][-1][0][5].inside)
    return parse(made("openssl ts -query -data value -sha256 -cert -out query; openssl ts -reply"
                      " -config ts.cnf -section ts -queryfile query -signer stamp.pem"
                      " -inkey rsa.key -token_out -out made"))[0]


def named(signature, name, field=4):
    """With another name for the signature's algorithm, or for the digest's in field 2."""
    return edited(signature, lambda _, signer: signer[field].inside.__setitem__(0, oid(name)))


def pem(encoding, label, width=64, around=b"", end=b"\n"):
    text = base64.b64encode(encoding)
    lines = [text[at:at + width] for at in range(0, len(text), width)]
    lines = [b"-----BEGIN %s-----" % label, *lines, b"-----END %s-----" % label]
    return end.join([around, *lines, around])


def identifiers(*hashes):
    """The value of a signing-certificate attribute."""
    return element(0x30, element(0x30, *[element(0x30, Element(4, each)) for each in hashes]))


def in_key(name, bytes_before, change):
    """A certificate with another byte in its key."""
    out = bytearray(der[name])
    out[out.index(bytes_before) + len(bytes_before)] ^= change
    return bytes(out)


def usage_twice():
    certificate = parse(der["rsa"])[0]
    extensions = certificate[0][-1][0].inside
    extensions += [each for each in extensions if each[0].inside == oid("2.5.29.15").inside]
    return build(certificate)


def verdict(signature, certificate, data="data"):
    """Empty for PASSED, the log's cause for FAILED."""
    pathlib.Path("signature").write_bytes(signature)
    if isinstance(certificate, str):
        certificate = pathlib.Path(certificate + ".pem").read_bytes()
    pathlib.Path("certificate").write_bytes(certificate)
    log = pathlib.Path("log/velmora.log")
    log.unlink(missing_ok=True)
    answer = setting.answer("sign", "verify", data, "signature", "certificate")
    causes = re.findall(r" 1 signVerify .*fail: EUVerifyDataWithParams \((.*)\)$",
                        log.read_text(), re.M)
    check(answer == ("FAILED" if causes else "PASSED"), answer, causes)
    return causes[0] if causes else ""


RSA, EC, PKCS9 = "1.2.840.113549.1.1.", "1.2.840.10045.", "1.2.840.113549.1.9."
PSS = "-keyopt rsa_padding_mode:pss "
CONTENT, DIGEST, TIME = PKCS9 + "3", PKCS9 + "4", PKCS9 + "5"
ESS, ESS_V2, UNKNOWN = PKCS9 + "16.2.12", PKCS9 + "16.2.47", "1.2.3.4"
ec, rsa, plain, cades = openssl(by="ec"), openssl(), openssl("-nosmimecap"), openssl("-cades")
der = {name: made(f"openssl x509 -in {name}.pem -outform DER -out made") for name in
       ("ec", "rsa", "ca")}
crl = made("openssl crl -in crl.pem -outform DER -out made")
two = openssl("-signer other.pem -inkey other.key")
twice = edited(rsa, lambda data, signer: data[-1].inside.append(signer))
octets, foreign, late = Element(4, b"x"), bytes(32), Element(23, b"491231000000Z")
sha256 = hashlib.sha256(der["rsa"]).digest()
sha3 = Element(4, hashlib.sha3_256(b"contract\n").digest())
modulus = bytes.fromhex(made("openssl x509 -in rsa.pem -noout -modulus >made").decode()[8:])
ACCEPTED = [
    *((openssl(options), "rsa") for options in (
        "-noattr", "-md sha384", "-md sha3-256", "-certfile chain.pem", PSS,
        PSS + "-keyopt rsa_pss_saltlen:0 -md sha512")),
    (cades, "rsa"), (ec, "ec"), (openssl("-keyid", "ec"), "ec"), (openssl(PSS, "pss"), "pss"),
    (openssl(by="p384"), "p384"), (openssl("-md sha512", "p521"), "p521"),
    (openssl(by="three"), "three"), (openssl(by="ec"), "renewed"),
    (named(named(signed(DIGEST, sha3, by="ec", digest="sha3-256"), "2.16.840.1.101.3.4.2.8", 2),
           "2.16.840.1.101.3.4.3.10"), "ec"),
    (openssl("-outform PEM", how="smime"), "rsa"), (made(CERTTOOL + "--outder"), "rsa"),
    (made(CERTTOOL + "--p7-time"), "rsa"), (made(NSS), "rsa"),
    (made(NSS + "-G -P -H SHA512"), "rsa"), (made(GPGSM.format("--include-certs 0")), "rsa"),
    (made(GPGSM.format("--armor")), "rsa"),
    (two, "rsa"), (two, "other"), (twice, "rsa"),
    (edited(cades, lambda data, _: data.inside.insert(4, element(0xA1, *parse(crl)))), "rsa"),
    (edited(rsa, lambda data, _: data[3].inside.insert(0, Element(4, b"no certificate"))), "rsa"),
    (edited(cades, lambda data, _: data[1].inside.clear()), "rsa"),
    (unsigned(attribute(PKCS9 + "16.2.14", stamp())), "rsa"),
    (unsigned(attribute(UNKNOWN), attribute(UNKNOWN), attribute(DIGEST, octets)), "rsa"),
    (named(cades, RSA + "11"), "rsa"), (named(ec, EC + "2.1"), "ec"),
    (edited(plain, lambda *_: None, "indefinite"), "rsa"),
    (edited(plain, lambda *_: None, "long"), "rsa"),
    (signed(TIME), "rsa"), (signed(ESS_V2), "rsa"), (signed(UNKNOWN, octets), "rsa"),
    (signed(ESS, identifiers(hashlib.sha1(der["rsa"]).digest())), "rsa"),
    (signed(ESS_V2, identifiers(sha256, foreign)), "rsa"),
    (pem(rsa, b"PKCS #7 SIGNED DATA", end=b"\r\n"), "rsa"),
    (pem(rsa, b"CMS", around=b"text"), der["rsa"]), (rsa, pem(der["rsa"], b"CERTIFICATE", 99999)),
    (rsa, pem(crl, b"X509 CRL") + pem(der["rsa"], b"X509 CERTIFICATE", 76, end=b" \r\n") +
     pem(der["ca"], b"CERTIFICATE")),
]
REFUSED = [
    ("was changed, or", edited(cades, lambda _, signer: signer[3].inside.pop(0)), "rsa"),
    ("was changed, or", twice[:-1] + bytes([twice[-1] ^ 1]), "rsa"),
    ("the file that was signed is another one", cades, "rsa", "another"),
    ("owner of another certificate", two, "ec"),
    ("another certificate of its owner", openssl("-cades", "ec"), "renewed"),
    ("another certificate of its owner", signed(ESS_V2, identifiers(foreign, sha256)), "rsa"),
    ("SHA-1, which is no longer safe", openssl("-md sha1"), "rsa"),
    ("MD5, which is no longer safe", openssl("-md md5"), "rsa"),
    ("a digest other than SHA-256", openssl("-md sha224"), "rsa"),
    ("not detached", openssl("-nodetach"), "rsa"),
    ("content of another type", openssl("-noattr -econtent_type 1.2.3"), "rsa"),
    ("content of another type", signed(CONTENT, oid("1.2.3")), "rsa"),
    ("neither RSA nor on the curve", openssl(by="koblitz"), "koblitz"),
    ("neither RSA nor on the curve", openssl(by="explicit"), "explicit"),
    ("neither RSA nor", rsa, "edwards"), ("less than 2048 bits", openssl(by="short"), "short"),
    ("unsound", rsa, in_key("rsa", b"\2\3\1\0", 1)),
    ("unsound", rsa, in_key("rsa", modulus[:-1], 1)),
    ("unsound", ec, in_key("ec", b"\3\x42\0\4", 1)),
    ("not meant for signing", rsa, "agreement"), ("not meant for signing", rsa, usage_twice()),
    ("the certificate is malformed", rsa, der["rsa"] + b"\0"),
    ("larger than 64 KiB", rsa, der["rsa"] + bytes(1 << 16)),
    ("larger than 64 MiB", bytes((1 << 26) + 1), "rsa"),
    ("no CMS", rsa + b"\0", "rsa"), ("no CMS", b"text", "rsa"), ("no CMS", crl, "rsa"),
    ("nobody signed", edited(rsa, lambda data, _: data[-1].inside.clear()), "rsa"),
    ("several digests", openssl(PSS + "-keyopt rsa_mgf1_md:sha512"), "rsa"),
    ("two different digests", named(rsa, RSA + "13"), "rsa"),
    ("not one of the certificate's key", named(ec, RSA + "10"), "ec"),
    ("in the order of DER", edited(cades, lambda _, signer: signer[3].inside.reverse()), "rsa"),
    ("stands twice", edited(cades, lambda _, signer: signer[3].inside.append(signer[3][0])), "rsa"),
    ("exactly one value", signed(DIGEST, octets, Element(4, bytes(32))), "rsa"),
    ("is missing", signed(CONTENT), "rsa"), ("is missing", signed(DIGEST), "rsa"),
    ("is malformed", signed(ESS, octets), "rsa"),
    ("is malformed", signed(ESS_V2, identifiers()), "rsa"),
    ("outside the certificate's validity", signed(TIME, late), "rsa"),
    ("outside the certificate's validity", signed(TIME, Element(23, b"500101000000Z")), "rsa"),
    ("the file holds the signed attributes",  # which were signed last
     openssl("-noattr", data="attributes"), "rsa", "attributes"),
]
for cause, *parts in [("", *each) for each in ACCEPTED] + REFUSED:
    found = verdict(*parts)
    check(found == "" if cause == "" else cause in found, f"'{cause}' but '{found}':",
          len(parts[0]), parts[1:])

serial = setting.token_with_key("Own")
check(setting.answer("sign", "create-ext", serial, PIN, "data", "own.p7s") == "DONE", "create-ext")
bash("certutil -A -d nss -n own -t ,, -i ds.pem; gpgsm --import ds.pem")
VERIFY = "-verify -binary -inform DER -in own.p7s -content DATA -certfile ds.pem -CAfile ca.pem"
for tool in (f"openssl cms {VERIFY}", f"openssl smime {VERIFY}", "certtool --p7-verify --inder"
             " --infile own.p7s --load-data DATA --load-certificate ds.pem",
             "cmsutil -D -n -d nss -c DATA -i own.p7s", "gpgsm --verify own.p7s DATA"):
    for data in "data", "another":
        said = bash(f"{tool.replace('DATA', data)} 2>&1 && echo good || echo bad").splitlines()[-1]
        check(said == ("good" if data == "data" else "bad"), tool, data, said)
end(f"{len(ACCEPTED)} accepted, {len(REFUSED)} refused,")
