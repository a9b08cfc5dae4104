#include "token/generated_keys.h"

#include "cms/certificate.h"

#include <algorithm>
#include <array>

namespace eu {

namespace {

// The public keys that the token's public keys and certificates hold.
std::vector<pkey_ptr> publicKeysOn(const session& on) {
    std::vector<pkey_ptr> keys;
    for (const CK_OBJECT_HANDLE object : on.find(CKO_PUBLIC_KEY)) {
        keys.push_back(servedKeyOf(on, object));
    }
    for (const CK_OBJECT_HANDLE object : on.find(CKO_CERTIFICATE)) {
        const auto certificate = certificateIn(on, object);
        keys.emplace_back(certificate ? X509_get_pubkey(certificate.get()) : nullptr);
    }
    std::erase_if(keys, [](const pkey_ptr& key) { return !key || !isServed(key.get()); });
    return keys;
}

// Whether a private key and a public key are a pair, which a signature tells: most tokens do not
// tell the public half of a private key on a curve.
bool arePair(
    const session& on,
    CK_OBJECT_HANDLE privateKey,
    EVP_PKEY* publicKey,
    const secret& password) {
    const CK_KEY_TYPE kind = isOnCurve(publicKey) ? CKK_EC : CKK_RSA;
    if (on.number(privateKey, CKA_KEY_TYPE) != kind) {
        return false;
    }
    const bool asksAgain = on.flag(privateKey, CKA_ALWAYS_AUTHENTICATE);
    constexpr std::array<unsigned char, 4> message{'p', 'a', 'i', 'r'};
    try {
        signedBy(on, privateKey, publicKey, password, asksAgain, message);
        return true;
    } catch (const failure& e) {
        require(e.code == EU_ERROR_KEY_BAD_SIGNATURE, e.code);
        requireMemory();
        return false;
    }
}

} // namespace

bool generated_keys::holds(view id) const {
    return id.size() == generation.size() + 1 &&
           std::ranges::equal(id.first(generation.size()), generation);
}

std::vector<generated_keys> generatedKeys(const session& on) {
    std::vector<generated_keys> all;
    for (const CK_OBJECT_CLASS kind : {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY}) {
        for (const CK_OBJECT_HANDLE object : on.find(kind)) {
            const auto name = nameIn(on.values(object, {CKA_ID, CKA_LABEL}));
            if (!name) {
                continue;
            }
            auto keys = std::ranges::find(all, name->generation, &generated_keys::generation);
            if (keys == all.end()) {
                keys = all.insert(keys, {.generation = name->generation});
            }
            if (kind == CKO_PRIVATE_KEY) {
                keys->privateKeys.push_back(object);
            } else if (name->use == purpose::kep) {
                keys->publicKeys.insert(keys->publicKeys.begin(), object);
            } else {
                keys->publicKeys.push_back(object);
                (on.flag(object, CKA_VERIFY) ? keys->completed : keys->begun) = true;
            }
        }
    }
    return all;
}

bool isLeftover(const session& on, const generated_keys& keys, const secret& password) {
    if (!keys.publicKeys.empty() || keys.privateKeys.size() > 1) {
        return keys.begun && !keys.completed;
    }
    return std::ranges::none_of(publicKeysOn(on), [&](const pkey_ptr& each) {
        return arePair(on, keys.privateKeys.front(), each.get(), password);
    });
}

void clear(const session& on, const generated_keys& keys) noexcept {
    for (const auto* objects : {&keys.privateKeys, &keys.publicKeys}) {
        for (const CK_OBJECT_HANDLE object : *objects) {
            if (on.call().C_DestroyObject(on.handle(), object) != CKR_OK) {
                return;
            }
        }
    }
}

void clearLeftovers(const session& on, const secret& password) {
    auto all = generatedKeys(on);
    std::erase_if(all, [&](const generated_keys& keys) {
        const bool cutShort = isLeftover(on, keys, password);
        require(cutShort || keys.privateKeys.empty(), EU_ERROR_KEY_EXISTS);
        return !cutShort;
    });
    for (const generated_keys& keys : all) {
        clear(on, keys);
    }
}

void clearShells(const session& on) {
    const auto lacks = [&on](CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE part) {
        const auto value = on.value(object, part);
        return value && value->empty();
    };
    const auto isBegun = [&on](CK_OBJECT_HANDLE object) {
        const auto token = on.value(object, CKA_TOKEN);
        return token && token->size() == 1 && token->front() == CK_FALSE;
    };
    const auto isShell = [&](CK_OBJECT_HANDLE object) {
        switch (on.number(object, CKA_KEY_TYPE).value_or(CKK_VENDOR_DEFINED)) {
        case CKK_EC:
            return lacks(object, CKA_EC_PARAMS);
        case CKK_RSA:
            return lacks(object, CKA_MODULUS);
        default:
            return false;
        }
    };
    for (const CK_OBJECT_CLASS kind : {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY}) {
        for (const CK_OBJECT_HANDLE object : on.find(attributes().number(CKA_CLASS, kind))) {
            if (isBegun(object) && lacks(object, CKA_LABEL) && lacks(object, CKA_ID) &&
                isShell(object)) {
                on.call().C_DestroyObject(on.handle(), object); // or the next run does
            }
        }
    }
}

} // namespace eu
