// The algorithms of signatures: which are accepted, by which names, and what they make of a key.
#pragma once

#include "openssl.h"

#include <optional>

namespace eu {

struct signature_scheme {
    const EVP_MD* digest;
    std::optional<int> pssSaltLength; // RSASSA-PSS if there is one
};

// Whether the algorithm is the digest, without parameters (RFC 5754: absent or NULL).
bool isPlainDigest(const X509_ALGOR* algorithm, const EVP_MD* digest);

// The digest: SHA-256, SHA-384 or SHA-512, of SHA-2 or SHA-3.
// Throws EU_ERROR_SIGN_SHA1, _MD5 or _DIGEST for any other.
const EVP_MD* digestNamed(const X509_ALGOR* algorithm);

// How a key signed, by the names of digest and signature algorithm: the latter is the key's alone,
// or that of key and digest together.
// Throws EU_ERROR_SIGN_ codes for names that are not accepted, not the key's, or contradict.
signature_scheme
schemeOf(const X509_ALGOR* digest, const X509_ALGOR* signature, const EVP_PKEY* key);

// Throws EU_ERROR_SIGN_INVALID unless the key signed the digest.
void checkSignature(view digest, view signature, const signature_scheme& scheme, EVP_PKEY* key);

} // namespace eu
