// Detached CMS signatures (RFC 5652).
#pragma once

#include "openssl.h"
#include "private_key.h"

namespace eu {

// Signs content of the given SHA-256 digest: CAdES-BES, with the certificate inside if asked.
// Throws EU_ERROR_CERT_NOT_FOUND, _PERIOD or _USAGE unless the key's certificate allows it.
bytes signDigest(private_key& key, view digest, bool appendCertificate);

// What a signature that verifies says.
struct verified {
    x509_ptr signer;
    const ASN1_TIME* signingTime; // null if there is none; lives as long as message
    cms_ptr message;
};

// Verifies a signature of the data against the signer's certificate (DER or PEM).
// Throws one of the EU_ERROR_CERT_ or EU_ERROR_SIGN_ codes for a signature that does not hold.
verified verify(view data, view signature, view certificate);

} // namespace eu
