// Making and destroying the key pairs of a token.
#pragma once

#include "hand_out.h"
#include "token/token.h"

#include <string_view>

namespace eu {

struct key_requests {
    parcel ds;  // PKCS#10 in DER, for signing
    parcel kep; // likewise, for key agreement or transport
};

// Generates the two pairs on the token, logging in with the password, and their requests. The very
// last change lets the signing key be seen as one, so whatever goes wrong before leaves no key;
// what was made is removed again.
key_requests generateKeys(const token& on, std::string_view password);

// Destroys the token's signing key, the pair made beside it, what generations and destructions that
// were cut short left, and the certificates of all these.
void destroyKeys(const token& on, std::string_view password);

} // namespace eu
