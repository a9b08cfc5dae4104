// The signing key of a token: opening it with the password, signing with it.
#pragma once

#include "token/signing_key.h"

#include <array>
#include <memory>

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

// Signs a message with a private key of a logged-in session, with SHA-256: ECDSA (as DER) or
// RSASSA-PKCS1-v1_5 (RFC 8017). A key that asks again, for the password at each signature
// (CKA_ALWAYS_AUTHENTICATE), gets it. The signature is verified before it is returned
// (EU_ERROR_KEY_BAD_SIGNATURE).
bytes signedBy(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    EVP_PKEY* publicKey,
    const secret& password,
    bool asksAgain,
    view message);

// What a token shows without a password, and the session that saw it, in which its key can be
// opened: a card is then read once.
struct look {
    explicit look(const token& medium);

    std::unique_ptr<session> with;
    shown_keys shown;
};

// An opened signing key.
class private_key {
public:
    // Throws what session::login does, and EU_ERROR_KEY_NOT_FOUND.
    private_key(token medium, std::string_view pin, std::optional<look> before);

    bytes sign(view message);

    bool hasCertificate() const { return owner != nullptr; }

    // The key's certificate, as it was on the token at the opening. Throws EU_ERROR_CERT_NOT_FOUND,
    // and EU_ERROR_CERT_OTHER_KEY where there were certificates, of other keys.
    X509* certificate() const;

    EVP_PKEY* publicKey() const { return opened.get(); }

private:
    void open(); // the same key as before, if one was open before

    // Whether another login, or the token's removal, ended the session that a use failed with. A
    // use that failed for a reason of its own would fail again, at the price of a login.
    bool endedFromOutside(DWORD code) const;

    // Uses the open session, or a new one where another login or the token's removal ended it.
    template <class Use>
    auto attempt(Use use);

    token on;
    secret password;
    std::optional<look> seen;        // for the first opening
    std::unique_ptr<session> active; // null after a failure: the next use opens anew
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    bool asksAgain = false; // for the password, at each signature
    pkey_ptr opened;
    x509_ptr owner;
    bool foreignCertificates = false; // where it holds none
};

} // namespace eu
