#include "key_pairs.h"

#include "certificate.h"
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
        return info && info->ulMinKeySize <= bits && bits <= info->ulMaxKeySize;
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
        list.flag(CKA_DERIVE, use == purpose::kep && derive);
    } else {
        list.flag(CKA_DECRYPT, use == purpose::kep).flag(CKA_UNWRAP, use == purpose::kep);
    }
}

std::string_view asText(const bytes& value) {
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

// Objects that a generation made, told by the label and the shape of the identifier.
std::vector<CK_OBJECT_HANDLE> generated(const session& on, CK_OBJECT_CLASS objectClass) {
    auto objects = on.find(objectClass);
    std::erase_if(objects, [&on](CK_OBJECT_HANDLE object) {
        const bytes label = on.value(object, CKA_LABEL).value_or(bytes{});
        const bytes id = on.value(object, CKA_ID).value_or(bytes{});
        return id.size() != id_size ||
               (asText(label) != labelOf(purpose::ds) && asText(label) != labelOf(purpose::kep));
    });
    return objects;
}

// The two pairs in the making: removed again unless the work is kept.
class generation {
public:
    generation(const session& with, std::string_view password)
        : on(with), pin(password), kind(offeredBy(with.medium())), id(id_size) {
        succeed(RAND_bytes(id.data(), static_cast<int>(id.size())));
    }

    ~generation() {
        for (const CK_OBJECT_HANDLE object : made) { // public keys first: they tell of a key
            on.call().C_DestroyObject(on.handle(), object);
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
        made.insert(made.begin(), pair.publicKey);
        made.push_back(pair.privateKey);
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

    // The last change: from here on the pair counts as the token's signing key. A token that does
    // not let an object be changed may still copy it with the change.
    void publish(CK_OBJECT_HANDLE publicKey) {
        if (!on.flag(publicKey, CKA_VERIFY)) {
            attributes verifies;
            verifies.flag(CKA_VERIFY, true);
            CK_OBJECT_HANDLE copy = CK_INVALID_HANDLE;
            if (on.call().C_SetAttributeValue(on.handle(), publicKey, verifies.data(), 1) !=
                CKR_OK) {
                require(
                    on.call().C_CopyObject(on.handle(), publicKey, verifies.data(), 1, &copy) ==
                        CKR_OK,
                    EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED);
                on.call().C_DestroyObject(on.handle(), publicKey);
            }
        }
        made.clear();
    }

private:
    const session& on;
    secret pin;
    algorithm kind;
    bytes id;
    std::vector<CK_OBJECT_HANDLE> made;
};

bool isAnyOf(const EVP_PKEY* key, const std::vector<pkey_ptr>& keys) {
    return std::ranges::any_of(keys, [key](const pkey_ptr& each) {
        return EVP_PKEY_eq(each.get(), key) == 1;
    });
}

// What belongs to the token's signing key and to anything generated. Private keys come first and
// the object that shows the key last: should the removal be cut short, the key is still seen and
// can be destroyed again.
std::vector<CK_OBJECT_HANDLE> belongings(const session& on, const public_part& key) {
    std::vector<CK_OBJECT_HANDLE> objects;
    std::vector<CK_OBJECT_HANDLE> publicObjects;
    std::vector<pkey_ptr> publicKeys;
    const auto collect = [&](CK_OBJECT_CLASS objectClass, std::vector<CK_OBJECT_HANDLE>& into) {
        into = on.find(attributes()
                           .number(CKA_CLASS, objectClass)
                           .flag(CKA_TOKEN, true)
                           .add(CKA_ID, view(key.id)));
        for (const CK_OBJECT_HANDLE object : generated(on, objectClass)) {
            if (std::ranges::find(into, object) == into.end()) {
                into.push_back(object);
            }
        }
    };
    collect(CKO_PRIVATE_KEY, objects);
    collect(CKO_PUBLIC_KEY, publicObjects);
    publicKeys.push_back(publicKeyOf(on, key.object));
    for (const CK_OBJECT_HANDLE object : publicObjects) {
        publicKeys.push_back(publicKeyOf(on, object));
    }
    for (const CK_OBJECT_HANDLE object : on.find(CKO_CERTIFICATE)) {
        const auto certificate = certificateIn(on, object);
        if (certificate && isAnyOf(X509_get0_pubkey(certificate.get()), publicKeys)) {
            objects.push_back(object);
        }
    }
    objects.insert(objects.end(), publicObjects.begin(), publicObjects.end());
    std::erase(objects, key.object);
    objects.push_back(key.object);
    return objects;
}

} // namespace

key_requests generateKeys(const token& on, std::string_view password) {
    require((present(on).flags & CKF_WRITE_PROTECTED) == 0, EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED);
    session with(on, session::mode::read_write);
    with.login(password);
    require(signingKeys(with).empty(), EU_ERROR_KEY_EXISTS);
    for (const CK_OBJECT_CLASS leftover : {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY}) {
        for (const CK_OBJECT_HANDLE object : generated(with, leftover)) {
            with.destroy(object);
        }
    }

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
    session with(on, session::mode::read_write);
    with.login(password);
    const auto keys = signingKeys(with);
    require(!keys.empty(), EU_ERROR_KEY_NOT_FOUND);
    for (const CK_OBJECT_HANDLE object : belongings(with, keys.front())) {
        with.destroy(object);
    }
}

} // namespace eu
