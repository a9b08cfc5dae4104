// Certificates and signatures made with OpenSSL alone, for the library to meet.
#pragma once

#include <EUSignCP.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string>
#include <vector>

namespace made {

inline const DWORD ready = EUInitialize(); // the library, before any test

using bytes = std::vector<unsigned char>;
template <auto Free>
struct freed {
    void operator()(auto* object) const { Free(object); }
};
using key = std::unique_ptr<EVP_PKEY, freed<EVP_PKEY_free>>;
using certificate = std::unique_ptr<X509, freed<X509_free>>;
using message = std::unique_ptr<CMS_ContentInfo, freed<CMS_ContentInfo_free>>;

template <class T, class Encode>
bytes der(T* object, Encode encode) {
    bytes out(static_cast<std::size_t>(encode(object, nullptr)));
    unsigned char* end = out.data();
    encode(object, &end);
    return out;
}

inline bytes der(const certificate& object) { return der(object.get(), i2d_X509); }

inline EVP_PKEY* p256() { return EVP_EC_gen("P-256"); }

using extensions = std::map<int, const char*>;
inline const extensions signing{{NID_key_usage, "critical,digitalSignature"}};

// A certificate for the public key, issued by a throw-away authority, valid between two times that
// are so many seconds from now.
inline certificate issue(
    EVP_PKEY* subject, extensions with = signing, long end = 3600, long begin = -60) {
    static const key authority(p256());
    static long serial = 1000;
    certificate made(X509_new());
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), begin);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), end);
    X509_NAME_add_entry_by_NID(X509_get_issuer_name(made.get()), NID_commonName, MBSTRING_ASC,
        reinterpret_cast<const unsigned char*>("Throw-away CA"), -1, -1, 0);
    X509_set_pubkey(made.get(), subject);
    with[NID_subject_key_identifier] = "01020304";
    for (const auto& [type, value] : with) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, type, value);
        X509_add_ext(made.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    X509_sign(made.get(), authority.get(), EVP_sha256());
    return made;
}

inline const bytes data{'c', 'o', 'n', 't', 'r', 'a', 'c', 't'};

struct kind {
    kind(EVP_PKEY* owned, unsigned flags, bool pss = false)
        : key(owned), certificate(issue(owned)) {
        flags |= CMS_BINARY | CMS_PARTIAL | CMS_DETACHED;
        const message made(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
        CMS_SignerInfo* signer = CMS_add1_signer(
            made.get(), certificate.get(), owned, EVP_sha256(), flags | (pss ? CMS_KEY_PARAM : 0U));
        if (pss) {
            EVP_PKEY_CTX_set_rsa_padding(
                CMS_SignerInfo_get0_pkey_ctx(signer), RSA_PKCS1_PSS_PADDING);
        }
        const std::unique_ptr<BIO, freed<BIO_free>> input(
            BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
        CMS_final(made.get(), input.get(), nullptr, flags);
        signature = der(made.get(), i2d_CMS_ContentInfo);
    }

    made::key key;
    made::certificate certificate;
    bytes signature;
};

// Signatures that name their certificate by its hash: those as the library makes them, in which
// nothing is free, and another one.
constexpr std::size_t own_kinds = 3;
inline std::vector<kind> kinds() {
    constexpr auto own = CMS_CADES | CMS_NOCERTS | CMS_NOSMIMECAP;
    std::vector<kind> all;
    all.emplace_back(p256(), own);
    all.emplace_back(EVP_RSA_gen(2048), own);
    all.emplace_back(EVP_RSA_gen(2048), own, true);
    all.emplace_back(p256(), CMS_CADES | CMS_USE_KEYID);
    return all;
}

// What the library says of a signature; a good one's time is told.
template <class Bytes>
DWORD verify(const Bytes& of, const Bytes& signature, const Bytes& with) {
    const auto raw = [](const Bytes& all) { return reinterpret_cast<const BYTE*>(all.data()); };
    EU_SIGN_INFO info{};
    const DWORD result = EUVerifyDataWithParams(raw(of), of.size(), nullptr, 0, raw(signature),
        signature.size(), 0, nullptr, 0, raw(with), with.size(), nullptr, &info);
    if ((result == 0) != (info.bFilled != 0 && info.bTimeAvail != 0)) { std::abort(); }
    EUFreeSignInfo(&info);
    return result;
}

} // namespace made
