// Passwords, signatures, and the life of a key, with every PKCS#11 call made to fail.

#include "certificates.h"
#include "token_layer.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace {

using layer::right;
using layer::wrong;

using calls = std::vector<std::function<DWORD()>>;

// ---- the library's long calls, with just what the tests vary

DWORD list() {
    std::array<char, EU_DESCRIPTION_SIZE> serial{};
    return EUEnumKeyMediaDevices(0, 0, serial.data());
}

DWORD find() {
    BOOL exists = 0;
    const DWORD result = EUIsPrivateKeyExists(&right, &exists);
    return result == EU_ERROR_NONE && exists == 0 ? EU_ERROR_KEY_NOT_FOUND : result;
}

DWORD generate(const EU_KEY_MEDIA& media = right, made::bytes* request = nullptr) {
    BYTE *ds = nullptr, *kep = nullptr;
    DWORD dsSize = 0, kepSize = 0;
    const DWORD result = EUGeneratePrivateKeyEx(&media, 1, 1, 2, 2, nullptr, 0, 2, nullptr, nullptr,
        nullptr, nullptr, nullptr, nullptr, nullptr, &ds, &dsSize, nullptr, &kep, &kepSize, nullptr,
        nullptr, nullptr, nullptr);
    if (request != nullptr) { request->assign(ds, ds + dsSize); }
    EUFreeMemory(ds);
    EUFreeMemory(kep);
    return result;
}

class opened_key {
public:
    explicit opened_key(const EU_KEY_MEDIA& media = right) {
        EXPECT_EQ(EUCtxCreate(&context), EU_ERROR_NONE);
        EU_CERT_OWNER_INFO owner{};
        result = EUCtxReadPrivateKey(context, &media, &key, &owner);
        EUCtxFreeCertOwnerInfo(context, &owner);
    }
    ~opened_key() {
        EUCtxFreePrivateKey(key);
        EUCtxFree(context);
    }

    DWORD sign(made::bytes* made = nullptr) const {
        BYTE* signature = nullptr;
        DWORD size = 0;
        const DWORD code =
            EUCtxSignData(key, 1, made::data.data(), made::data.size(), 1, 1, &signature, &size);
        if (made != nullptr) { made->assign(signature, signature + size); }
        EUFreeMemory(signature);
        return code;
    }

    void* context = nullptr;
    void* key = nullptr;
    DWORD result;
};

// A token with a key, its certificate, which is returned, and a stranger's.
made::certificate makeSigner() {
    layer::empty();
    made::bytes request;
    EXPECT_EQ(generate(right, &request), EU_ERROR_NONE);
    const unsigned char* start = request.data();
    const std::unique_ptr<X509_REQ, made::freed<X509_REQ_free>> parsed(
        d2i_X509_REQ(nullptr, &start, std::ssize(request)));
    auto own = made::issue(X509_REQ_get0_pubkey(parsed.get()));
    layer::store(made::der(own));
    const made::signer stranger(made::p256(), {.usage = "critical,keyAgreement"});
    layer::store(made::der(stranger.certificate));
    return own;
}

TEST(Media, EveryCodeHasATextOfItsOwn) {
    const std::string unknown = EUGetErrorLangDesc(0xFFFFFFFF, 3);
    std::set<std::string> texts;
    for (DWORD code = 0; code <= EU_ERROR_PKCS11 + 0xFFF; ++code) {
        const std::string text = EUGetErrorLangDesc(code, 3);
        const bool named = code < EU_ERROR_PKCS11 || text.find("(CKR_") != std::string::npos;
        EXPECT_TRUE(text == unknown || (texts.insert(text).second && named)) << text;
    }
    EXPECT_GT(texts.size(), 80U);
}

TEST(Password, EachRefusalHasItsCode) {
    makeSigner();
    const std::map<CK_RV, DWORD> refusals{{CKR_PIN_INCORRECT, EU_ERROR_PASSWORD_INCORRECT},
        {CKR_PIN_LOCKED, EU_ERROR_PASSWORD_LOCKED}, {CKR_PIN_LEN_RANGE, EU_ERROR_PASSWORD_LENGTH},
        {CKR_PIN_EXPIRED, EU_ERROR_PASSWORD_EXPIRED},
        {CKR_USER_PIN_NOT_INITIALIZED, EU_ERROR_PASSWORD_NOT_SET},
        {CKR_USER_ALREADY_LOGGED_IN, EU_ERROR_PKCS11 + CKR_USER_ALREADY_LOGGED_IN},
        {CKR_VENDOR_DEFINED + 17, EU_ERROR_PKCS11 + 0xFFF}};
    for (const auto& [given, expected] : refusals) {
        const opened_key key;
        layer::now = {.failAt = 1, .failures = 1, .failure = CKR_SESSION_CLOSED, .login = given};
        EXPECT_EQ(key.sign(), expected); // no longer accepted when the session has to be renewed
    }
}

// Nor does it close a key that is open, somebody else's.
TEST(Password, AWrongOneOpensNothingThatIsOpenAlready) {
    makeSigner();
    const opened_key key;
    for (const auto& attempt : calls{[] { return opened_key(wrong).result; },
             [] { return EUDestroyPrivateKey(&wrong); }, [] { return generate(wrong); }}) {
        EXPECT_EQ(attempt(), EU_ERROR_PASSWORD_INCORRECT);
        EXPECT_EQ(key.sign(), EU_ERROR_NONE);
    }
}

TEST(Key, IsWhatTheTokenOffersAndSigns) {
    for (const bool noCurves : {false, true}) {
        layer::now.noCurves = noCurves;
        const auto own = makeSigner();
        EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(own.get())), noCurves ? 3072 : 256);
        made::bytes signature;
        EXPECT_EQ(opened_key().sign(&signature), EU_ERROR_NONE);
        EXPECT_EQ(made::verify(made::data, signature, made::der(own)), EU_ERROR_NONE);
        EXPECT_GT(signature.size(), made::der(own).size() + 200); // which is inside
    }
    layer::now = {};
}

// Lets every call of an operation fail, the k-th after what prepares the token: once, with what
// may be tried instead, or for good since the token has gone, which is then told.
template <class Prepare, class Act, class Check>
void failEachCall(Prepare prepare, Act act, Check check) {
    for (const auto& [failures, code] : std::map<int, CK_RV>{{1, CKR_DEVICE_ERROR},
             {2, CKR_ACTION_PROHIBITED}, {layer::for_good, CKR_DEVICE_REMOVED}}) {
        bool reached = true;
        for (int k = 1; reached; ++k) {
            prepare();
            EXPECT_EQ(list(), EU_ERROR_NONE);
            layer::now = {.failAt = k, .failures = failures, .failure = code};
            const DWORD result = act();
            reached = layer::now.calls >= k;
            layer::now = {};
            SCOPED_TRACE(std::to_string(k) + " " + std::to_string(code));
            EXPECT_TRUE(reached || (k > 3 && result == EU_ERROR_NONE));
            EXPECT_TRUE(failures != layer::for_good || result == EU_ERROR_NONE ||
                        result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
            check(result);
        }
    }
}

TEST(Fault, GenerationLeavesAWholeKeyOrNone) {
    int refused = 0;
    // Where a call that removes something fails, it stays until the next generation.
    const std::set<DWORD> leaving{
        EU_ERROR_NONE, EU_ERROR_KEY_MEDIAS_ACCESS_FAILED, EU_ERROR_PKCS11 + CKR_ACTION_PROHIBITED};
    failEachCall(
        layer::empty, [] { return generate(); },
        [&](DWORD result) {
            const bool made = result == EU_ERROR_NONE;
            refused += result == EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED;
            EXPECT_EQ(find(), made ? EU_ERROR_NONE : EU_ERROR_KEY_NOT_FOUND);
            EXPECT_TRUE(leaving.contains(result) || layer::objectCount() == 0);
            EXPECT_EQ(generate(), made ? EU_ERROR_KEY_EXISTS : EU_ERROR_NONE);
            const auto count = layer::objectCount(); // a key that was copied may be left
            EXPECT_TRUE(count == 4 || (made && count == 5)) << count;
        });
    EXPECT_EQ(refused, 1); // where the token allows neither a copy nor a change
}

TEST(Fault, DestructionCanBeRepeated) {
    failEachCall([] { makeSigner(); }, [] { return EUDestroyPrivateKey(&right); },
        [](DWORD result) {
            const bool gone = result == EU_ERROR_NONE;
            EXPECT_EQ(find(), gone ? EU_ERROR_KEY_NOT_FOUND : EU_ERROR_NONE);
            EXPECT_EQ(EUDestroyPrivateKey(&right), gone ? EU_ERROR_KEY_NOT_FOUND : EU_ERROR_NONE);
            EXPECT_EQ(layer::objectCount(), 1U); // the stranger's certificate
        });
}

TEST(Fault, TheKeyIsAsItWasBefore) {
    makeSigner();
    const opened_key key;
    for (const auto& act :
        calls{find, [] { return list() == EU_ERROR_NONE ? EU_ERROR_NONE : find(); },
            [] { return opened_key().result; }, [&] { return key.sign(); }}) {
        failEachCall([] {}, act, [&](DWORD) { EXPECT_EQ(key.sign(), EU_ERROR_NONE); });
    }
}

} // namespace
