#include "token_layer.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <p11-kit/p11-kit.h>
#include <stdexcept>
#include <string>
#include <utility>

namespace layer {

interference now;

namespace {

CK_FUNCTION_LIST* softhsm = nullptr;
CK_FUNCTION_LIST wrapped;
std::array<CK_FUNCTION_LIST*, 2> list{&wrapped, nullptr};

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
    const CK_RV result = now.noCurves && ofCurves ? CKR_MECHANISM_INVALID : interfere();
    return result != CKR_OK ? result : softhsm->C_GetMechanismInfo(slot, type, info);
}

CK_RV logIn(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
    const CK_RV refused = std::exchange(now.login, CKR_OK);
    const CK_RV result = refused != CKR_OK ? refused : interfere();
    return result != CKR_OK ? result : softhsm->C_Login(session, user, pin, length);
}

void must(CK_RV result) {
    if (result != CKR_OK) { throw std::runtime_error("PKCS#11 result " + std::to_string(result)); }
}

CK_FUNCTION_LIST& loaded() {
    if (softhsm == nullptr) {
        void* library = ::dlopen(SOFTHSM_PATH, RTLD_NOW | RTLD_LOCAL);
        must(library == nullptr ? CKR_LIBRARY_LOAD_FAILED : CKR_OK);
        auto* entry = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(library, "C_GetFunctionList"));
        must(entry(&softhsm));
        must(softhsm->C_Initialize(nullptr));
    }
    return *softhsm;
}

// A session of the layer's own, logged in.
class maintenance {
public:
    maintenance() {
        std::array<CK_SLOT_ID, 8> slots{};
        CK_ULONG count = slots.size();
        must(loaded().C_GetSlotList(CK_TRUE, slots.data(), &count));
        must(softhsm->C_OpenSession(
            slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
        std::array<CK_UTF8CHAR, 6> pin{};
        std::memcpy(pin.data(), right.szPassword, pin.size());
        const CK_RV login = softhsm->C_Login(session, CKU_USER, pin.data(), pin.size());
        must(login == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : login);
    }
    ~maintenance() { softhsm->C_CloseSession(session); }

    std::vector<CK_OBJECT_HANDLE> objects() const {
        std::vector<CK_OBJECT_HANDLE> found(32);
        CK_ULONG count = 0;
        must(softhsm->C_FindObjectsInit(session, nullptr, 0));
        must(softhsm->C_FindObjects(session, found.data(), found.size(), &count));
        must(softhsm->C_FindObjectsFinal(session));
        found.resize(count);
        return found;
    }

    CK_SESSION_HANDLE session = 0;
};

} // namespace

void empty() {
    const maintenance with;
    for (const auto object : with.objects()) {
        must(softhsm->C_DestroyObject(with.session, object));
    }
}

std::size_t objectCount() { return maintenance().objects().size(); }

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

} // namespace layer

using namespace layer;

void p11_kit_be_quiet() {}

char* p11_kit_config_option(CK_FUNCTION_LIST*, const char*) { return nullptr; }

CK_FUNCTION_LIST** p11_kit_modules_load(const char*, int) {
    wrapped = loaded();
    if (const char* fail = std::getenv("LAYER_FAIL")) { // "call:result", from that call on
        std::sscanf(fail, "%d:%lx", &now.failAt, &now.failure);
        now.failures = for_good;
    }
    if (const char* login = std::getenv("LAYER_LOGIN")) { // the result of the first one
        now.login = std::strtoul(login, nullptr, 16);
    }
    wrap<&CK_FUNCTION_LIST::C_GetTokenInfo, &CK_FUNCTION_LIST::C_OpenSession,
        &CK_FUNCTION_LIST::C_FindObjectsInit, &CK_FUNCTION_LIST::C_FindObjects,
        &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_SetAttributeValue,
        &CK_FUNCTION_LIST::C_GenerateKeyPair, &CK_FUNCTION_LIST::C_CopyObject,
        &CK_FUNCTION_LIST::C_DestroyObject, &CK_FUNCTION_LIST::C_SignInit,
        &CK_FUNCTION_LIST::C_Sign>();
    wrapped.C_Login = logIn;
    wrapped.C_GetSlotList = slotList;
    wrapped.C_GetMechanismInfo = mechanismInfo;
    return list.data();
}

CK_RV p11_kit_module_initialize(CK_FUNCTION_LIST*) { return CKR_OK; }

CK_RV p11_kit_module_finalize(CK_FUNCTION_LIST*) { return softhsm->C_Finalize(nullptr); }

void p11_kit_modules_release(CK_FUNCTION_LIST**) {}
