#include "token/generation.h"

#include "cms/request.h"

#include <algorithm>
#include <array>

namespace eu {

namespace {

bool isRsa(algorithm kind) {
    return kind != algorithm::p256;
}

algorithm offeredBy(const token& on) {
    const auto serves = [](const std::optional<CK_MECHANISM_INFO>& info, algorithm kind) {
        const auto bits = static_cast<CK_ULONG>(kind);
        const bool told = info && info->ulMaxKeySize != 0; // some modules leave the sizes out
        return info && (!told || (info->ulMinKeySize <= bits && bits <= info->ulMaxKeySize));
    };
    if (serves(mechanism(on, CKM_EC_KEY_PAIR_GEN), algorithm::p256) &&
        (mechanism(on, CKM_ECDSA) || mechanism(on, CKM_ECDSA_SHA256))) {
        return algorithm::p256;
    }
    const auto rsa = mechanism(on, CKM_RSA_PKCS_KEY_PAIR_GEN);
    if (rsa && (mechanism(on, CKM_RSA_PKCS) || mechanism(on, CKM_SHA256_RSA_PKCS))) {
        for (const algorithm kind : {algorithm::rsa3072, algorithm::rsa2048}) {
            if (serves(rsa, kind)) {
                return kind;
            }
        }
    }
    throw failure(EU_ERROR_KEY_MEDIAS_NO_MECHANISM);
}

bool canDerive(const token& on) {
    return mechanism(on, CKM_ECDH1_DERIVE) || mechanism(on, CKM_ECDH1_COFACTOR_DERIVE);
}

const char* keyUsage(algorithm kind, purpose use) {
    if (use == purpose::ds) {
        return "critical,digitalSignature,nonRepudiation";
    }
    return isRsa(kind) ? "critical,keyEncipherment" : "critical,keyAgreement";
}

// A public key without CKA_VERIFY does not count as a signing key: see publish.
void describePublic(attributes& list, algorithm kind, purpose use) {
    list.flag(CKA_TOKEN, true).flag(CKA_PRIVATE, false).flag(CKA_VERIFY, false);
    if (isRsa(kind)) {
        constexpr std::array<unsigned char, 3> exponent{1, 0, 1};
        list.number(CKA_MODULUS_BITS, static_cast<CK_ULONG>(kind));
        list.add(CKA_PUBLIC_EXPONENT, view(exponent));
        list.flag(CKA_ENCRYPT, use == purpose::kep).flag(CKA_WRAP, use == purpose::kep);
    } else {
        const ASN1_OBJECT* curve = OBJ_nid2obj(NID_X9_62_prime256v1);
        list.add(CKA_EC_PARAMS, view(encoded(curve, i2d_ASN1_OBJECT)));
    }
}

void describePrivate(attributes& list, algorithm kind, purpose use, bool derive) {
    list.flag(CKA_TOKEN, true).flag(CKA_PRIVATE, true);
    list.flag(CKA_SENSITIVE, true).flag(CKA_EXTRACTABLE, false).flag(CKA_SIGN, true);
    if (isRsa(kind)) {
        list.flag(CKA_DECRYPT, use == purpose::kep).flag(CKA_UNWRAP, use == purpose::kep);
    } else if (use == purpose::kep && derive) {
        list.flag(CKA_DERIVE, true); // some modules know it for no other key
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

std::vector<CK_OBJECT_HANDLE> named(const session& on, CK_OBJECT_CLASS kind, const bytes& id) {
    return on.find(
        attributes().number(CKA_CLASS, kind).flag(CKA_TOKEN, true).add(CKA_ID, view(id)));
}

// Removes what a token made of a pair before it failed. What cannot be removed now is a leftover.
void clearHalfMade(const session& on, const key_name& name) noexcept {
    try {
        clear(
            on,
            {.generation = name.generation,
             .privateKeys = named(on, CKO_PRIVATE_KEY, name.id()),
             .publicKeys = named(on, CKO_PUBLIC_KEY, name.id())});
    } catch (const std::exception&) {
        static_cast<void>(cryptoRanOutOfMemory());
    }
}

} // namespace

generation::generation(const session& with, const secret& password)
    : on(with), pin(password), kind(offeredBy(with.medium())), name(newGeneration()) {}

generation::~generation() {
    clear(on, made);
}

key_pair generation::makePair(purpose use) {
    const key_name pairName{name, use};
    attributes publicPart;
    attributes privatePart;
    for (attributes* part : {&publicPart, &privatePart}) {
        part->add(CKA_LABEL, std::string_view(labelOf(use))).add(CKA_ID, view(pairName.id()));
    }
    describePublic(publicPart, kind, use);
    describePrivate(privatePart, kind, use, canDerive(on.medium()));

    CK_MECHANISM with{isRsa(kind) ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    key_pair pair{};
    for (auto* objects : {&made.privateKeys, &made.publicKeys}) {
        objects->reserve(objects->size() + 1); // nothing may fail between making and noting
    }
    const CK_RV result = on.call().C_GenerateKeyPair(
        on.handle(),
        &with,
        publicPart.data(),
        publicPart.size(),
        privatePart.data(),
        privatePart.size(),
        &pair.publicKey,
        &pair.privateKey);
    if (result != CKR_OK) {
        clearHalfMade(on, pairName);
    }
    require(result != CKR_ATTRIBUTE_VALUE_INVALID, EU_ERROR_KEY_MEDIAS_GENERATION_REFUSED);
    checkChange(result);
    made.privateKeys.push_back(pair.privateKey);
    made.publicKeys.insert(made.publicKeys.begin(), pair.publicKey); // the first pair's goes last
    require(!on.flag(pair.privateKey, CKA_EXTRACTABLE), EU_ERROR_KEY_MEDIAS_EXTRACTABLE);
    return pair;
}

bytes generation::requestFor(const key_pair& pair, purpose use) const {
    const auto publicKey = publicKeyOf(on, pair.publicKey);
    const bool asksAgain = on.flag(pair.privateKey, CKA_ALWAYS_AUTHENTICATE);
    return makeRequest(
        publicKey.get(),
        {.commonName = on.medium().label, .serialNumber = on.medium().serial},
        keyUsage(kind, use),
        [&](view message) {
            return signedBy(on, pair.privateKey, publicKey.get(), pin, asksAgain, message);
        });
}

void generation::publish(CK_OBJECT_HANDLE publicKey) {
    requireNoKey(on, made.publicKeys);
    if (!on.flag(publicKey, CKA_VERIFY)) {
        letVerify(publicKey);
    }
    made = {};
}

// By a copy with the change: a software token that is cut short while it rewrites an object loses
// it, and this one tells what all the others are. A token without copies may still let the object
// itself be changed.
void generation::letVerify(CK_OBJECT_HANDLE publicKey) const {
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
    const CK_RV changed = on.call().C_SetAttributeValue(on.handle(), publicKey, verifies.data(), 1);
    require(!isRefusal(changed), EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED);
    check(changed);
}

void requireNoKey(const session& on, const std::vector<CK_OBJECT_HANDLE>& except) {
    const shown_keys shown = shownKeys(on);
    for (const shown_key& each : shown.keys) {
        const bool isOther = std::ranges::find(except, each.object) == except.end();
        require(!isOther || !shown.privateKeys.contains(each.id), EU_ERROR_KEY_EXISTS);
    }
}

} // namespace eu
