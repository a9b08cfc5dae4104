// Signatures made with OpenSSL alone.
#pragma once

#include "certificates.h"

#include <array>
#include <functional>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace made {

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
