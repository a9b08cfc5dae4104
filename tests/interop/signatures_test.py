#!/usr/bin/env python3
"""What sign verify says of the signatures that other tools make, one row of a table each: what the
log tells, how the signature is made, for which certificate and, if not for "data", which file. No
row may cost 2 s or 256 MiB, though some hold so much of something that what grows faster than their
size is far beyond that. And what other tools say of velmora's own."""

import base64
import hashlib
import os
import pathlib
import re
import resource
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../faults")
from der import Element, attribute, build, element, oid, parse, sequence  # noqa: E402
from setting import PIN, Setting, check, end  # noqa: E402

setting = Setting()
os.chdir(setting.folder)
setting.env.update(GNUPGHOME=f"{setting.folder}/gpg")
setting.bash('''
echo contract >data; echo another >another
ec=ec,ec_paramgen_curve
issue() { # NAME ISSUER KEY [OPTION]...: NAME.pem and NAME.key
    openssl req -x509 -newkey ${3//,/ -pkeyopt } -noenc -keyout $1.key -out $1.pem -subj "/CN=$1" \\
        ${2:+-CA $2.pem -CAkey $2.key} -days 9999 "${@:4}"
}
leaf='-addext basicConstraints=critical,CA:false -addext keyUsage=critical,digitalSignature'
issue ca '' $ec:P-256; issue between ca $ec:P-256
issue ec ca $ec:P-256 $leaf; issue rsa between rsa:2048 $leaf; issue other ca $ec:P-256 $leaf
issue p384 ca $ec:P-384; issue p521 ca $ec:P-521; issue koblitz ca $ec:secp256k1
issue explicit ca $ec:P-256,ec_param_enc:explicit; issue edwards ca ed25519; issue pss ca rsa-pss
issue short ca rsa:1024; issue three ca rsa:2048,rsa_keygen_pubexp:3
issue agreement ca $ec:P-256 -addext keyUsage=keyAgreement
again() { # NAME ISSUER: a certificate of the name, the key and the number that ec has
    openssl req -x509 -key ec.key -out $1.pem -subj /CN=ec -CA $2.pem -CAkey $2.key -days 9 \\
        -set_serial 0x$(openssl x509 -in ec.pem -noout -serial | cut -d= -f2)
}
again renewed ca; again namesake between
cat between.pem ca.pem >chain.pem
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
GPGSM = "rm -f made; echo x | gpgsm --passphrase-fd 0 -u rsa --detach-sign -o made "
NSS = "cmsutil -S -d nss -N rsa -Y NONE -T -i data -o made "
PSS = "-keyopt rsa_padding_mode:pss "
RSA, EC, PKCS9 = "1.2.840.113549.1.1.", "1.2.840.10045.", "1.2.840.113549.1.9."
SHA1, SHA512, NIST = "1.3.14.3.2.26", "2.16.840.1.101.3.4.2.3", "2.16.840.1.101.3.4."
CONTENT, DIGEST, TIME, ESS, ESS_V2 = (
    PKCS9 + each for each in ("3", "4", "5", "16.2.12", "16.2.47"))


def made(command):
    setting.bash(command)
    return pathlib.Path("made").read_bytes()


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


def clutter(data, signer):
    """A lot of everything that nobody signs."""
    nulls = b"\5\0" * 2000000
    data[1].inside[:] = [nulls]
    data.inside[3:4] = element(0xA0, nulls), element(0xA1, nulls)
    signer.inside.append(element(0xA1, attribute("1.2.3"), attribute("1.2.3"),
                                 attribute(DIGEST, octets), nulls))


def strangers(data, _):
    """A lot of other signers before the one."""
    data[-1].inside.insert(0, build(sequence(
        one, Element(0x80, b""), *[sequence(oid(SHA1))] * 2, octets)) * 100000)


def put(signature, value, *path):
    """With another element somewhere in the signer: 2 and 4 are the algorithms, of digest and
    signature, that start with their names."""
    def edit(_, place):
        for index in path[:-1]:
            place = place[index]
        place[path[-1]] = value
    return edited(signature, edit)


def ess(*identifiers, name=ESS_V2):
    return attribute(name, sequence(sequence(*[sequence(*each) for each in identifiers])))


def issued(*names, serial=None):
    return sequence(sequence(*names), serial or number)


def in_key(name, change):
    """A certificate after a change of its key."""
    certificate = parse(der[name])[0]
    key = certificate[0][6][1]
    key.inside = change(key.inside)
    return build(certificate)


def with_points(count):
    """A certificate with so many distribution points under a name that has as many parts."""
    certificate = parse(der["rsa"])[0]
    part = element(0x31, sequence(oid("2.5.4.3"), Element(12, b"x")))
    point = sequence(element(0xA0, element(0xA1, *part)))
    certificate[0].inside[3] = sequence(*[part] * count)
    certificate[0][-1][0].inside.append(sequence(oid("2.5.29.31"), Element(
        4, build(sequence(*[point] * count)))))
    return build(certificate)


def pem(encoding, label="CMS", width=64, around=b"", end=b"\n"):
    text = base64.b64encode(encoding)
    lines = [text[at:at + width] for at in range(0, len(text), width)]
    return end.join([around, f"-----BEGIN {label}-----".encode(), *lines,
                     f"-----END {label}-----".encode(), around])


def sha(digest, contents):
    return Element(4, hashlib.new(digest, contents).digest())


der = {name: made(f"openssl x509 -in {name}.pem -outform DER -out made")
       for name in ("ec", "rsa", "three", "ca", "p384")}
ec, rsa, plain, cades = openssl(by="ec"), openssl(), openssl("-nosmimecap"), openssl("-cades")
pss = openssl(PSS)
own = openssl("-cades -nocerts -nosmimecap", "ec")  # as velmora signs
listless = edited(own, lambda data, _: data[1].inside.clear())
two = openssl("-signer other.pem -inkey other.key")
many = edited(rsa, lambda data, signer: data[-1].inside.extend([signer] * 15))
line = pem(der["p384"], "CERTIFICATE", 9999)
key_identifier, key_usage = (build(oid(each)) for each in ("2.5.29.14", "2.5.29.15"))
octets, foreign, sha256 = Element(4, b"x"), Element(4, bytes(32)), sha("sha256", der["rsa"])
number, issuer = parse(der["rsa"])[0][0][1], element(0xA4, parse(der["rsa"])[0][0][3])
ca, uri, one = element(0xA4, parse(der["ca"])[0][0][3]), Element(0x86, b"uri"), Element(2, b"\1")
early, last, late = (Element(23 + (len(each) > 13), each) for each in (
    b"500101000000Z", b"491231235958Z", b"20991231000000Z"))
extras = [attribute(f"1.2.3.{i}", octets) for i in range(61)]  # 64 attributes with the usual three

TIMED, NO_TIME = "signed-at:<20", "time-avali:no"
ACCEPTED = [  # a row may have several particulars
    (NO_TIME, openssl("-noattr"), "rsa"),
    (TIMED, ec, "renewed"),
    (TIMED, openssl("-md sha384 -certfile chain.pem", "p384"), line),
    (TIMED, openssl("-md sha512 -keyid", "p521"), "p521"),
    (TIMED, openssl("-md sha3-384", "three"), "three"),
    (TIMED, pss, "rsa"),
    (TIMED, openssl(PSS + "-keyopt rsa_pss_saltlen:0 -md sha512", "pss"), "pss"),
    *((TIMED, put(put(signed(attribute(DIGEST, sha(f"sha3_{bits}", b"contract\n")),
                             by="ec", digest=f"sha3-{bits}"),
                      oid(f"{NIST}2.{8 + i}"), 2, 0), oid(f"{NIST}3.{10 + i}"), 4, 0), "ec")
      for i, bits in enumerate((256, 384, 512))),
    (TIMED, openssl("-outform PEM", how="smime"), "rsa"),
    (NO_TIME, made(CERTTOOL + "--outder"), "rsa"),
    (TIMED, made(CERTTOOL + "--p7-time"), "rsa"),
    (NO_TIME, made(NSS), "rsa"),
    (TIMED, made(NSS + "-G -P -H SHA512"), "rsa"),
    (TIMED, made(GPGSM + "--include-certs 0 data"), "rsa"),
    (TIMED, made(GPGSM + "--armor data"), "rsa"),
    (TIMED, two, "rsa"),
    (TIMED, two, "other"),
    (TIMED, many, der["rsa"]),
    (TIMED, edited(cades, clutter), "rsa"),
    (TIMED, pem(edited(cades, strangers), "PKCS #7 SIGNED DATA", end=b"\r\n"), "rsa"),
    (TIMED, signed(attribute("1.2.3", b"\5\0" * 500000)), "rsa"),
    (TIMED, pem(edited(plain, lambda *_: None, "long"), around=b"text-----"), "rsa"),
    (TIMED, edited(plain, lambda *_: None, "indefinite"), "rsa"),
    (TIMED, edited(listless, lambda _, signer: signer.inside.append(element(0xA1, octets))), "ec"),
    (TIMED, put(cades, oid(RSA + "11"), 4, 0), pem(octets.inside, "X509 CRL") + pem(
        der["rsa"], "X509 CERTIFICATE", 76, end=b" \r\n") + pem(der["ec"], "CERTIFICATE")),
    (TIMED, put(ec, oid(EC + "2.1"), 4, 0), "ec"),
    (NO_TIME, signed(attribute(TIME), attribute(ESS_V2), *extras), "rsa"),
    ("<2049/12/31 23:59:58.0>", signed(attribute(TIME, last)), "rsa"),
    (TIMED, signed(ess([sha("sha1", der["rsa"])], name=ESS), attribute(ESS_V2)), "rsa"),
    (TIMED, signed(ess([sequence(oid(SHA1)), sha("sha1", der["rsa"])])), "rsa"),
    (TIMED, signed(ess([sequence(oid(SHA512)), sha("sha512", der["rsa"])], [foreign])), "rsa"),
]
REFUSED = [
    ("was changed, or", edited(cades, lambda _, signer: signer[3].inside.pop(0)), "rsa"),
    ("was changed, or", many[:-1] + bytes([many[-1] ^ 1]), "rsa"),
    ("the file that was signed is another one", cades, "rsa", "another"),
    ("owner of another certificate", ec, "namesake"),
    ("owner of another certificate", rsa, with_points(2000)),
    ("owner of another certificate", openssl("-keyid", "ec"), "other"),
    ("owner of another certificate", put(ec, Element(12, b"CA"), 1, 0, 0, 0, 1), "ec"),
    ("more than 16", edited(many, lambda data, signer: data[-1].inside.append(signer)), "rsa"),
    ("another certificate of its owner", signed(ess([foreign], [sha256])), "rsa"),
    ("another certificate of its owner", signed(ess(*[[foreign]] * 200000)), "rsa"),
    ("another certificate of its owner", signed(ess([sha256, issued(ca)])), "rsa"),
    ("another certificate of its owner", signed(ess([sha256, issued(issuer, serial=one)])), "rsa"),
    ("another certificate of its owner", signed(ess([sha256, issued(uri)])), "rsa"),
    ("SHA-1, which is no longer safe", openssl("-md sha1"), "rsa"),
    ("MD5, which is no longer safe", openssl("-md md5"), "rsa"),
    ("a digest other than SHA-256", openssl("-md sha224"), "rsa"),
    ("not detached", openssl("-nodetach"), "rsa"),
    ("content of another type", openssl("-noattr -econtent_type 1.2.3"), "rsa"),
    ("content of another type", signed(attribute(CONTENT, oid("1.2.3"))), "rsa"),
    ("neither RSA nor on the curve", openssl(by="koblitz"), "koblitz"),
    ("neither RSA nor on the curve", openssl(by="explicit"), "explicit"),
    ("neither RSA nor on the curve", rsa, "edwards"),
    ("less than 2048 bits", openssl(by="short"), "short"),
    ("unsound", rsa, in_key("three", lambda key: key[:-1] + b"\1")),  # the exponent
    ("unsound", ec, in_key("ec", lambda key: key[:-1] + bytes([key[-1] ^ 1]))),
    ("unsound", ec, in_key("ec", lambda _: b"\0\0")),  # the point at infinity
    ("not meant for signing", rsa, "agreement"),
    ("not meant for signing", rsa, der["rsa"].replace(key_identifier, key_usage)),
    ("the certificate is malformed", rsa, build(parse(der["rsa"])[0], "long")),
    ("the certificate is malformed", rsa, der["rsa"] + b"\0"),
    ("the certificate is malformed", rsa, pem(der["rsa"])),
    ("larger than 64 KiB", rsa, der["rsa"] + bytes(1 << 16)),
    ("larger than 64 MiB", bytes((1 << 26) + 1), "rsa"),
    ("no CMS", rsa + b"\0", "rsa"),
    ("no CMS", b"\x30\x80" * 8000000, "rsa"),
    ("no CMS", rsa.replace(oid(RSA[:-2] + "7.2").inside, oid(RSA[:-2] + "7.5").inside), "rsa"),
    ("no CMS", pem(rsa)[:-18], "rsa"),
    ("no CMS", pem(rsa).replace(b"-\n", b"-\n ", 1), "rsa"),
    ("no CMS", listless, "ec"),
    ("no CMS", edited(own, lambda data, _: data[1].inside.append(data[1][0])), "ec"),
    ("nobody signed", edited(rsa, lambda data, _: data[-1].inside.clear()), "rsa"),
    ("RSASSA-PSS are malformed or name several digests", put(pss, Element(5, b""), 4, 1), "rsa"),
    ("several digests", openssl(PSS + "-keyopt rsa_mgf1_md:sha512"), "rsa"),
    ("RSASSA-PSS are malformed", put(pss, sequence(), 4, 1), "rsa"),
    ("RSASSA-PSS are malformed", put(pss, sequence(oid(RSA + "8")), 4, 1, 1, 0), "rsa"),
    ("RSASSA-PSS are malformed", put(pss, Element(2, b"\xFE"), 4, 1, 2, 0), "rsa"),
    ("RSASSA-PSS are malformed", put(pss, element(0xA3, Element(2, b"\2")), 4, 1, 2), "rsa"),
    ("two different digests", put(rsa, oid(RSA + "13"), 4, 0), "rsa"),
    ("not one of the certificate's key", put(ec, oid(RSA + "11"), 4, 0), "ec"),
    ("not one of the certificate's key", put(rsa, octets, 4, 1), "rsa"),
    ("in the order of DER", edited(cades, lambda _, signer: signer[3].inside.reverse()), "rsa"),
    ("stands twice", edited(cades, lambda _, signer: signer[3].inside.append(signer[3][0])), "rsa"),
    ("exactly one value", signed(attribute(DIGEST, octets, foreign)), "rsa"),
    ("is missing", signed(attribute(CONTENT)), "rsa"),
    ("is missing", signed(attribute(DIGEST)), "rsa"),
    ("is malformed, or there are more than 64", signed(attribute(ESS_V2), *extras), "rsa"),
    ("more than 64", edited(cades, lambda _, signer: signer[3].inside.extend(
        attribute(f"1.2.{i}") for i in range(100000))), "rsa"),
    ("is malformed", signed(attribute(CONTENT, octets)), "rsa"),
    ("is malformed", signed(attribute(TIME, Element(23, b"tomorrow"))), "rsa"),
    ("is malformed", signed(ess()), "rsa"),
    ("outside the certificate's validity", signed(attribute(TIME, late)), "rsa"),
    ("outside the certificate's validity", signed(attribute(TIME, early)), "rsa"),
    ("the file holds the signed attributes",  # which were signed last
     openssl("-noattr", data="attributes"), "rsa", "attributes"),
]
for expected, signature, certificate, *data in ACCEPTED + REFUSED:
    pathlib.Path("signature").write_bytes(signature)
    if isinstance(certificate, str):
        certificate = pathlib.Path(certificate + ".pem").read_bytes()
    pathlib.Path("certificate").write_bytes(certificate)
    answer, log = setting.logged("sign", "verify", *data or ["data"], "signature", "certificate",
                                 wrapper=("prlimit", "--cpu=2"))
    # The cause for FAILED, else when was signed.
    told = re.findall(r" signVerify .*(done|fail): EUVerifyDataWithParams \((.*)\)$", log, re.M)
    how = {"PASSED": "done", "FAILED": "fail"}.get(answer)
    check(told and told[0][0] == how and expected in told[0][1],
          f"'{expected}' but {answer} {told}:", len(signature), certificate[:200], data)
    largest = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss >> 10  # or this process's own
    check(largest <= 256, f"'{expected}' or a row before: {largest} MiB")

serial = setting.token_with_key("Own")
check(setting.answer("sign", "create-ext", serial, PIN, "data", "own.p7s") == "DONE", "create-ext")
setting.bash("certutil -A -d nss -n own -t ,, -i ds.pem; gpgsm --import ds.pem")
VERIFY = "-verify -binary -inform DER -in own.p7s -content DATA -certfile ds.pem -CAfile ca.pem"
for tool in (f"openssl cms {VERIFY}", f"openssl smime {VERIFY}", "certtool --p7-verify --inder"
             " --infile own.p7s --load-data DATA --load-certificate ds.pem",
             "cmsutil -D -n -d nss -c DATA -i own.p7s", "gpgsm --verify own.p7s DATA"):
    for data in "data", "another":
        said = setting.bash(f"{tool.replace('DATA', data)} 2>&1 && echo good || echo bad")
        expected = "good" if data == "data" else "bad"
        check(said.splitlines()[-1] == expected, tool, data, said)
end(f"{len(ACCEPTED)} accepted, {len(REFUSED)} refused,")
