// Media, passwords, and the life of a key, with every PKCS#11 call made to fail once.

#include "calls.h"

#include <functional>
#include <map>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using layer::medium;

bool holdsKey() {
    const EU_KEY_MEDIA media = medium();
    BOOL exists = 0;
    EXPECT_EQ(EUIsPrivateKeyExists(&media, &exists), EU_ERROR_NONE);
    return exists != 0;
}

DWORD listMedia() {
    std::array<char, EU_DESCRIPTION_SIZE> serial{};
    return EUEnumKeyMediaDevices(0, 0, serial.data());
}

TEST(Media, AreListedAfreshAndKept) {
    std::array<char, EU_DESCRIPTION_SIZE> text{};
    EXPECT_EQ(EUEnumKeyMediaTypes(0, text.data()), EU_ERROR_NONE);
    EXPECT_STREQ(text.data(), "\xE5.\xEA\xEB\xFE\xF7 \xB2\xB2\xD2 \xC0\xEB\xEC\xE0\xE7-1\xCA");
    EXPECT_EQ(EUEnumKeyMediaTypes(1, text.data()), EU_WARNING_END_OF_ENUM);
    EXPECT_EQ(listMedia(), EU_ERROR_NONE);
    EXPECT_EQ(EUEnumKeyMediaDevices(0, 1, text.data()), EU_WARNING_END_OF_ENUM);
    layer::now = {.failAt = 1, .failure = CKR_TOKEN_NOT_PRESENT, .forGood = true};
    EXPECT_EQ(listMedia(), EU_WARNING_END_OF_ENUM);
    layer::reset();
    EXPECT_EQ(listMedia(), EU_ERROR_NONE);

    BOOL exists = 0;
    const EU_KEY_MEDIA other{.dwTypeIndex = 0, .dwDevIndex = 5, .szPassword = {}};
    EXPECT_EQ(EUIsPrivateKeyExists(&other, &exists), EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
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
    EXPECT_EQ(opened_key(medium("")).result, EU_ERROR_PASSWORD_LENGTH);
    const std::map<CK_RV, DWORD> refusals{{CKR_PIN_INCORRECT, EU_ERROR_PASSWORD_INCORRECT},
        {CKR_PIN_LOCKED, EU_ERROR_PASSWORD_LOCKED}, {CKR_PIN_LEN_RANGE, EU_ERROR_PASSWORD_LENGTH},
        {CKR_PIN_EXPIRED, EU_ERROR_PASSWORD_EXPIRED},
        {CKR_USER_PIN_NOT_INITIALIZED, EU_ERROR_PASSWORD_NOT_SET},
        {CKR_USER_ALREADY_LOGGED_IN, EU_ERROR_PKCS11 + CKR_USER_ALREADY_LOGGED_IN},
        {CKR_VENDOR_DEFINED + 17, EU_ERROR_PKCS11 + 0xFFF}};
    for (const auto& [given, expected] : refusals) {
        layer::now.login = {given};
        EXPECT_EQ(opened_key(medium()).result, expected);
        layer::now.login = {given};
        EXPECT_EQ(generate(medium()), expected);
        layer::reset();
        const opened_key key(medium());
        layer::now = {.failAt = layer::calls + 1, .failure = CKR_SESSION_CLOSED, .login = {given}};
        EXPECT_EQ(key.sign(), expected); // no longer accepted when the session has to be renewed
    }
    EU_KEY_MEDIA endless = medium();
    std::fill(std::begin(endless.szPassword), std::end(endless.szPassword), '2');
    EXPECT_EQ(opened_key(endless).result, EU_ERROR_BAD_PARAMETER);
}

// Whatever was opened before, the right password opens and a wrong one does not, and a key that is
// open goes on signing after somebody else's failed attempt.
TEST(Password, AWrongOneNeverOpensInAnyOrder) {
    makeSigner();
    std::mt19937 random(7); // NOLINT(cert-msc51-cpp): the same walk every time
    std::vector<std::unique_ptr<opened_key>> open;
    for (int step = 0; step < 120; ++step) {
        const EU_KEY_MEDIA wrong = medium("13579" + std::to_string(random() % 10));
        switch (random() % 6) {
        case 0:
            open.push_back(std::make_unique<opened_key>(medium()));
            ASSERT_EQ(open.back()->result, EU_ERROR_NONE) << step;
            break;
        case 1: ASSERT_EQ(opened_key(wrong).result, EU_ERROR_PASSWORD_INCORRECT) << step; break;
        case 2: ASSERT_EQ(EUDestroyPrivateKey(&wrong), EU_ERROR_PASSWORD_INCORRECT) << step; break;
        case 3: ASSERT_EQ(generate(wrong), EU_ERROR_PASSWORD_INCORRECT) << step; break;
        case 4:
            if (!open.empty()) {
                open.erase(open.begin() + static_cast<long>(random() % open.size()));
            }
            break;
        default:
            for (const auto& key : open) { ASSERT_EQ(key->sign(), EU_ERROR_NONE) << step; }
            ASSERT_TRUE(holdsKey());
        }
    }
}

TEST(Key, LivesFromGenerationToDestruction) {
    layer::empty();
    EXPECT_FALSE(holdsKey());
    EXPECT_EQ(opened_key(medium()).result, EU_ERROR_KEY_NOT_FOUND);
    const EU_KEY_MEDIA media = medium();
    EXPECT_EQ(EUDestroyPrivateKey(&media), EU_ERROR_KEY_NOT_FOUND);
    made::bytes request;
    ASSERT_EQ(generate(media, &request), EU_ERROR_NONE);
    EXPECT_TRUE(holdsKey());
    EXPECT_EQ(opened_key(media).sign(), EU_ERROR_CERT_NOT_FOUND);
    EXPECT_EQ(generate(media), EU_ERROR_KEY_EXISTS);
    const auto certificate = made::der(certify(made::requested(request).get()));
    const made::key stranger(EVP_EC_gen("P-256"));
    certify(stranger.get());
    for (const BOOL append : {0, 1}) {
        made::bytes signature;
        EXPECT_EQ(opened_key(media).sign(append, &signature), EU_ERROR_NONE);
        EXPECT_EQ(verify({'d', 'a', 't', 'a'}, signature, certificate), EU_ERROR_NONE);
        EXPECT_EQ(signature.size() > certificate.size() + 200, append != 0);
    }
    EXPECT_EQ(layer::objectCount(), 6U);
    EXPECT_EQ(EUDestroyPrivateKey(&media), EU_ERROR_NONE);
    EXPECT_EQ(layer::objectCount(), 1U); // the stranger's certificate
}

TEST(Key, IsWhatTheTokenOffers) {
    layer::empty();
    layer::now.noCurves = true;
    made::bytes request;
    ASSERT_EQ(generate(medium(), &request), EU_ERROR_NONE);
    EXPECT_EQ(EVP_PKEY_get_bits(made::requested(request).get()), 3072);

    layer::empty();
    layer::now.refuseCopy = true;
    EXPECT_EQ(generate(medium()), EU_ERROR_NONE); // by a change instead
    EXPECT_EQ(layer::objectCount(), 4U);
    layer::empty();
    layer::now.refuseChange = layer::now.refuseCopy = true;
    EXPECT_EQ(generate(medium()), EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED);
    EXPECT_EQ(layer::objectCount(), 0U);
}

// How a call fails: once, or for good since the token has gone.
const struct {
    CK_RV result;
    bool forGood;
} mishaps[] = {
    {CKR_DEVICE_ERROR, false}, {CKR_DEVICE_REMOVED, true}, {CKR_TOKEN_NOT_PRESENT, true}};

// Lets every call of an operation fail, the k-th after what prepares the token. Whatever fails
// because the token has gone says so.
template <class Prepare, class Act, class Check>
void failEachCall(Prepare prepare, Act act, Check check) {
    for (const auto& [code, forGood] : mishaps) {
        bool reached = true;
        for (int k = 1; reached; ++k) {
            prepare();
            EXPECT_EQ(listMedia(), EU_ERROR_NONE);
            layer::reset();
            layer::now.failAt = k;
            layer::now.failure = code;
            layer::now.forGood = forGood;
            const DWORD result = act();
            reached = layer::calls >= k;
            layer::reset();
            SCOPED_TRACE(std::to_string(k) + " " + std::to_string(code));
            EXPECT_TRUE(reached || (k > 3 && result == EU_ERROR_NONE));
            EXPECT_TRUE(!forGood || !result || result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
            check(result);
        }
    }
}

TEST(Fault, GenerationLeavesAWholeKeyOrNone) {
    failEachCall([] { layer::empty(); }, [] { return generate(medium()); },
        [](DWORD result) {
            const bool made = result == EU_ERROR_NONE;
            EXPECT_EQ(holdsKey(), made);
            EXPECT_TRUE(
                made || result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED || layer::objectCount() == 0);
            EXPECT_EQ(generate(medium()), made ? EU_ERROR_KEY_EXISTS : EU_ERROR_NONE);
            const auto count = layer::objectCount(); // a key that was copied may be left
            EXPECT_TRUE(count == 4 || (made && count == 5)) << count;
        });
}

TEST(Fault, DestructionCanBeRepeated) {
    const EU_KEY_MEDIA media = medium();
    failEachCall([] { makeSigner(); }, [&] { return EUDestroyPrivateKey(&media); },
        [&](DWORD result) {
            EXPECT_EQ(holdsKey(), result != EU_ERROR_NONE);
            EXPECT_TRUE(result == EU_ERROR_NONE || EUDestroyPrivateKey(&media) == EU_ERROR_NONE);
            EXPECT_EQ(layer::objectCount(), 0U);
        });
}

TEST(Fault, TheKeyIsAsItWasBefore) {
    makeSigner();
    const EU_KEY_MEDIA media = medium();
    const opened_key key(media);
    const auto find = [&] {
        BOOL exists = 0;
        const DWORD result = EUIsPrivateKeyExists(&media, &exists);
        return result == EU_ERROR_NONE && exists == 0 ? EU_ERROR_KEY_NOT_FOUND : result;
    };
    for (const auto& act : std::initializer_list<std::function<DWORD()>>{
             find, [&] { return opened_key(media).result; }, [&] { return key.sign(); }}) {
        failEachCall([] {}, act, [&](DWORD) { EXPECT_EQ(key.sign(), EU_ERROR_NONE); });
    }
}

// A process killed in the middle of a generation leaves no key and nothing that is in the way, or,
// right before its end, a whole key beside the object that it was copied from.
TEST(Fault, AKilledGenerationDoesNotCount) {
    int survived = 0;
    for (int k = 1; survived == 0; ++k) {
        layer::empty();
        int status = 0;
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl(
                "/proc/self/exe", "euscp_test", "--generate", std::to_string(k).c_str(), nullptr);
            ::_exit(1);
        }
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        survived = WEXITSTATUS(status) == 0 ? k : 0;
        EXPECT_TRUE(survived != 0 || WEXITSTATUS(status) == 9) << WEXITSTATUS(status);
        const bool whole = layer::objectCount() == 5;
        EXPECT_EQ(holdsKey(), survived != 0 || whole) << k;
        EXPECT_EQ(generate(medium()), holdsKey() ? EU_ERROR_KEY_EXISTS : EU_ERROR_NONE) << k;
        EXPECT_EQ(layer::objectCount(), whole ? 5U : 4U) << k;
    }
    EXPECT_GT(survived, 20);
}

} // namespace

// Run by the killed-generation test: dies before the given call.
int generateAndDie(int call) {
    listMedia();
    layer::now.dieAt = layer::calls + call;
    return generate(medium()) == EU_ERROR_NONE ? 0 : 2;
}
