// Verifying detached CMS signatures (RFC 5652).
#pragma once

#include "openssl.h"

#include <optional>

namespace eu {

// What a signature that verifies says.
struct verified {
    x509_ptr signer;
    std::optional<SYSTEMTIME> signingTime;
};

// Verifies the signatures of the data that a message holds of the owner of a certificate.
// Throws one of the EU_ERROR_CERT_ or EU_ERROR_SIGN_ codes unless there is one and all hold.
verified verify(view data, view signature, view certificate);

} // namespace eu
