// What generations of keys left on a token: how it is told, and what of it was cut short.
#pragma once

#include "token/key_name.h"
#include "token/private_key.h"

namespace eu {

// The key objects of one generation. The public keys that tell what the rest is come last: should
// a removal in this order be cut short, what is left can still be told.
struct generated_keys {
    bytes generation;
    std::vector<CK_OBJECT_HANDLE> privateKeys{};
    std::vector<CK_OBJECT_HANDLE> publicKeys{};
    bool begun = false;     // its signing key is there, and not let to verify yet
    bool completed = false; // it is there, and verifies

    bool holds(view id) const;
};

std::vector<generated_keys> generatedKeys(const session& on);

// Whether the generation was cut short, so that its keys are nobody's: its signing key was never
// let to verify; or the first private key is all there is (some tokens make it before the public
// key, and tell nothing but its name then) and that of no certificate or public key on the token.
bool isLeftover(const session& on, const generated_keys& keys, const secret& password);

// Removes the keys as far as the token lets it: what stays is a leftover still.
void clear(const session& on, const generated_keys& keys) noexcept;

// Clears the leftovers. Any other private key that a generation made is somebody's, even where its
// public key has gone: throws EU_ERROR_KEY_EXISTS before anything is changed.
void clearLeftovers(const session& on, const secret& password);

// Clears what a token began as a key object and, being cut short, never filled: it tells that it is
// not the token's yet, and that its label, its identifier and its modulus or curve are empty. What
// an object does not tell is no evidence against it.
void clearShells(const session& on);

} // namespace eu
