// Public keys, as tokens tell them.
#pragma once

#include "openssl.h"
#include "token/session.h"

namespace eu {

// What an object tells of its public key: the same for objects of the same key.
struct public_numbers {
    CK_KEY_TYPE type; // CKK_RSA, else one of elliptic curves
    bytes domain;     // the public exponent, or the curve in DER
    bytes number;     // the modulus, or the point without a wrapping

    auto operator<=>(const public_numbers&) const = default; // NOLINT(modernize-use-nullptr)
};

// The numbers of a public-key object; some empty where it does not tell them.
public_numbers numbersOf(const session& on, CK_OBJECT_HANDLE object, CK_KEY_TYPE type);

// The key with the numbers. Throws EU_ERROR_KEY_NOT_SUPPORTED for one of another kind than isServed
// tells; servedKey returns null instead.
pkey_ptr publicKey(const public_numbers& numbers);
pkey_ptr servedKey(const public_numbers& numbers);

// The same for a public-key object.
pkey_ptr publicKeyOf(const session& on, CK_OBJECT_HANDLE object);
pkey_ptr servedKeyOf(const session& on, CK_OBJECT_HANDLE object);

} // namespace eu
