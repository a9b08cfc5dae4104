// Certificate requests.
#pragma once

#include "openssl.h"

#include <functional>
#include <string>

namespace eu {

// Texts in UTF-8; those that are none count as Latin-1.
struct request_subject {
    std::string commonName; // left out if empty
    std::string serialNumber;
};

// Signs a message: ECDSA in DER, or RSASSA-PKCS1-v1_5, with SHA-256.
using message_signer = std::function<bytes(view message)>;

// A PKCS#10 request (RFC 2986) in DER for the public key, asking for the key usage.
// keyUsage: as OpenSSL writes it, "critical,digitalSignature" for one.
bytes makeRequest(
    EVP_PKEY* publicKey,
    const request_subject& subject,
    const char* keyUsage,
    const message_signer& sign);

} // namespace eu
