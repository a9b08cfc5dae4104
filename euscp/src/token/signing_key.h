// Which key of a token signs.
#pragma once

#include "token/public_key.h"

#include <algorithm>
#include <map>

namespace eu {

// A key that the token shows to verify signatures.
struct shown_key {
    bytes id;                // CKA_ID
    CK_OBJECT_HANDLE object; // a public key, or a certificate where the token shows none
    public_numbers numbers;
    x509_ptr certificate = nullptr; // the key's own; null if the token shows none
    bool generated = false;         // a generation made it
    bool shared = false;            // its identifier is that of another public key, too
};

struct in_order {
    bool operator()(view one, view other) const {
        return std::ranges::lexicographical_compare(one, other);
    }
};

struct private_part {
    CK_OBJECT_HANDLE object;
    bool signs;
    bool forOwner;  // not for anybody without the password
    bool asksAgain; // for the password, at each signature
};

// What a session shows of a token's signing keys.
struct shown_keys {
    std::vector<shown_key> keys;                              // by identifier
    std::multimap<bytes, private_part, in_order> privateKeys; // by identifier
    bool certificates = false; // whether there are any, of whatever key
};

// What the session shows: the public keys that verify or, where there are none, the certificates
// that are no authority's. Not among them are a key that the token lets anybody use, and one whose
// certificate forbids signing, unless a generation made it: its owner has to be told, and to be
// able to remove it. Each object is read once.
shown_keys shownKeys(const session& on);

// A signing key as a login shows it.
struct whole_key {
    struct {
        bytes id;
        CK_OBJECT_HANDLE object;
    } shown;
    CK_OBJECT_HANDLE privateKey;
    bool asksAgain;
    pkey_ptr publicKey;
    x509_ptr certificate; // null if the token shows none of this key
    bool certificates;    // whether it shows any, of whatever key
};

// The key that signs, of a session that logged in after it showed `before`; what is missing there,
// the certificate among it, is looked for in what only the login shows. It is one that is served
// and whose identifier is that of no other public key and of exactly one private key; of several
// one whose certificate allows non-repudiation, then one with a certificate, then one without, then
// one whose certificate forbids signing; among these the first by identifier. Nothing if there is
// none. Throws EU_ERROR_KEY_NOT_SUPPORTED if there are only keys of other kinds.
std::optional<whole_key> signingKey(const session& on, shown_keys before);

// The certificate that an object on a token holds; null if it cannot be parsed.
x509_ptr certificateIn(const session& on, CK_OBJECT_HANDLE object);

} // namespace eu
