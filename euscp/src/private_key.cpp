#include "private_key.h"

#include "certificate.h"

#include <algorithm>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

namespace eu {

namespace {

using bignum_ptr = owned<BIGNUM, BN_free>;

pkey_ptr fromParameters(const char* algorithm, OSSL_PARAM_BLD* build) {
    const auto parameters =
        taken<owned<OSSL_PARAM, OSSL_PARAM_free>>(OSSL_PARAM_BLD_to_param(build));
    const auto context = taken<owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>(
        EVP_PKEY_CTX_new_from_name(nullptr, algorithm, nullptr));
    EVP_PKEY* key = nullptr;
    succeed(EVP_PKEY_fromdata_init(context.get()), EU_ERROR_KEY_NOT_SUPPORTED);
    succeed(
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()),
        EU_ERROR_KEY_NOT_SUPPORTED);
    return pkey_ptr(key);
}

using parameter_build = owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;

pkey_ptr rsaKey(view modulus, view exponent) {
    const auto number = [](view digits) {
        return taken<bignum_ptr>(
            BN_bin2bn(digits.data(), static_cast<int>(digits.size()), nullptr));
    };
    const bignum_ptr n = number(modulus);
    const bignum_ptr e = number(exponent);
    const auto build = taken<parameter_build>(OSSL_PARAM_BLD_new());
    succeed(OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()));
    succeed(OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()));
    return fromParameters("RSA", build.get());
}

// The point is an OCTET STRING in DER; some modules leave the wrapping out.
bytes unwrappedPoint(const bytes& point) {
    constexpr unsigned char uncompressed = 0x04; // the tag of an OCTET STRING is the same byte
    const unsigned char* end = point.data();
    const owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> inner(
        d2i_ASN1_OCTET_STRING(nullptr, &end, static_cast<long>(point.size())));
    if (inner && end == point.data() + point.size() && ASN1_STRING_length(inner.get()) > 0 &&
        content(inner.get()).front() == uncompressed) {
        const view unwrapped = content(inner.get());
        return {unwrapped.begin(), unwrapped.end()};
    }
    return point;
}

pkey_ptr ecKey(const bytes& curve, const bytes& wrappedPoint) {
    const auto oid = decoded<owned<ASN1_OBJECT, ASN1_OBJECT_free>>(
        curve,
        d2i_ASN1_OBJECT,
        EU_ERROR_KEY_NOT_SUPPORTED);
    const char* group = OBJ_nid2sn(OBJ_obj2nid(oid.get()));
    const bytes point = unwrappedPoint(wrappedPoint);
    const auto build = taken<parameter_build>(OSSL_PARAM_BLD_new());
    succeed(OSSL_PARAM_BLD_push_utf8_string(build.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0));
    succeed(OSSL_PARAM_BLD_push_octet_string(
        build.get(),
        OSSL_PKEY_PARAM_PUB_KEY,
        point.data(),
        point.size()));
    return fromParameters("EC", build.get());
}

bool showsSigner(const session& on, CK_OBJECT_HANDLE object) {
    const auto certificate = certificateIn(on, object);
    return certificate && !isAuthority(certificate.get()) && allowsSigning(certificate.get());
}

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
    if (EVP_PKEY_is_a(key, "EC") == 1) {
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
    signing_step step) {
    CK_MECHANISM with{step.mechanism, nullptr, 0};
    check(on.call().C_SignInit(on.handle(), &with, privateKey));
    if (on.flag(privateKey, CKA_ALWAYS_AUTHENTICATE)) {
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

// Results by which a session tells that another login, or the token's removal, ended it.
bool endedFromOutside(DWORD code) {
    constexpr std::array<CK_RV, 5> results{
        CKR_USER_NOT_LOGGED_IN,
        CKR_KEY_HANDLE_INVALID,
        CKR_OBJECT_HANDLE_INVALID,
        CKR_SESSION_HANDLE_INVALID,
        CKR_SESSION_CLOSED};
    return std::ranges::any_of(results, [code](CK_RV each) { return codeOf(each) == code; });
}

std::vector<CK_OBJECT_HANDLE> privateKeys(const session& on, const bytes& id) {
    return on.find(attributes()
                       .number(CKA_CLASS, CKO_PRIVATE_KEY)
                       .flag(CKA_TOKEN, true)
                       .add(CKA_ID, view(id)));
}

struct shown_key {
    public_part part;
    pkey_ptr publicKey; // null for a kind that is not served
};

// Whether two different public keys go by the identifier: the private key may be either's.
bool isAmbiguous(const shown_key& key, const std::vector<shown_key>& keys) {
    return std::ranges::any_of(keys, [&key](const shown_key& other) {
        const bool same = &other == &key || (key.publicKey && other.publicKey &&
                                             isSameKey(key.publicKey.get(), other.publicKey.get()));
        return other.part.id == key.part.id && !same;
    });
}

} // namespace

secret::secret(std::string_view text) : length(text.size()) {
    require(length < characters.size(), EU_ERROR_BAD_PARAMETER);
    std::ranges::copy(text, characters.begin());
}

secret::~secret() {
    OPENSSL_cleanse(characters.data(), characters.size());
}

std::vector<CK_OBJECT_HANDLE> signingKeys(const session& on) {
    auto objects = on.find(attributes()
                               .number(CKA_CLASS, CKO_PUBLIC_KEY)
                               .flag(CKA_VERIFY, true)
                               .flag(CKA_TOKEN, true));
    if (objects.empty()) {
        objects = on.find(CKO_CERTIFICATE);
        std::erase_if(objects, [&on](CK_OBJECT_HANDLE each) { return !showsSigner(on, each); });
    }
    return objects;
}

pkey_ptr servedKeyOf(const session& on, CK_OBJECT_HANDLE object) {
    try {
        return publicKeyOf(on, object);
    } catch (const failure& e) {
        require(e.code == EU_ERROR_KEY_NOT_SUPPORTED, e.code);
        requireMemory();
        return nullptr;
    }
}

std::optional<whole_key> signingKey(const session& on) {
    std::vector<shown_key> shown;
    for (const CK_OBJECT_HANDLE object : signingKeys(on)) {
        bytes id = on.value(object, CKA_ID).value_or(bytes{});
        shown.push_back({{std::move(id), object}, servedKeyOf(on, object)});
    }
    struct candidate {
        shown_key* key;
        CK_OBJECT_HANDLE privateKey;
    };
    std::vector<candidate> candidates;
    bool others = false;
    for (shown_key& key : shown) {
        const auto behind = privateKeys(on, key.part.id);
        if (behind.size() != 1 || isAmbiguous(key, shown)) {
            continue;
        }
        if (key.publicKey) {
            candidates.push_back({&key, behind.front()});
        } else {
            others = true;
        }
    }
    require(!candidates.empty() || !others, EU_ERROR_KEY_NOT_SUPPORTED);
    if (candidates.empty()) {
        return std::nullopt;
    }
    const auto rank = [&](const candidate& each) { // certificates are read only to choose by them
        const bool certified =
            candidates.size() > 1 && !certificatesOf(on, each.key->publicKey.get()).empty();
        return std::pair(!certified, each.key->part.id);
    };
    const auto& [key, privateKey] = *std::ranges::min_element(candidates, {}, rank);
    return whole_key{std::move(key->part), privateKey, std::move(key->publicKey)};
}

pkey_ptr publicKeyOf(const session& on, CK_OBJECT_HANDLE object) {
    const auto part = [&](CK_ATTRIBUTE_TYPE type) {
        const auto value = on.value(object, type);
        require(value.has_value(), EU_ERROR_KEY_NOT_SUPPORTED);
        return *value;
    };
    pkey_ptr key;
    if (on.number(object, CKA_CLASS) == CKO_CERTIFICATE) {
        const auto certificate = certificateIn(on, object);
        require(certificate != nullptr, EU_ERROR_CERT_FORMAT);
        key.reset(X509_get_pubkey(certificate.get()));
    } else if (on.number(object, CKA_KEY_TYPE) == CKK_RSA) {
        key = rsaKey(part(CKA_MODULUS), part(CKA_PUBLIC_EXPONENT));
    } else {
        key = ecKey(part(CKA_EC_PARAMS), part(CKA_EC_POINT));
    }
    require(key && isServed(key.get()), EU_ERROR_KEY_NOT_SUPPORTED);
    return key;
}

bytes signedBy(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    EVP_PKEY* publicKey,
    const secret& password,
    view message) {
    bytes signature =
        rawSignature(on, privateKey, password, signingStep(on.medium(), publicKey, message));
    if (EVP_PKEY_is_a(publicKey, "EC") == 1) {
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

private_key::private_key(token medium, std::string_view pin)
    : on(std::move(medium)), password(pin) {
    open();
}

void private_key::open() {
    active.reset(); // before the new login: closing a token's last session ends the login
    auto with = std::make_unique<session>(on, session::mode::read_only);
    with->login(password.text());
    auto key = signingKey(*with);
    require(
        key && (!opened || isSameKey(opened.get(), key->publicKey.get())),
        EU_ERROR_KEY_NOT_FOUND);
    owner = ownCertificate(*with, key->publicKey.get());
    opened = std::move(key->publicKey);
    object = key->privateKey;
    active = std::move(with);
}

template <class Use>
auto private_key::attempt(Use use) {
    const auto once = [&] {
        if (!active) {
            open();
        }
        try {
            return use(*active);
        } catch (...) {
            active.reset(); // a signature begun and not ended would be in the next one's way
            throw;
        }
    };
    try {
        return once();
    } catch (const failure& e) {
        if (!endedFromOutside(e.code)) {
            throw;
        }
        return once();
    }
}

bytes private_key::sign(view message) {
    return attempt([&](const session& with) {
        return signedBy(with, object, opened.get(), password, message);
    });
}

X509* private_key::certificate() const {
    require(owner != nullptr, EU_ERROR_CERT_NOT_FOUND);
    return owner.get();
}

} // namespace eu
