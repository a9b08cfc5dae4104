#include "token/signing_key.h"

#include "cms/certificate.h"
#include "token/key_name.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <unordered_map>

namespace eu {

namespace {

constexpr std::size_t longest_certificate = 65'536;
constexpr CK_KEY_TYPE certificate_only = CKK_VENDOR_DEFINED; // its numbers are its encoding

x509_ptr parsed(view der) {
    const unsigned char* end = der.data();
    x509_ptr certificate(
        der.size() <= longest_certificate ? d2i_X509(nullptr, &end, static_cast<long>(der.size()))
                                          : nullptr);
    if (!certificate) {
        requireMemory();
    }
    return certificate;
}

bool mayUse(const X509* certificate) {
    return allowsSigning(certificate) && !isOfCardItself(certificate);
}

// Whether to take the first of two certificates of one key: one that allows signing before one that
// does not, then one valid now, then the one that ends last.
bool isBetter(const X509* one, const X509* other) {
    const std::time_t now = std::time(nullptr);
    const auto merits = [now](const X509* each) {
        return std::pair(mayUse(each), validAt(each, now));
    };
    if (merits(one) != merits(other)) {
        return merits(one) > merits(other);
    }
    return ASN1_TIME_compare(X509_get0_notAfter(one), X509_get0_notAfter(other)) > 0;
}

// Eight bytes of the key that every encoding of it holds as they are: the end of the modulus, or of
// the point's x-coordinate. To look for them spares the decoding of other keys' certificates, which
// takes longer than reading them.
using mark = std::uint64_t;

mark markAt(const unsigned char* start) {
    mark result = 0;
    std::memcpy(&result, start, sizeof result);
    return result;
}

std::optional<mark> markOf(const public_numbers& numbers) {
    const bytes& number = numbers.number;
    const bool wholePoint =
        numbers.type != CKK_RSA && !number.empty() && number.front() == 0x04; // x and y
    const std::size_t end = wholePoint ? (number.size() + 1) / 2 : number.size();
    return end >= sizeof(mark) ? std::optional(markAt(number.data() + end - sizeof(mark)))
                               : std::nullopt;
}

// The certificates of public keys.
class certificate_match {
public:
    explicit certificate_match(const std::vector<shown_key>& shown) {
        for (const shown_key& key : shown) {
            const auto [own, isNew] = owners.try_emplace(key.numbers);
            if (const auto its = isNew ? markOf(key.numbers) : std::nullopt) {
                marked.emplace(*its, own);
            }
        }
    }

    void add(view der) {
        std::set<mark> tried;
        for (std::size_t at = 0; at + sizeof(mark) <= der.size(); ++at) {
            const mark here = markAt(der.data() + at);
            if (marked.contains(here) && tried.insert(here).second) {
                const auto [first, last] = marked.equal_range(here);
                std::for_each(first, last, [der](const auto& each) { add(der, each.second); });
            }
        }
    }

    x509_ptr of(const shown_key& key) const {
        X509* const certificate = owners.at(key.numbers).certificate.get();
        require(certificate == nullptr || X509_up_ref(certificate) == 1, EU_ERROR_CRYPTO);
        return x509_ptr(certificate);
    }

private:
    struct owner {
        pkey_ptr key;
        x509_ptr certificate;
    };
    using owner_map = std::map<public_numbers, owner>;

    static void add(view der, owner_map::iterator to) {
        auto& [numbers, own] = *to;
        auto certificate = parsed(der);
        own.key = own.key ? std::move(own.key) : servedKey(numbers);
        const bool its =
            certificate && own.key && isSameKey(X509_get0_pubkey(certificate.get()), own.key.get());
        if (its && (!own.certificate || isBetter(certificate.get(), own.certificate.get()))) {
            own.certificate = std::move(certificate);
        }
    }

    owner_map owners;
    std::unordered_multimap<mark, owner_map::iterator> marked;
};

struct certificate_object {
    bytes id;
    CK_OBJECT_HANDLE object;
    bytes value;
};

// The keys of a token that shows certificates only.
std::vector<shown_key> keysOf(const std::vector<certificate_object>& certificates) {
    std::vector<shown_key> keys;
    for (const auto& [id, object, value] : certificates) {
        auto certificate = parsed(value);
        if (certificate && !isAuthority(certificate.get())) {
            const bytes key = encoded(X509_get_X509_PUBKEY(certificate.get()), i2d_X509_PUBKEY);
            keys.push_back({id, object, {certificate_only, {}, key}, std::move(certificate)});
        }
    }
    return keys;
}

void certify(std::vector<shown_key>& keys, const std::vector<certificate_object>& certificates) {
    certificate_match match(keys);
    for (const certificate_object& each : certificates) {
        match.add(each.value);
    }
    for (shown_key& key : keys) {
        key.certificate = match.of(key);
    }
}

// Sorts the keys by identifier, each once, with the best of its certificates first, and tells where
// a private key may be one's or another's.
void sort(std::vector<shown_key>& keys) {
    const auto identity = [](const shown_key& each) { return std::tie(each.id, each.numbers); };
    std::ranges::stable_sort(keys, [identity](const shown_key& one, const shown_key& other) {
        if (identity(one) != identity(other)) {
            return identity(one) < identity(other);
        }
        return one.certificate && other.certificate &&
               isBetter(one.certificate.get(), other.certificate.get());
    });
    const auto isAgain = [identity](const shown_key& one, const shown_key& other) {
        return identity(one) == identity(other);
    };
    keys.erase(std::unique(keys.begin(), keys.end(), isAgain), keys.end());
    for (std::size_t i = 1; i < keys.size(); ++i) {
        if (keys[i].id == keys[i - 1].id) {
            keys[i].shared = keys[i - 1].shared = true;
        }
    }
}

// What a private key tells before it is used.
private_part privatePart(CK_OBJECT_HANDLE object, const object_values& told) {
    const bool forOwner = told.flag(CKA_PRIVATE).value_or(true);
    return {
        object,
        told.flag(CKA_SIGN).value_or(true) && forOwner,
        forOwner,
        told.flag(CKA_ALWAYS_AUTHENTICATE).value_or(false)};
}

bytes idIn(const object_values& told) {
    const bytes* id = told.find(CKA_ID);
    return id != nullptr ? *id : bytes{};
}

bool mayBeUsed(const shown_key& key, const shown_keys& all) {
    const auto [first, last] = all.privateKeys.equal_range(key.id);
    return (key.generated || !key.certificate || mayUse(key.certificate.get())) &&
           std::all_of(first, last, [](const auto& each) { return each.second.forOwner; });
}

// The lower, the better.
int rankOf(const shown_key& key) {
    if (!key.certificate) {
        return 2;
    }
    if (!mayUse(key.certificate.get())) {
        return 3;
    }
    return allowsNonRepudiation(key.certificate.get()) ? 0 : 1;
}

// The private key of the identifier if there is exactly one, and it signs; else null.
const private_part* privateKeyOf(const shown_key& key, const shown_keys& all) {
    const auto [first, last] = all.privateKeys.equal_range(key.id);
    const bool one = !key.shared && first != last && std::next(first) == last;
    return one && first->second.signs ? &first->second : nullptr;
}

pkey_ptr servedKeyOf(const shown_key& key) {
    if (key.numbers.type != certificate_only) {
        return servedKey(key.numbers);
    }
    pkey_ptr publicKey(X509_get_pubkey(key.certificate.get()));
    return publicKey && isServed(publicKey.get()) ? std::move(publicKey) : nullptr;
}

// Adds what a login lets the session show: the private keys.
void addPrivateKeys(const session& on, shown_keys& to) {
    to.privateKeys.clear(); // those that were seen without a login are seen again
    for (const CK_OBJECT_HANDLE object : on.find(CKO_PRIVATE_KEY)) {
        const auto told =
            on.values(object, {CKA_ID, CKA_SIGN, CKA_PRIVATE, CKA_ALWAYS_AUTHENTICATE});
        to.privateKeys.emplace(idIn(told), privatePart(object, told));
    }
}

std::optional<whole_key> chosenKey(shown_keys from) {
    std::ranges::stable_sort(from.keys, {}, rankOf);
    bool others = false;
    for (shown_key& key : from.keys) {
        const private_part* const privateKey = privateKeyOf(key, from);
        if (privateKey == nullptr) {
            continue;
        }
        if (auto publicKey = servedKeyOf(key)) {
            return whole_key{
                {std::move(key.id), key.object},
                privateKey->object,
                privateKey->asksAgain,
                std::move(publicKey),
                std::move(key.certificate),
                from.certificates};
        }
        others = true;
    }
    require(!others, EU_ERROR_KEY_NOT_SUPPORTED);
    return std::nullopt;
}

} // namespace

shown_keys shownKeys(const session& on) {
    shown_keys shown;
    std::vector<certificate_object> certificates;
    for (const CK_OBJECT_HANDLE object : on.find(attributes().flag(CKA_TOKEN, true))) {
        const auto told = on.values(
            object,
            {CKA_CLASS,
             CKA_ID,
             CKA_LABEL,
             CKA_KEY_TYPE,
             CKA_VERIFY,
             CKA_SIGN,
             CKA_PRIVATE,
             CKA_ALWAYS_AUTHENTICATE});
        const auto kind = told.number(CKA_CLASS);
        if (kind == CKO_CERTIFICATE) {
            certificates.push_back(
                {idIn(told), object, on.value(object, CKA_VALUE).value_or(bytes{})});
        } else if (kind == CKO_PRIVATE_KEY) {
            shown.privateKeys.emplace(idIn(told), privatePart(object, told));
        } else if (kind == CKO_PUBLIC_KEY && told.flag(CKA_VERIFY).value_or(false)) {
            const CK_KEY_TYPE type = told.number(CKA_KEY_TYPE).value_or(CKK_EC);
            shown.keys.push_back(
                {.id = idIn(told),
                 .object = object,
                 .numbers = numbersOf(on, object, type),
                 .generated = nameIn(told).has_value()});
        }
    }
    shown.certificates = !certificates.empty();
    if (shown.keys.empty()) {
        shown.keys = keysOf(certificates);
    } else {
        certify(shown.keys, certificates);
    }
    sort(shown.keys);
    std::erase_if(shown.keys, [&shown](const auto& each) { return !mayBeUsed(each, shown); });
    return shown;
}

std::optional<whole_key> signingKey(const session& on, shown_keys before) {
    addPrivateKeys(on, before);
    auto key = chosenKey(std::move(before));
    return key && key->certificate ? std::move(key) : chosenKey(shownKeys(on));
}

x509_ptr certificateIn(const session& on, CK_OBJECT_HANDLE object) {
    const auto value = on.value(object, CKA_VALUE);
    return value ? parsed(*value) : nullptr;
}

} // namespace eu
