// The signing key of a token: finding it, opening it with the password, signing with it.
#pragma once

#include "openssl.h"
#include "token.h"

#include <array>

namespace eu {

// A password in memory, wiped when it goes.
class secret {
public:
    explicit secret(std::string_view text); // at most EU_PASSWORD_SIZE - 1 bytes
    ~secret();
    secret(const secret&) = delete;
    secret& operator=(const secret&) = delete;

    std::string_view text() const { return {characters.data(), length}; }

private:
    std::array<char, EU_PASSWORD_SIZE> characters{};
    std::size_t length;
};

// The signing keys that the token shows, without a login too: its public keys that verify, or,
// where there are none, its certificates that are no authority's and allow signing.
std::vector<CK_OBJECT_HANDLE> signingKeys(const session& on);

// What shows a signing key.
struct public_part {
    bytes id; // CKA_ID
    CK_OBJECT_HANDLE object;
};

// A signing key as a login shows it.
struct whole_key {
    public_part shown;
    CK_OBJECT_HANDLE privateKey;
    pkey_ptr publicKey;
};

// The token's signing key, seen by a logged-in session: one of signingKeys that is served and whose
// identifier is that of no other public key and of exactly one private key; of several one with a
// certificate of its own, then the first by identifier. Nothing if there is none. Throws
// EU_ERROR_KEY_NOT_SUPPORTED if there are only keys of other kinds.
std::optional<whole_key> signingKey(const session& on);

// The public key that a public-key or certificate object holds.
// Throws EU_ERROR_KEY_NOT_SUPPORTED for a key of another kind than isServed tells.
pkey_ptr publicKeyOf(const session& on, CK_OBJECT_HANDLE object);

// The same; null for a key of another kind.
pkey_ptr servedKeyOf(const session& on, CK_OBJECT_HANDLE object);

// Signs a message with a private key of a logged-in session, with SHA-256: ECDSA (as DER) or
// RSASSA-PKCS1-v1_5 (RFC 8017). A key that wants the password for each signature gets it. The
// signature is verified before it is returned (EU_ERROR_KEY_BAD_SIGNATURE).
bytes signedBy(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    EVP_PKEY* publicKey,
    const secret& password,
    view message);

// An opened signing key.
class private_key {
public:
    // Throws what session::login does, and EU_ERROR_KEY_NOT_FOUND.
    private_key(token medium, std::string_view pin);

    bytes sign(view message);

    // The key's certificate, as it was on the token at the opening. Throws EU_ERROR_CERT_NOT_FOUND.
    X509* certificate() const;

    EVP_PKEY* publicKey() const { return opened.get(); }

private:
    void open(); // the same key as before, if one was open before

    // Uses the open session, or a new one where another login or the token's removal ended it.
    template <class Use>
    auto attempt(Use use);

    token on;
    secret password;
    std::unique_ptr<session> active; // null after a failure: the next use opens anew
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    pkey_ptr opened;
    x509_ptr owner; // null if the token holds none
};

} // namespace eu
