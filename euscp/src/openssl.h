// OpenSSL's objects as owners, its encodings as byte strings.
#pragma once

#include "bytes.h"
#include "errors.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace eu {

template <auto Release>
struct released_by {
    template <class T>
    void operator()(T* object) const noexcept {
        Release(object);
    }
};

template <class T, auto Release>
using owned = std::unique_ptr<T, released_by<Release>>;

using algorithm_ptr = owned<X509_ALGOR, X509_ALGOR_free>;
using bignum_ptr = owned<BIGNUM, BN_free>;
using bio_ptr = owned<BIO, BIO_free_all>;
using cms_ptr = owned<CMS_ContentInfo, CMS_ContentInfo_free>;
using pkey_ptr = owned<EVP_PKEY, EVP_PKEY_free>;
using x509_ptr = owned<X509, X509_free>;

// Takes over what an OpenSSL function returned; null there is the given failure.
template <class Owner>
Owner taken(typename Owner::pointer object, DWORD code = EU_ERROR_CRYPTO) {
    require(object != nullptr, code);
    return Owner(object);
}

// Throws unless an OpenSSL function returned 1 (or a positive number).
inline void succeed(int result, DWORD code = EU_ERROR_CRYPTO) {
    require(result > 0, code);
}

// The DER encoding of an object, by its i2d function.
template <class T, class Encode>
bytes encoded(T* object, Encode encode) {
    const int size = encode(object, nullptr);
    require(size > 0, EU_ERROR_CRYPTO);
    bytes der(static_cast<std::size_t>(size));
    unsigned char* end = der.data();
    require(encode(object, &end) == size, EU_ERROR_CRYPTO);
    return der;
}

// Takes the next object off an encoding, by its d2i function, whose lengths must fit an int.
template <class Owner, class Decode>
Owner decodedNext(view& encoding, Decode decode, DWORD code) {
    require(encoding.size() <= std::numeric_limits<int>::max(), code);
    const unsigned char* end = encoding.data();
    auto object = taken<Owner>(decode(nullptr, &end, static_cast<long>(encoding.size())), code);
    encoding = encoding.subspan(static_cast<std::size_t>(end - encoding.data()));
    return object;
}

// The object that an encoding holds. Bytes behind the object are a failure.
template <class Owner, class Decode>
Owner decoded(view encoding, Decode decode, DWORD code) {
    auto object = decodedNext<Owner>(encoding, decode, code);
    require(encoding.empty(), code);
    return object;
}

// The same for the one encoding that DER allows: any other encoding of the object is a failure, so
// no changed byte goes unnoticed.
template <class Owner, class Decode, class Encode>
Owner decodedStrictly(view der, Decode decode, Encode encode, DWORD code) {
    auto object = decoded<Owner>(der, decode, code);
    require(std::ranges::equal(encoded(object.get(), encode), der), code);
    return object;
}

inline bytes hash(view message, const EVP_MD* digest) {
    bytes hashed(static_cast<std::size_t>(EVP_MD_get_size(digest)));
    succeed(EVP_Digest(message.data(), message.size(), hashed.data(), nullptr, digest, nullptr));
    return hashed;
}

inline bytes sha256(view message) {
    return hash(message, EVP_sha256());
}

inline bool isOnCurve(const EVP_PKEY* key) {
    return EVP_PKEY_is_a(key, "EC") == 1;
}

// Whether two public keys are the same. Throws EU_ERROR_MEMORY if there is no memory to compare
// them.
inline bool isSameKey(const EVP_PKEY* one, const EVP_PKEY* other) {
    const bool same = EVP_PKEY_eq(one, other) == 1;
    requireMemory();
    return same;
}

inline view content(const ASN1_STRING* text) {
    return {ASN1_STRING_get0_data(text), static_cast<std::size_t>(ASN1_STRING_length(text))};
}

} // namespace eu
