#include "token/key_pairs.h"

#include "cms/certificate.h"
#include "token/generation.h"
#include "token/locks.h"

#include <algorithm>

namespace eu {

namespace {

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

// What is to be destroyed in this order, which puts private keys first and what shows the key last:
// should it be cut short, the rest can be told and destroyed again.
class doomed {
public:
    void add(const generated_keys& keys, const session& on) {
        objects.insert(objects.end(), keys.privateKeys.begin(), keys.privateKeys.end());
        last.insert(last.end(), keys.publicKeys.begin(), keys.publicKeys.end());
        for (const CK_OBJECT_HANDLE object : keys.publicKeys) {
            if (auto publicKey = servedKeyOf(on, object)) {
                publicKeys.push_back(std::move(publicKey));
            }
        }
    }

    void add(whole_key key) {
        std::erase(objects, key.privateKey);
        std::erase(last, key.shown.object);
        objects.insert(objects.begin(), key.privateKey);
        last.push_back(key.shown.object);
        publicKeys.push_back(std::move(key.publicKey));
    }

    // With the certificates of the keys.
    std::vector<CK_OBJECT_HANDLE> inOrder(const session& on) && {
        for (const CK_OBJECT_HANDLE certificate : certificatesOf(on, publicKeys)) {
            if (std::ranges::find(last, certificate) == last.end()) {
                objects.push_back(certificate);
            }
        }
        objects.insert(objects.end(), last.begin(), last.end());
        return std::move(objects);
    }

private:
    std::vector<CK_OBJECT_HANDLE> objects;
    std::vector<CK_OBJECT_HANDLE> last;
    std::vector<pkey_ptr> publicKeys;
};

} // namespace

key_requests generateKeys(const token& on, std::string_view password) {
    const keys_lock lock(on.serial);
    const secret pin(password);
    session with(on, session::mode::read_write);
    with.login(password);
    requireNoKey(with);
    clearLeftovers(with, pin);
    clearShells(with);

    generation work(with, pin);
    const key_pair ds = work.makePair(purpose::ds);
    const key_pair kep = work.makePair(purpose::kep);
    key_requests requests{
        .ds = parcel(work.requestFor(ds, purpose::ds)),
        .kep = parcel(work.requestFor(kep, purpose::kep))};
    work.publish(ds.publicKey);
    return requests;
}

// With a signing key go the generation it is of, and those whose destruction was cut short; without
// one, all that was ever generated.
void destroyKeys(const token& on, std::string_view password) {
    const keys_lock lock(on.serial);
    const secret pin(password);
    session with(on, session::mode::read_write);
    auto shown = shownKeys(with); // without the password, as for an opening: the same key is chosen
    with.login(password);
    auto key = signingKey(with, std::move(shown));
    doomed those;
    std::vector<generated_keys> leftovers;
    for (generated_keys& keys : generatedKeys(with)) {
        if (!key || keys.holds(key->shown.id) || keys.privateKeys.empty()) {
            those.add(keys, with);
        } else if (isLeftover(with, keys, pin)) {
            leftovers.push_back(std::move(keys));
        }
    }
    if (key) {
        those.add(std::move(*key));
    }
    const auto objects = std::move(those).inOrder(with);
    require(!objects.empty(), EU_ERROR_KEY_NOT_FOUND);
    clearShells(with);
    for (const generated_keys& keys : leftovers) {
        clear(with, keys);
    }
    for (const CK_OBJECT_HANDLE object : objects) {
        with.destroy(object);
    }
}

} // namespace eu
