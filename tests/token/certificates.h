// Certificates and signatures made with OpenSSL alone, for the library to meet.
#pragma once

#include <functional>
#include <memory>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string>
#include <vector>

namespace made {

using bytes = std::vector<unsigned char>;
template <class T, void (*Free)(T*)>
struct freed {
    void operator()(T* object) const { Free(object); }
};
using key = std::unique_ptr<EVP_PKEY, freed<EVP_PKEY, EVP_PKEY_free>>;
using certificate = std::unique_ptr<X509, freed<X509, X509_free>>;
using message = std::unique_ptr<CMS_ContentInfo, freed<CMS_ContentInfo, CMS_ContentInfo_free>>;

template <class T, class Encode>
bytes der(T* object, Encode encode) {
    bytes out(static_cast<std::size_t>(encode(object, nullptr)));
    unsigned char* end = out.data();
    encode(object, &end);
    return out;
}

inline bytes der(const certificate& object) { return der(object.get(), i2d_X509); }

struct terms {
    const char* usage = "critical,digitalSignature"; // null: no key usage
    long begin = -60;                                // seconds from now
    long end = 3600;
};

// A certificate for the public key, issued by a throw-away authority.
inline certificate issue(EVP_PKEY* subject, EVP_PKEY* authority, const terms& with = {}) {
    static long serial = 1000;
    certificate made(X509_new());
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), with.begin);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), with.end);
    const auto name = [](X509_NAME* into, const char* text) {
        X509_NAME_add_entry_by_txt(
            into, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text), -1, -1, 0);
    };
    name(X509_get_issuer_name(made.get()), "Throw-away CA");
    name(X509_get_subject_name(made.get()), "Signer");
    X509_set_pubkey(made.get(), subject);
    const auto extend = [&](int type, const char* value) {
        X509V3_CTX context;
        X509V3_set_ctx(&context, made.get(), made.get(), nullptr, nullptr, 0);
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, type, value);
        X509_add_ext(made.get(), extension, -1);
        X509_EXTENSION_free(extension);
    };
    extend(NID_subject_key_identifier, "hash");
    if (with.usage != nullptr) { extend(NID_key_usage, with.usage); }
    X509_sign(made.get(), authority, EVP_sha256());
    return made;
}

// The public key that a request, whose own signature must hold, is for; null otherwise.
inline key requested(const bytes& request) {
    const unsigned char* start = request.data();
    const std::unique_ptr<X509_REQ, freed<X509_REQ, X509_REQ_free>> parsed(
        d2i_X509_REQ(nullptr, &start, static_cast<long>(request.size())));
    key asked(parsed ? X509_REQ_get_pubkey(parsed.get()) : nullptr);
    return asked && X509_REQ_verify(parsed.get(), asked.get()) == 1 ? std::move(asked) : nullptr;
}

inline const bytes data{'c', 'o', 'n', 't', 'r', 'a', 'c', 't'};

inline made::key ecKey() { return made::key(EVP_EC_gen("P-256")); }

inline const made::key& authority() {
    static const made::key only = ecKey();
    return only;
}

struct signer {
    made::key key = ecKey();
    made::certificate certificate;

    signer() : signer(made::terms{}) {}
    explicit signer(const made::terms& terms)
        : certificate(made::issue(key.get(), authority().get(), terms)) {}
    explicit signer(EVP_PKEY* other)
        : key(other), certificate(made::issue(key.get(), authority().get())) {}
};

struct how {
    unsigned flags = 0;
    const EVP_MD* digest = EVP_sha256();
    // Changes the message after the signer was added and before it is finished.
    std::function<void(CMS_ContentInfo*, CMS_SignerInfo*)> change = {};
    bool pss = false;
};

inline bytes sign(const signer& by, const how& with = {}) {
    const unsigned flags = CMS_BINARY | CMS_PARTIAL | with.flags;
    const message made(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_DETACHED));
    CMS_SignerInfo* signer = CMS_add1_signer(made.get(), by.certificate.get(), by.key.get(),
        with.digest, flags | (with.pss ? CMS_KEY_PARAM : 0U));
    if (with.pss) {
        EVP_PKEY_CTX_set_rsa_padding(CMS_SignerInfo_get0_pkey_ctx(signer), RSA_PKCS1_PSS_PADDING);
    }
    if (with.change) { with.change(made.get(), signer); }
    BIO* input = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
    CMS_final(made.get(), input, nullptr, flags | CMS_DETACHED);
    BIO_free(input);
    return der(made.get(), i2d_CMS_ContentInfo);
}

inline bytes pem(const certificate& object) {
    char* start = nullptr;
    BIO* written = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(written, object.get());
    const long size = BIO_get_mem_data(written, &start);
    const bytes text(start, start + size);
    BIO_free(written);
    return text;
}

// Signatures that are tied to the certificate to its last byte: by its hash, in the last by a copy.
struct kind {
    signer by;
    bytes signature;
};

inline std::vector<kind> kinds() {
    std::vector<kind> all;
    const auto add = [&all](EVP_PKEY* owned, const how& with) {
        signer by(owned);
        auto signature = sign(by, with);
        all.push_back({std::move(by), std::move(signature)});
    };
    add(ecKey().release(), {.flags = CMS_CADES | CMS_NOCERTS | CMS_NOSMIMECAP}); // as velmora does
    add(ecKey().release(), {.flags = CMS_CADES | CMS_USE_KEYID});
    add(EVP_RSA_gen(2048), {.flags = CMS_CADES | CMS_NOCERTS});
    add(EVP_RSA_gen(2048), {.flags = CMS_CADES | CMS_NOCERTS, .pss = true});
    add(ecKey().release(), {});
    return all;
}

} // namespace made
