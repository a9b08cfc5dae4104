// A key medium to test with: a SoftHSM token behind a module, in p11-kit's place, that counts the
// calls, makes them fail on demand and lets the token pass for others; and the library's calls for
// it, with just what the tests vary. Included once in a program.
#pragma once

#include "certificates.h"

#include <algorithm>
#include <array>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <p11-kit/p11-kit.h>
#include <span>
#include <stdexcept>

namespace made {

// What the slots show: one and the same token.
struct card {
    std::string label = "A";
    CK_FLAGS flags = CKF_TOKEN_INITIALIZED;
    std::string serial = "4711";
};
std::vector<card> cards(1);

struct nature {
    std::map<CK_MECHANISM_TYPE, CK_ULONG> offers{}; // up to that key size, if not what SoftHSM does
    CK_ATTRIBUTE_TYPE insists = 0;                  // what all key pairs have
    bool halves = false;  // pairs whose generation fails leave their private key
    bool isCurt = false;  // tells nothing where an object lacks one of the attributes, and of its
                          // kind of key only half
    bool isTwice = false; // at another module, too
    CK_ULONG longestPin = 0; // not told
    bool forgets = false;    // it is given objects of a session, which is faster
} token;

// What happens to the calls, until something else is assigned.
struct interference {
    int failAt = 0;                // the first call, counted from 1, that fails,
    int failures = 0;              // how many do in a row,
    CK_RV failure = CKR_OK;        // and how
    std::function<void()> event{}; // comes before the first one
    CK_RV refusal = CKR_OK;        // of all logins
    int calls = 0;                 // so far,
    int searches = 0, logins = 0;  // among them
} now;

CK_RV interfere() {
    const int past = ++now.calls - now.failAt;
    if (past == 0 && now.event) { now.event(); }
    return past >= 0 && past < now.failures ? now.failure : CKR_OK;
}

void must(CK_RV result) {
    if (result != CKR_OK) { throw std::runtime_error("PKCS#11 result " + std::to_string(result)); }
}

CK_SLOT_ID slot;
CK_FUNCTION_LIST* const softhsm = [] {
    CK_FUNCTION_LIST* functions = nullptr;
    void* library = ::dlopen("/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
    must(library == nullptr ? CKR_LIBRARY_LOAD_FAILED : CKR_OK);
    must(reinterpret_cast<CK_C_GetFunctionList>(::dlsym(library, "C_GetFunctionList"))(&functions));
    must(functions->C_Initialize(nullptr));
    CK_ULONG count = 2; // the other one waits for another token
    std::array<CK_SLOT_ID, 2> both{};
    must(functions->C_GetSlotList(CK_TRUE, both.data(), &count));
    return slot = both[0], functions;
}();

// An object's attributes.
using object = std::map<CK_ATTRIBUTE_TYPE, bytes>;

bytes number(CK_ULONG value) {
    const auto* raw = reinterpret_cast<const unsigned char*>(&value);
    return {raw, raw + sizeof value};
}

// What the tests themselves do with the token, logged in.
class maintenance {
public:
    maintenance() {
        constexpr auto flags = CKF_SERIAL_SESSION | CKF_RW_SESSION;
        must(softhsm->C_OpenSession(slot, flags, nullptr, nullptr, &session));
        bytes pin{'2', '4', '6', '8', '1', '0'};
        first = softhsm->C_Login(session, CKU_USER, pin.data(), pin.size()) == CKR_OK;
    }
    ~maintenance() {
        if (first) { softhsm->C_Logout(session); }
        softhsm->C_CloseSession(session);
    }

    std::vector<CK_OBJECT_HANDLE> find(object wanted) const {
        std::vector<CK_OBJECT_HANDLE> found(100);
        CK_ULONG count = 0;
        must(softhsm->C_FindObjectsInit(session, list(wanted).data(), wanted.size()));
        must(softhsm->C_FindObjects(session, found.data(), found.size(), &count));
        must(softhsm->C_FindObjectsFinal(session));
        return found.resize(count), found;
    }

    // Of an attribute that is given twice, the first value holds.
    void create(object with, const auto&... more) const {
        CK_OBJECT_HANDLE made = 0;
        (with.insert(more.begin(), more.end()), ...);
        with.insert({{CKA_TOKEN, {!token.forgets}}, {CKA_PRIVATE, {0}}});
        must(softhsm->C_CreateObject(session, list(with).data(), with.size(), &made));
    }

    CK_SESSION_HANDLE session = 0;

private:
    static std::vector<CK_ATTRIBUTE> list(object& of) {
        std::vector<CK_ATTRIBUTE> all;
        for (auto& [type, value] : of) { all.push_back({type, value.data(), value.size()}); }
        return all;
    }

    bool first; // that logs in
};

std::size_t count(const object& wanted = {}) { return maintenance().find(wanted).size(); }

// Takes all objects off the token, or those that have all that is wanted.
void empty(const object& wanted = {}) {
    const maintenance with;
    for (const auto each : with.find(wanted)) {
        must(softhsm->C_DestroyObject(with.session, each));
    }
}

object certificateOf(const bytes& value) {
    return {{CKA_CLASS, number(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, number(CKC_X_509)},
        {CKA_SUBJECT, {0}}, {CKA_VALUE, value}};
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

// The module: all that may fail is counted first, and made to, before it is passed on.
CK_FUNCTION_LIST passedOn = *softhsm, module = passedOn;

template <auto Member, class... Arguments>
CK_RV counted(Arguments... arguments) {
    const CK_RV result = interfere();
    return result != CKR_OK ? result : (passedOn.*Member)(arguments...);
}

template <auto... Members>
void wrap() {
    ((module.*Members = counted<Members>), ...);
}

CK_FUNCTION_LIST* firstModule() {
    module.C_GetFunctionList = [](auto) { return CK_RV{CKR_OK}; }; // it is a file of its own
    passedOn.C_GetSlotList = [](auto, CK_SLOT_ID* list, CK_ULONG* count) {
        for (CK_SLOT_ID i = 0; list != nullptr && i < cards.size(); ++i) { list[i] = i; }
        return *count = cards.size(), CK_RV{CKR_OK};
    };
    passedOn.C_GetTokenInfo = [](CK_SLOT_ID at, CK_TOKEN_INFO* told) {
        *told = {};
        told->flags = cards.at(at).flags;
        told->ulMinPinLen = 4;
        told->ulMaxPinLen = token.longestPin;
        std::ranges::copy(cards.at(at).label, told->label);
        std::ranges::copy(cards.at(at).serial + "  ", told->serialNumber);
        return CK_RV{CKR_OK};
    };
    passedOn.C_GetMechanismInfo = [](auto, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* told) {
        if (token.offers.empty()) { return softhsm->C_GetMechanismInfo(slot, type, told); }
        if (!token.offers.contains(type)) { return CK_RV{CKR_MECHANISM_INVALID}; }
        return told->ulMaxKeySize = token.offers[type], CK_RV{CKR_OK};
    };
    passedOn.C_OpenSession = [](auto, auto flags, auto its, auto notify, auto opened) {
        return softhsm->C_OpenSession(slot, flags, its, notify, opened);
    };
    passedOn.C_Login = [](auto session, auto user, auto pin, auto length) {
        ++now.logins;
        return now.refusal != 0 ? now.refusal : softhsm->C_Login(session, user, pin, length);
    };
    passedOn.C_FindObjectsInit = [](auto session, auto wanted, auto count) {
        ++now.searches; // CKA_TOKEN is what is wanted last
        return softhsm->C_FindObjectsInit(session, wanted, token.forgets ? count - 1 : count);
    };
    passedOn.C_GetAttributeValue = [](auto session, auto of, CK_ATTRIBUTE* asked, auto count) {
        const std::vector<CK_ATTRIBUTE> before(asked, asked + count);
        const CK_RV result = softhsm->C_GetAttributeValue(session, of, asked, count);
        if (token.isCurt && result == CKR_ATTRIBUTE_TYPE_INVALID) {
            std::ranges::copy(before, asked);
        }
        const auto kind =
            std::ranges::find(asked, asked + count, CKA_KEY_TYPE, &CK_ATTRIBUTE::type);
        if (token.isCurt && kind != asked + count) { kind->ulValueLen = sizeof(CK_ULONG) / 2; }
        return result;
    };
    module.C_Initialize = [](void* with) { // it has been
        return CK_RV{with != nullptr ? CKR_OK : CKR_ARGUMENTS_BAD};
    };
    module.C_GenerateKeyPair = generatePair;
    using list = CK_FUNCTION_LIST;
    wrap<&list::C_GetSlotList, &list::C_GetTokenInfo, &list::C_GetMechanismInfo,
        &list::C_OpenSession, &list::C_Login, &list::C_FindObjectsInit, &list::C_FindObjects,
        &list::C_GetAttributeValue, &list::C_SetAttributeValue, &list::C_CopyObject,
        &list::C_DestroyObject, &list::C_SignInit, &list::C_Sign>();
    return &module;
}

constexpr EU_KEY_MEDIA medium(const char* password) {
    EU_KEY_MEDIA named{};
    std::copy_n(password, std::char_traits<char>::length(password), named.szPassword);
    return named;
}
constexpr EU_KEY_MEDIA right = medium("246810"), wrong = medium("135790");

// Has the media listed anew, as the calls for one want it.
DWORD list() {
    std::array<char, EU_DESCRIPTION_SIZE> text{};
    return EUEnumKeyMediaDevices(0, 0, text.data());
}

DWORD find() {
    BOOL exists = 0;
    const DWORD result = EUIsPrivateKeyExists(&right, &exists);
    return result == EU_ERROR_NONE && exists == 0 ? EU_ERROR_KEY_NOT_FOUND : result;
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

    // The certificate is in the signature.
    DWORD sign(bytes* made = nullptr) const {
        BYTE* signature = nullptr;
        DWORD size = 0;
        const DWORD code = EUCtxSignData(key, 1, data.data(), data.size(), 1, 1, &signature, &size);
        if (made != nullptr) { made->assign(signature, signature + size); }
        EUFreeMemory(signature);
        return code;
    }

    DWORD result;
    void* key = nullptr;

private:
    void* context = nullptr;
};

DWORD sign(bytes* made = nullptr, const EU_KEY_MEDIA& media = right) {
    const opened_key with(media);
    return with.result == EU_ERROR_NONE ? with.sign(made) : with.result;
}

DWORD generate(const EU_KEY_MEDIA& media = right, bytes* requests = nullptr,
    const void* parameters = nullptr) {
    BYTE *ds = nullptr, *kep = nullptr;
    DWORD dsSize = 0, kepSize = 0;
    std::array<std::array<char, EU_REQUEST_NAME_SIZE>, 2> names{};
    const DWORD result = EUGeneratePrivateKeyEx(&media, 1, 1, 2, 2, nullptr, 0, 2, parameters,
        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &ds, &dsSize, names[0].data(), &kep,
        &kepSize, names[1].data(), nullptr, nullptr, nullptr);
    EXPECT_STREQ(names[0].data(), result == EU_ERROR_NONE ? "DS.p10" : "");
    EXPECT_STREQ(names[1].data(), result == EU_ERROR_NONE ? "KEP.p10" : "");
    if (requests != nullptr) {
        requests->assign(ds, ds + dsSize);
        requests->insert(requests->end(), kep, kep + kepSize);
    }
    EUFreeMemory(ds);
    EUFreeMemory(kep);
    return result;
}

DWORD destroy(const EU_KEY_MEDIA& media = right) { return EUDestroyPrivateKey(&media); }

} // namespace made

void p11_kit_be_loud() {}

void p11_kit_be_quiet() {}

char* p11_kit_module_get_name(CK_FUNCTION_LIST* of) {
    return ::strdup(of == &made::module ? "one" : std::string(247, 'n').c_str());
}

char* p11_kit_config_option(CK_FUNCTION_LIST* of, const char* name) {
    const bool holdsPolicy = of == &made::passedOn && std::string(name) == "trust-policy";
    return holdsPolicy ? ::strdup("yes") : nullptr;
}

CK_FUNCTION_LIST** p11_kit_modules_load(const char*, int flags) {
    auto* const first = made::firstModule();
    static CK_FUNCTION_LIST second = *first;
    second.C_GetSlotList = [](auto, CK_SLOT_ID* list, CK_ULONG* count) {
        if (made::token.isTwice) { return made::passedOn.C_GetSlotList(CK_TRUE, list, count); }
        return *count = 0, CK_RV{CKR_OK};
    };
    static CK_FUNCTION_LIST* all[]{first, first, &second, &made::passedOn, nullptr};
    return flags == 0 ? &all[4] : all; // none that p11-kit manages
}

void p11_kit_modules_release(CK_FUNCTION_LIST**) {}
