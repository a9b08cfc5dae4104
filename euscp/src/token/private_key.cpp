#include "token/private_key.h"

#include "texts.h"

#include <algorithm>
#include <utility>

namespace eu {

namespace {

// The DigestInfo that RSASSA-PKCS1-v1_5 pads.
bytes digestInfo(view message) {
    const auto info = taken<owned<X509_SIG, X509_SIG_free>>(X509_SIG_new());
    X509_ALGOR* algorithm = nullptr;
    ASN1_OCTET_STRING* digest = nullptr;
    X509_SIG_getm(info.get(), &algorithm, &digest);
    const bytes hash = sha256(message);
    succeed(X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr));
    succeed(ASN1_OCTET_STRING_set(digest, hash.data(), static_cast<int>(hash.size())));
    return encoded(info.get(), i2d_X509_SIG);
}

// PKCS#11 gives the two numbers of an ECDSA signature side by side; X.509 and CMS want DER.
bytes ecdsaDer(view raw) {
    const auto half = static_cast<int>(raw.size() / 2);
    auto r = taken<bignum_ptr>(BN_bin2bn(raw.data(), half, nullptr));
    auto s = taken<bignum_ptr>(BN_bin2bn(raw.data() + half, half, nullptr));
    const auto signature = taken<owned<ECDSA_SIG, ECDSA_SIG_free>>(ECDSA_SIG_new());
    succeed(ECDSA_SIG_set0(signature.get(), r.release(), s.release()));
    return encoded(signature.get(), i2d_ECDSA_SIG);
}

struct signing_step {
    CK_MECHANISM_TYPE mechanism;
    bytes input;
};

// Tokens that hash as well are spared it: the plain mechanism is the one that all of them have.
signing_step signingStep(const token& medium, const EVP_PKEY* key, view message) {
    const bytes whole(message.begin(), message.end());
    if (isOnCurve(key)) {
        return mechanism(medium, CKM_ECDSA) ? signing_step{CKM_ECDSA, sha256(message)}
                                            : signing_step{CKM_ECDSA_SHA256, whole};
    }
    return mechanism(medium, CKM_RSA_PKCS) ? signing_step{CKM_RSA_PKCS, digestInfo(message)}
                                           : signing_step{CKM_SHA256_RSA_PKCS, whole};
}

bytes rawSignature(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    const secret& password,
    bool asksAgain,
    signing_step step) {
    CK_MECHANISM with{step.mechanism, nullptr, 0};
    check(on.call().C_SignInit(on.handle(), &with, privateKey));
    if (asksAgain) {
        on.loginForSignature(password.text());
    }
    bytes signature(2048); // room for RSA of 16384 bits
    CK_ULONG length = signature.size();
    check(
        on.call()
            .C_Sign(on.handle(), step.input.data(), step.input.size(), signature.data(), &length));
    signature.resize(length);
    return signature;
}

bool isAnyOf(std::initializer_list<CK_RV> results, DWORD code) {
    return std::ranges::any_of(results, [code](CK_RV each) { return codeOf(each) == code; });
}

} // namespace

secret::secret(std::string_view text) : length(text.size()) {
    std::ranges::copy(text, characters.begin());
}

secret::~secret() {
    OPENSSL_cleanse(characters.data(), characters.size());
}

bytes signedBy(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    EVP_PKEY* publicKey,
    const secret& password,
    bool asksAgain,
    view message) {
    bytes signature = rawSignature(
        on,
        privateKey,
        password,
        asksAgain,
        signingStep(on.medium(), publicKey, message));
    if (isOnCurve(publicKey)) {
        signature = ecdsaDer(signature);
    }
    const auto context = taken<owned<EVP_MD_CTX, EVP_MD_CTX_free>>(EVP_MD_CTX_new());
    succeed(EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, publicKey));
    succeed(
        EVP_DigestVerify(
            context.get(),
            signature.data(),
            signature.size(),
            message.data(),
            message.size()),
        EU_ERROR_KEY_BAD_SIGNATURE);
    return signature;
}

look::look(const token& medium)
    : with(std::make_unique<session>(medium, session::mode::read_only)), shown(shownKeys(*with)) {}

// A key that wants the password for each signature has just got it.
bool private_key::endedFromOutside(DWORD code) const {
    return isAnyOf({CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED}, code) ||
           (active && isAnyOf({CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID}, code)) ||
           (active && !asksAgain && isAnyOf({CKR_USER_NOT_LOGGED_IN}, code));
}

template <class Use>
auto private_key::attempt(Use use) {
    for (bool again = true;; again = false) {
        try {
            if (!active) {
                open();
            }
            return use(*active);
        } catch (const failure& e) {
            const bool renewable = again && endedFromOutside(e.code);
            active.reset(); // a signature begun and not ended would be in the next one's way
            if (!renewable) {
                throw;
            }
        } catch (...) {
            active.reset();
            throw;
        }
    }
}

private_key::private_key(token medium, std::string_view pin, std::optional<look> before)
    : on(std::move(medium)), password(pin), seen(std::move(before)) {
    attempt([](const session&) {});
}

void private_key::open() {
    active.reset(); // before the new login: closing a token's last session ends the login
    look before = seen ? *std::exchange(seen, std::nullopt) : look(on);
    before.with->login(password.text());

    auto key = signingKey(*before.with, std::move(before.shown));
    require(
        key && (!opened || isSameKey(opened.get(), key->publicKey.get())),
        EU_ERROR_KEY_NOT_FOUND);
    owner = std::move(key->certificate);
    foreignCertificates = key->certificates;
    opened = std::move(key->publicKey);
    object = key->privateKey;
    asksAgain = key->asksAgain;
    active = std::move(before.with);
}

bytes private_key::sign(view message) {
    return watched(on, [&] {
        return attempt([&](const session& with) {
            return signedBy(with, object, opened.get(), password, asksAgain, message);
        });
    });
}

X509* private_key::certificate() const {
    require(
        owner != nullptr,
        foreignCertificates ? EU_ERROR_CERT_OTHER_KEY : EU_ERROR_CERT_NOT_FOUND);
    return owner.get();
}

} // namespace eu
