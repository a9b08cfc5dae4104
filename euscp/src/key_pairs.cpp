#include "key_pairs.h"

#include "certificate.h"
#include "locks.h"
#include "private_key.h"
#include "request.h"

#include <algorithm>
#include <array>
#include <openssl/rand.h>

namespace eu {

namespace {

constexpr std::size_t id_size = 17; // random bytes, the last one telling the two pairs apart

enum class algorithm { p256, rsa3072 };

enum class purpose { ds, kep };

const char* labelOf(purpose use) {
    return use == purpose::ds ? "DS" : "KEP";
}

struct key_pair {
    CK_OBJECT_HANDLE publicKey;
    CK_OBJECT_HANDLE privateKey;
};

algorithm offeredBy(const token& on) {
    constexpr CK_ULONG ec_bits = 256;
    constexpr CK_ULONG rsa_bits = 3072;
    const auto serves = [](const std::optional<CK_MECHANISM_INFO>& info, CK_ULONG bits) {
        const bool told = info && info->ulMaxKeySize != 0; // some modules leave the sizes out
        return info && (!told || (info->ulMinKeySize <= bits && bits <= info->ulMaxKeySize));
    };
    if (serves(mechanism(on, CKM_EC_KEY_PAIR_GEN), ec_bits) &&
        (mechanism(on, CKM_ECDSA) || mechanism(on, CKM_ECDSA_SHA256))) {
        return algorithm::p256;
    }
    require(
        serves(mechanism(on, CKM_RSA_PKCS_KEY_PAIR_GEN), rsa_bits) &&
            (mechanism(on, CKM_RSA_PKCS) || mechanism(on, CKM_SHA256_RSA_PKCS)),
        EU_ERROR_KEY_MEDIAS_NO_MECHANISM);
    return algorithm::rsa3072;
}

bool canDerive(const token& on) {
    return mechanism(on, CKM_ECDH1_DERIVE) || mechanism(on, CKM_ECDH1_COFACTOR_DERIVE);
}

const char* keyUsage(algorithm kind, purpose use) {
    if (use == purpose::ds) {
        return "critical,digitalSignature,nonRepudiation";
    }
    return kind == algorithm::p256 ? "critical,keyAgreement" : "critical,keyEncipherment";
}

// A public key without CKA_VERIFY does not count as a signing key: see publish.
void describePublic(attributes& list, algorithm kind, purpose use) {
    list.flag(CKA_TOKEN, true).flag(CKA_PRIVATE, false).flag(CKA_VERIFY, false);
    if (kind == algorithm::p256) {
        const ASN1_OBJECT* curve = OBJ_nid2obj(NID_X9_62_prime256v1);
        list.add(CKA_EC_PARAMS, view(encoded(curve, i2d_ASN1_OBJECT)));
    } else {
        constexpr std::array<unsigned char, 3> exponent{1, 0, 1};
        list.number(CKA_MODULUS_BITS, 3072).add(CKA_PUBLIC_EXPONENT, view(exponent));
        list.flag(CKA_ENCRYPT, use == purpose::kep).flag(CKA_WRAP, use == purpose::kep);
    }
}

void describePrivate(attributes& list, algorithm kind, purpose use, bool derive) {
    list.flag(CKA_TOKEN, true).flag(CKA_PRIVATE, true);
    list.flag(CKA_SENSITIVE, true).flag(CKA_EXTRACTABLE, false).flag(CKA_SIGN, true);
    if (kind == algorithm::p256) {
        if (use == purpose::kep && derive) {
            list.flag(CKA_DERIVE, true); // some modules know it for no other key
        }
    } else {
        list.flag(CKA_DECRYPT, use == purpose::kep).flag(CKA_UNWRAP, use == purpose::kep);
    }
}

std::string_view asText(const bytes& value) {
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

// A key object that a generation made, told by its label and the shape of its identifier.
struct generated_object {
    CK_OBJECT_HANDLE handle;
    CK_OBJECT_CLASS kind;
    bytes generation;        // the random part of the identifier
    bool shows;              // the public key that tells of the whole generation
    bool unfinished = false; // the generation was cut short: what tells of it does not count yet
};

// Those on the token, private keys first and those that show last: should a removal be cut short,
// what is left can still be told, and removed.
std::vector<generated_object> generatedObjects(const session& on) {
    std::vector<generated_object> objects;
    std::vector<bytes> begun;
    std::vector<bytes> complete;
    for (const CK_OBJECT_CLASS kind : {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY}) {
        for (const CK_OBJECT_HANDLE handle : on.find(kind)) {
            bytes id = on.value(handle, CKA_ID).value_or(bytes{});
            const bytes label = on.value(handle, CKA_LABEL).value_or(bytes{});
            const bool ds = asText(label) == labelOf(purpose::ds);
            if (id.size() != id_size || (!ds && asText(label) != labelOf(purpose::kep))) {
                continue;
            }
            id.pop_back();
            const bool shows = ds && kind == CKO_PUBLIC_KEY;
            if (shows) {
                (on.flag(handle, CKA_VERIFY) ? complete : begun).push_back(id);
            }
            objects.push_back({handle, kind, std::move(id), shows});
        }
    }
    for (generated_object& each : objects) {
        const auto isIn = [&each](const std::vector<bytes>& generations) {
            return std::ranges::find(generations, each.generation) != generations.end();
        };
        each.unfinished = isIn(begun) && !isIn(complete);
    }
    std::stable_partition(objects.begin(), objects.end(), [](const auto& each) {
        return !each.shows;
    });
    return objects;
}

// Clears what a token began as a key object and, being cut short, never filled: it tells that it is
// not the token's yet, and that its label, its identifier and its modulus or curve are empty. What
// an object does not tell is no evidence against it.
void clearShells(const session& on) {
    const auto lacks = [&on](CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE part) {
        const auto value = on.value(object, part);
        return value && value->empty();
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
            const auto token = on.value(object, CKA_TOKEN);
            const bool begun = token && token->size() == 1 && token->front() == CK_FALSE;
            if (begun && lacks(object, CKA_LABEL) && lacks(object, CKA_ID) && isShell(object)) {
                on.call().C_DestroyObject(on.handle(), object); // or the next run does
            }
        }
    }
}

// Clears the leftovers of generations that were cut short. Any other private key that one made
// still is somebody's, even where its public key has gone: a key is never silently replaced.
void clearLeftovers(const session& on) {
    const auto objects = generatedObjects(on);
    require(
        std::ranges::none_of(
            objects,
            [](const auto& each) { return each.kind == CKO_PRIVATE_KEY && !each.unfinished; }),
        EU_ERROR_KEY_EXISTS);
    for (const generated_object& each : objects) {
        if (each.unfinished) {
            on.destroy(each.handle);
        }
    }
}

// Results by which a token tells that it never lets an object be changed.
bool isRefusal(CK_RV result) {
    constexpr std::array<CK_RV, 7> refusals{
        CKR_ATTRIBUTE_READ_ONLY,
        CKR_ACTION_PROHIBITED,
        CKR_FUNCTION_NOT_SUPPORTED,
        CKR_ATTRIBUTE_TYPE_INVALID,
        CKR_ATTRIBUTE_VALUE_INVALID,
        CKR_TEMPLATE_INCONSISTENT,
        CKR_TEMPLATE_INCOMPLETE};
    return std::ranges::find(refusals, result) != refusals.end();
}

// The two pairs in the making: removed again unless the work is kept.
class generation {
public:
    generation(const session& with, std::string_view password)
        : on(with), pin(password), kind(offeredBy(with.medium())), id(id_size) {
        succeed(RAND_bytes(id.data(), static_cast<int>(id.size())));
    }

    ~generation() {
        // What tells of the generation goes last, and only if all the rest went: whatever stays can
        // be told for a leftover.
        for (const CK_OBJECT_HANDLE object : made) {
            if (on.call().C_DestroyObject(on.handle(), object) != CKR_OK) {
                break;
            }
        }
    }

    generation(const generation&) = delete;
    generation& operator=(const generation&) = delete;

    key_pair makePair(purpose use) {
        id.back() = static_cast<unsigned char>(use);
        attributes publicPart;
        attributes privatePart;
        for (attributes* part : {&publicPart, &privatePart}) {
            part->add(CKA_LABEL, std::string_view(labelOf(use))).add(CKA_ID, view(id));
        }
        describePublic(publicPart, kind, use);
        describePrivate(privatePart, kind, use, canDerive(on.medium()));

        CK_MECHANISM with{
            kind == algorithm::p256 ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN,
            nullptr,
            0};
        key_pair pair{};
        made.reserve(made.size() + 2); // nothing may fail between making and noting
        check(on.call().C_GenerateKeyPair(
            on.handle(),
            &with,
            publicPart.data(),
            publicPart.size(),
            privatePart.data(),
            privatePart.size(),
            &pair.publicKey,
            &pair.privateKey));
        made.insert(made.begin(), {pair.privateKey, pair.publicKey}); // the first pair goes last
        require(!on.flag(pair.privateKey, CKA_EXTRACTABLE), EU_ERROR_KEY_MEDIAS_EXTRACTABLE);
        return pair;
    }

    bytes requestFor(const key_pair& pair, purpose use) const {
        const auto publicKey = publicKeyOf(on, pair.publicKey);
        return makeRequest(
            publicKey.get(),
            {.commonName = on.medium().label, .serialNumber = on.medium().serial},
            keyUsage(kind, use),
            [&](view message) {
                return signedBy(on, pair.privateKey, publicKey.get(), pin, message);
            });
    }

    // The last change: from here on the pair counts as the token's signing key. No lock reaches
    // other machines that share the token, so whether one has made a key meanwhile is asked again.
    // Where a token lets all keys verify, those made here show already.
    void publish(CK_OBJECT_HANDLE publicKey) {
        const auto isOther = [this](CK_OBJECT_HANDLE each) {
            return std::ranges::find(made, each) == made.end();
        };
        require(std::ranges::none_of(signingKeys(on), isOther), EU_ERROR_KEY_EXISTS);
        if (!on.flag(publicKey, CKA_VERIFY)) {
            letVerify(publicKey);
        }
        made.clear();
    }

private:
    // By a copy with the change: a software token that is cut short while it rewrites an object
    // loses it, and this one tells what all the others are. A token without copies may still let
    // the object itself be changed.
    void letVerify(CK_OBJECT_HANDLE publicKey) const {
        attributes verifies;
        verifies.flag(CKA_VERIFY, true);
        CK_OBJECT_HANDLE copy = CK_INVALID_HANDLE;
        if (on.call().C_CopyObject(on.handle(), publicKey, verifies.data(), 1, &copy) == CKR_OK) {
            CK_BBOOL verifying = CK_TRUE; // as the token said, unless it now tells otherwise
            CK_ATTRIBUTE shown{CKA_VERIFY, &verifying, sizeof verifying};
            static_cast<void>(on.call().C_GetAttributeValue(on.handle(), copy, &shown, 1));
            on.call().C_DestroyObject(on.handle(), verifying != CK_FALSE ? publicKey : copy);
            if (verifying != CK_FALSE) {
                return;
            }
        }
        const CK_RV changed =
            on.call().C_SetAttributeValue(on.handle(), publicKey, verifies.data(), 1);
        require(!isRefusal(changed), EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED);
        check(changed);
    }

    const session& on;
    secret pin;
    algorithm kind;
    bytes id;
    std::vector<CK_OBJECT_HANDLE> made;
};

bool isAnyOf(const EVP_PKEY* key, const std::vector<pkey_ptr>& keys) {
    return std::ranges::any_of(keys, [key](const pkey_ptr& each) {
        return isSameKey(each.get(), key);
    });
}

// The certificates on the token that hold one of the keys.
std::vector<CK_OBJECT_HANDLE>
certificatesOf(const session& on, const std::vector<pkey_ptr>& publicKeys) {
    std::vector<CK_OBJECT_HANDLE> objects;
    for (const CK_OBJECT_HANDLE object : on.find(CKO_CERTIFICATE)) {
        const auto certificate = certificateIn(on, object);
        if (certificate && isAnyOf(X509_get0_pubkey(certificate.get()), publicKeys)) {
            objects.push_back(object);
        }
    }
    return objects;
}

// What goes with the token's signing key: its objects, the generation it is of, unfinished ones,
// and the certificates of all these; without a signing key everything that was ever generated.
// Private keys come first and what shows the key last: should the removal be cut short, the rest
// can be told and destroyed again.
std::vector<CK_OBJECT_HANDLE> belongings(const session& on, std::optional<whole_key> key) {
    auto pairs = generatedObjects(on);
    if (key) {
        bytes generation = key->shown.id;
        generation.resize(id_size - 1);
        std::erase_if(pairs, [&generation](const generated_object& each) {
            return each.generation != generation && !each.unfinished;
        });
    }

    std::vector<CK_OBJECT_HANDLE> objects;
    std::vector<CK_OBJECT_HANDLE> last;
    std::vector<pkey_ptr> publicKeys;
    for (const generated_object& each : pairs) {
        (each.kind == CKO_PRIVATE_KEY ? objects : last).push_back(each.handle);
        if (auto publicKey = each.kind == CKO_PUBLIC_KEY ? servedKeyOf(on, each.handle) : nullptr) {
            publicKeys.push_back(std::move(publicKey));
        }
    }
    if (key) {
        for (auto* list : {&objects, &last}) {
            std::erase(*list, key->privateKey);
            std::erase(*list, key->shown.object);
        }
        objects.insert(objects.begin(), key->privateKey);
        last.push_back(key->shown.object);
        publicKeys.push_back(std::move(key->publicKey));
    }
    for (const CK_OBJECT_HANDLE certificate : certificatesOf(on, publicKeys)) {
        if (std::ranges::find(last, certificate) == last.end()) {
            objects.push_back(certificate);
        }
    }
    objects.insert(objects.end(), last.begin(), last.end());
    return objects;
}

} // namespace

key_requests generateKeys(const token& on, std::string_view password) {
    const keys_lock lock(on.serial);
    session with(on, session::mode::read_write);
    with.login(password);
    require(signingKeys(with).empty(), EU_ERROR_KEY_EXISTS);
    clearLeftovers(with);
    clearShells(with);

    generation work(with, password);
    const key_pair ds = work.makePair(purpose::ds);
    const key_pair kep = work.makePair(purpose::kep);
    key_requests requests{
        .ds = parcel(work.requestFor(ds, purpose::ds)),
        .kep = parcel(work.requestFor(kep, purpose::kep))};
    work.publish(ds.publicKey);
    return requests;
}

void destroyKeys(const token& on, std::string_view password) {
    const keys_lock lock(on.serial);
    session with(on, session::mode::read_write);
    with.login(password);
    const auto objects = belongings(with, signingKey(with));
    require(!objects.empty(), EU_ERROR_KEY_NOT_FOUND);
    clearShells(with);
    for (const CK_OBJECT_HANDLE object : objects) {
        with.destroy(object);
    }
}

} // namespace eu
