// Certificates and signatures made with OpenSSL alone, for the library to meet.
#pragma once

#include <memory>
#include <openssl/cms.h>
#include <openssl/evp.h>
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

} // namespace made
