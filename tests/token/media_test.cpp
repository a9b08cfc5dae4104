// Passwords, signatures, and the life of a key on a SoftHSM token, behind a layer that counts every
// PKCS#11 call and makes it fail on demand.

#include "library.h"

#include <algorithm>
#include <dlfcn.h>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <utility>

namespace {

using made::list, made::opened_key;

constexpr EU_KEY_MEDIA right{.dwTypeIndex = 0, .dwDevIndex = 0, .szPassword = "246810"};
constexpr EU_KEY_MEDIA wrong{.dwTypeIndex = 0, .dwDevIndex = 0, .szPassword = "135790"};

// That many failures are the token's removal: no slot holds one either.
constexpr int for_good = 1'000'000;

// What happens to the calls, until something else is assigned.
struct interference {
    int failAt = 0;         // the first call, counted from 1, that fails,
    int failures = 0;       // how many do in a row,
    CK_RV failure = CKR_OK; // and how
    CK_RV login = CKR_OK;   // how the next login fails
    int calls = 0;          // so far
} now;

struct nature {
    CK_ULONG largestRsa = 0;       // in bits, where no keys on curves are offered
    CK_ATTRIBUTE_TYPE insists = 0; // what all key pairs have
    bool halves = false;           // pairs whose generation fails leave their private key
} token;

void must(CK_RV result) {
    if (result != CKR_OK) { throw std::runtime_error("PKCS#11 result " + std::to_string(result)); }
}

CK_FUNCTION_LIST* const softhsm = [] {
    CK_FUNCTION_LIST* functions = nullptr;
    void* library = ::dlopen(SOFTHSM_PATH, RTLD_NOW | RTLD_LOCAL);
    must(library == nullptr ? CKR_LIBRARY_LOAD_FAILED : CKR_OK);
    must(reinterpret_cast<CK_C_GetFunctionList>(::dlsym(library, "C_GetFunctionList"))(&functions));
    must(functions->C_Initialize(nullptr));
    return functions;
}();
CK_FUNCTION_LIST wrapped;

CK_RV interfere() {
    const int past = ++now.calls - now.failAt;
    return past >= 0 && past < now.failures ? now.failure : CKR_OK;
}

// A function of the list, counted and made to fail, or passed on.
template <auto Member, class... Arguments>
CK_RV counted(Arguments... arguments) {
    const CK_RV result = interfere();
    return result != CKR_OK ? result : (softhsm->*Member)(arguments...);
}

template <auto... Members>
void wrap() {
    ((wrapped.*Members = counted<Members>), ...);
}

// A token that went away leaves its slot, which is no failure of the module.
CK_RV slotList(CK_BBOOL present, CK_SLOT_ID* slots, CK_ULONG* count) {
    const CK_RV result = interfere();
    if (result != CKR_OK && now.failures == for_good) { return *count = 0, CKR_OK; }
    return result != CKR_OK ? result : softhsm->C_GetSlotList(present, slots, count);
}

CK_RV mechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    const bool ofCurves = (type & ~0xFFUL) == (CKM_EC_KEY_PAIR_GEN & ~0xFFUL);
    const CK_RV result = token.largestRsa != 0 && ofCurves ? CKR_MECHANISM_INVALID : interfere();
    const bool limited = result == CKR_OK && token.largestRsa != 0;
    if (limited) { return info->ulMaxKeySize = token.largestRsa, CKR_OK; }
    return result != CKR_OK ? result : softhsm->C_GetMechanismInfo(slot, type, info);
}

CK_RV generatePair(CK_SESSION_HANDLE session, CK_MECHANISM* with, CK_ATTRIBUTE* publicPart,
    CK_ULONG publicSize, CK_ATTRIBUTE* privatePart, CK_ULONG privateSize,
    CK_OBJECT_HANDLE* publicKey, CK_OBJECT_HANDLE* privateKey) {
    const CK_RV result = interfere();
    if (result != CKR_OK && !token.halves) { return result; }
    CK_BBOOL yes = CK_TRUE;
    for (const auto& part : {std::span(publicPart, publicSize), {privatePart, privateSize}}) {
        const auto found = std::ranges::find(part, token.insists, &CK_ATTRIBUTE::type);
        if (found != part.end()) { found->pValue = &yes; }
    }
    const CK_RV made = softhsm->C_GenerateKeyPair(
        session, with, publicPart, publicSize, privatePart, privateSize, publicKey, privateKey);
    if (result != CKR_OK) { softhsm->C_DestroyObject(session, *publicKey); }
    return result != CKR_OK ? result : made;
}

CK_RV logIn(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
    const CK_RV refused = std::exchange(now.login, CKR_OK);
    const CK_RV result = refused != CKR_OK ? refused : interfere();
    return result != CKR_OK ? result : softhsm->C_Login(session, user, pin, length);
}

// A session of the layer's own, logged in.
class maintenance {
public:
    maintenance() {
        std::array<CK_SLOT_ID, 8> slots{};
        CK_ULONG count = slots.size();
        must(softhsm->C_GetSlotList(CK_TRUE, slots.data(), &count));
        must(softhsm->C_OpenSession(
            slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
        std::array<CK_UTF8CHAR, 6> pin{'2', '4', '6', '8', '1', '0'};
        const CK_RV login = softhsm->C_Login(session, CKU_USER, pin.data(), pin.size());
        must(login == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : login);
    }
    ~maintenance() { softhsm->C_CloseSession(session); }

    std::vector<CK_OBJECT_HANDLE> objects(std::vector<CK_ATTRIBUTE> wanted) const {
        std::vector<CK_OBJECT_HANDLE> found(32);
        CK_ULONG count = 0;
        must(softhsm->C_FindObjectsInit(session, wanted.data(), wanted.size()));
        must(softhsm->C_FindObjects(session, found.data(), found.size(), &count));
        must(softhsm->C_FindObjectsFinal(session));
        found.resize(count);
        return found;
    }

    CK_SESSION_HANDLE session = 0;
};

// Takes all objects off the token, or those that have all that is wanted.
void empty(std::vector<CK_ATTRIBUTE> wanted = {}) {
    const maintenance with;
    for (const auto object : with.objects(wanted)) {
        must(softhsm->C_DestroyObject(with.session, object));
    }
}

std::size_t objectCount() { return maintenance().objects({}).size(); }

void store(std::vector<unsigned char> certificate) {
    CK_OBJECT_CLASS kind = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE type = CKC_X_509;
    CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
    std::array<CK_ATTRIBUTE, 6> parts{{{CKA_CLASS, &kind, sizeof kind},
        {CKA_CERTIFICATE_TYPE, &type, sizeof type}, {CKA_TOKEN, &yes, 1}, {CKA_PRIVATE, &no, 1},
        {CKA_SUBJECT, &no, 1}, {CKA_VALUE, certificate.data(), certificate.size()}}};
    CK_OBJECT_HANDLE made = 0;
    const maintenance with;
    must(softhsm->C_CreateObject(with.session, parts.data(), parts.size(), &made));
}

using calls = std::vector<std::function<DWORD()>>;

DWORD find() { return made::find(right); }

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

// A token with a key, its certificate, which is returned, and a stranger's.
made::certificate makeSigner() {
    empty();
    made::bytes request;
    EXPECT_EQ(generate(right, &request), EU_ERROR_NONE);
    const unsigned char* start = request.data();
    const std::unique_ptr<X509_REQ, made::freed<X509_REQ_free>> parsed(
        d2i_X509_REQ(nullptr, &start, std::ssize(request)));
    auto own = made::issue(X509_REQ_get0_pubkey(parsed.get()));
    store(made::der(own));
    const made::key stranger(made::p256());
    store(made::der(made::issue(stranger.get(), "critical,keyAgreement")));
    return own;
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
        const opened_key key(right);
        now = {.failAt = 1, .failures = 1, .failure = CKR_SESSION_CLOSED, .login = given};
        EXPECT_EQ(key.sign(), expected); // no longer accepted when the session has to be renewed
    }
}

// Nor does it close a key that is open, somebody else's.
TEST(Password, AWrongOneOpensNothingThatIsOpenAlready) {
    makeSigner();
    const opened_key key(right);
    for (const auto& attempt : calls{[] { return opened_key(wrong).result; },
             [] { return EUDestroyPrivateKey(&wrong); }, [] { return generate(wrong); }}) {
        EXPECT_EQ(attempt(), EU_ERROR_PASSWORD_INCORRECT);
        EXPECT_EQ(key.sign(), EU_ERROR_NONE);
    }
}

TEST(Key, IsWhatTheTokenOffersAndSigns) {
    for (const auto& [largestRsa, bits] :
        std::map<CK_ULONG, int>{{0, 256}, {3072, 3072}, {2048, 2048}}) {
        token.largestRsa = largestRsa;
        const auto own = makeSigner();
        EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(own.get())), bits);
        made::bytes signature;
        EXPECT_EQ(opened_key(right).sign(&signature), EU_ERROR_NONE);
        EXPECT_EQ(made::verify(made::data, signature, made::der(own)), EU_ERROR_NONE);
        EXPECT_GT(signature.size(), made::der(own).size() + 200); // which is inside
    }
    empty();
    token.largestRsa = 2047;
    EXPECT_EQ(generate(), EU_ERROR_KEY_MEDIAS_NO_MECHANISM);
    token = {.insists = CKA_EXTRACTABLE};
    EXPECT_EQ(generate(), EU_ERROR_KEY_MEDIAS_EXTRACTABLE);
    EXPECT_EQ(objectCount(), 0U);
    token = {};
}

// A generation that was cut short leaves one private key, which nothing tells of.
TEST(Key, AloneIsALeftoverUnlessItsCertificateOrItsSisterIsThere) {
    CK_OBJECT_CLASS certificates = CKO_CERTIFICATE, publicKeys = CKO_PUBLIC_KEY;
    std::array<char, 3> sister{'K', 'E', 'P'};
    for (const int left : {0, 1, 2}) {
        makeSigner();
        empty({{CKA_CLASS, &publicKeys, sizeof publicKeys}});
        if (left != 1) { empty({{CKA_CLASS, &certificates, sizeof certificates}}); }
        if (left != 2) { empty({{CKA_LABEL, sister.data(), sister.size()}}); }
        store(made::der(made::issue(made::key(made::p256()).get())));
        EXPECT_EQ(generate(), left == 0 ? EU_ERROR_NONE : EU_ERROR_KEY_EXISTS) << left;
        EXPECT_EQ(objectCount(), left == 0 ? 5U : left == 1 ? 4U : 3U);
    }
}

// Lets every call of an operation fail, the k-th after what prepares the token: once, with what
// may be tried instead, or for good since the token has gone, which is then told.
template <class Prepare, class Act, class Check>
void failEachCall(Prepare prepare, Act act, Check check) {
    for (const auto& [failures, code] : std::map<int, CK_RV>{{1, CKR_USER_TYPE_INVALID},
             {2, CKR_ACTION_PROHIBITED}, {for_good, CKR_DEVICE_REMOVED}}) {
        bool reached = true;
        for (int k = 1; reached; ++k) {
            prepare();
            EXPECT_EQ(list(), EU_ERROR_NONE);
            now = {.failAt = k, .failures = failures, .failure = code};
            const DWORD result = act();
            reached = now.calls >= k;
            now = {};
            SCOPED_TRACE(std::to_string(k) + " " + std::to_string(code));
            EXPECT_TRUE(reached || (k > 3 && result == EU_ERROR_NONE));
            EXPECT_TRUE(failures != for_good || result == EU_ERROR_NONE ||
                        result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
            check(result);
        }
    }
}

// Private keys may be made first, and all public keys be let to verify.
const nature natures[]{{.halves = true}, {.insists = CKA_VERIFY, .halves = true}};

TEST(Fault, GenerationLeavesAWholeKeyOrNone) {
    // Where a call that removes something fails, it stays until the next generation.
    const std::set<DWORD> leaving{
        EU_ERROR_NONE, EU_ERROR_KEY_MEDIAS_ACCESS_FAILED, EU_ERROR_PKCS11 + CKR_ACTION_PROHIBITED};
    for (const auto& nature : natures) {
        std::map<DWORD, int> results;
        token = nature;
        const auto check = [&](DWORD result) {
            const bool made = result == EU_ERROR_NONE, shows = find() == EU_ERROR_NONE;
            ++results[result];
            EXPECT_TRUE(shows == made || (nature.insists != 0 && leaving.contains(result)));
            EXPECT_TRUE(leaving.contains(result) || objectCount() == 0);
            EXPECT_EQ(generate(), shows ? EU_ERROR_KEY_EXISTS : EU_ERROR_NONE);
            EXPECT_TRUE(made || !shows || EUDestroyPrivateKey(&right) + generate() == 0);
            const auto count = objectCount(); // a key that was copied may be left
            EXPECT_TRUE(count == 4 || (made && count == 5)) << count;
        };
        failEachCall([] { empty(); }, [] { return generate(); }, check);
        EXPECT_EQ(results[EU_ERROR_KEY_MEDIAS_ADMINISTRATOR], 2); // may generate a pair
        // Where the token allows neither a copy nor a change.
        EXPECT_EQ(results[EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED], nature.insists == 0);
    }
    token = {};
}

TEST(Fault, DestructionCanBeRepeated) {
    for (const auto& nature : natures) {
        token = nature;
        failEachCall([] { makeSigner(); }, [] { return EUDestroyPrivateKey(&right); },
            [](DWORD result) {
                const DWORD there =
                    result == EU_ERROR_NONE ? EU_ERROR_KEY_NOT_FOUND : EU_ERROR_NONE;
                EXPECT_EQ(find(), there);
                EXPECT_EQ(EUDestroyPrivateKey(&right), there);
                EXPECT_EQ(objectCount(), 1U); // the stranger's certificate
            });
    }
    token = {};
}

TEST(Fault, TheKeyIsAsItWasBefore) {
    makeSigner();
    const opened_key key(right);
    for (const auto& act :
        calls{find, [] { return list() == EU_ERROR_NONE ? EU_ERROR_NONE : find(); },
            [] { return opened_key(right).result; }, [&] { return key.sign(); }}) {
        failEachCall([] {}, act, [&](DWORD) { EXPECT_EQ(key.sign(), EU_ERROR_NONE); });
    }
}

} // namespace

CK_FUNCTION_LIST* onlyModule() {
    wrapped = *softhsm;
    wrap<&CK_FUNCTION_LIST::C_GetTokenInfo, &CK_FUNCTION_LIST::C_OpenSession,
        &CK_FUNCTION_LIST::C_FindObjectsInit, &CK_FUNCTION_LIST::C_FindObjects,
        &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_SetAttributeValue,
        &CK_FUNCTION_LIST::C_CopyObject, &CK_FUNCTION_LIST::C_DestroyObject,
        &CK_FUNCTION_LIST::C_SignInit, &CK_FUNCTION_LIST::C_Sign>();
    wrapped.C_Initialize = [](void*) { return CK_RV{CKR_OK}; }; // it has been
    wrapped.C_Login = logIn;
    wrapped.C_GenerateKeyPair = generatePair;
    wrapped.C_GetSlotList = slotList;
    wrapped.C_GetMechanismInfo = mechanismInfo;
    return &wrapped;
}
