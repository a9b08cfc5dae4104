// Two key pairs in the making.
#pragma once

#include "token/generated_keys.h"

namespace eu {

struct key_pair {
    CK_OBJECT_HANDLE publicKey;
    CK_OBJECT_HANDLE privateKey;
};

// What the token offers to generate: P-256, else RSA of 3072 bits, else of 2048.
enum class algorithm : CK_ULONG { p256 = 256, rsa3072 = 3072, rsa2048 = 2048 };

// One generation of keys: removed again unless it is published.
class generation {
public:
    // Throws EU_ERROR_KEY_MEDIAS_NO_MECHANISM.
    generation(const session& with, const secret& password);
    ~generation();
    generation(const generation&) = delete;
    generation& operator=(const generation&) = delete;

    // Throws EU_ERROR_KEY_MEDIAS_ADMINISTRATOR or _GENERATION_REFUSED where the user's password
    // does not suffice, and EU_ERROR_KEY_MEDIAS_EXTRACTABLE.
    key_pair makePair(purpose use);

    // A PKCS#10 request for the pair, in DER.
    bytes requestFor(const key_pair& pair, purpose use) const;

    // The last change: from here on the pair counts as the token's signing key. No lock reaches
    // other machines that share the token, so whether one has made a key meanwhile is asked again.
    // Where a token lets all keys verify, those made here show already.
    void publish(CK_OBJECT_HANDLE publicKey);

private:
    void letVerify(CK_OBJECT_HANDLE publicKey) const;

    const session& on;
    const secret& pin;
    algorithm kind;
    bytes name;
    generated_keys made;
};

// Throws EU_ERROR_KEY_EXISTS if the token shows a signing key that is none of the given objects.
// What has no private key behind it is none: a destruction was cut short, or it is somebody else's.
void requireNoKey(const session& on, const std::vector<CK_OBJECT_HANDLE>& except = {});

} // namespace eu
