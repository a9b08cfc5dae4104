// Making detached CMS signatures (RFC 5652).
#pragma once

#include "bytes.h"
#include "token/private_key.h"

namespace eu {

// Signs content of the given SHA-256 digest: CAdES-BES, with the certificate inside if asked.
// Throws EU_ERROR_CERT_NOT_FOUND, _PERIOD or _USAGE unless the key's certificate allows it.
bytes signDigest(private_key& key, view digest, bool appendCertificate);

} // namespace eu
