#include "token_layer.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <p11-kit/p11-kit.h>
#include <stdexcept>
#include <unistd.h>

namespace layer {

interference now;
int calls = 0;

namespace {

CK_FUNCTION_LIST* softhsm = nullptr;
CK_FUNCTION_LIST wrapped;
std::array<CK_FUNCTION_LIST*, 2> list{&wrapped, nullptr};

bool ofCurves(CK_MECHANISM_TYPE type) {
    return type == CKM_EC_KEY_PAIR_GEN || type == CKM_ECDSA || type == CKM_ECDH1_DERIVE;
}

CK_RV interfere() {
    ++calls;
    if (calls == now.dieAt) { ::_exit(9); }
    return calls == now.failAt ? now.failWith : CKR_OK;
}

// One function of the list, counted and made to fail, then passed on.
template <auto Member, class Function>
struct counted;
template <auto Member, class... Arguments>
struct counted<Member, CK_RV (*)(Arguments...)> {
    static CK_RV call(Arguments... arguments) {
        const CK_RV result = interfere();
        return result != CKR_OK ? result : (softhsm->*Member)(arguments...);
    }
};

template <auto... Members>
void wrap() {
    ((wrapped.*Members =
             counted<Members, std::remove_reference_t<decltype(wrapped.*Members)>>::call),
        ...);
}

CK_RV logIn(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
    if (!now.login.empty()) {
        const CK_RV result = now.login.front();
        now.login.erase(now.login.begin());
        return result;
    }
    const CK_RV result = interfere();
    return result != CKR_OK ? result : softhsm->C_Login(session, user, pin, length);
}

template <bool interference::*Refused, auto Member, class... Arguments>
CK_RV refusable(Arguments... arguments) {
    return now.*Refused ? CKR_ACTION_PROHIBITED
                        : counted<Member, CK_RV (*)(Arguments...)>::call(arguments...);
}

CK_RV mechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    return now.noCurves && ofCurves(type) ? CKR_MECHANISM_INVALID
                                          : softhsm->C_GetMechanismInfo(slot, type, info);
}

CK_RV tokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
    const CK_RV result = interfere();
    return now.absent ? CKR_TOKEN_NOT_PRESENT
                      : (result != CKR_OK ? result : softhsm->C_GetTokenInfo(slot, info));
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

// A session of the test's own; closed before the library is called, so no login stays.
class session {
public:
    explicit session(bool loggedIn) {
        std::array<CK_SLOT_ID, 8> slots{};
        CK_ULONG count = slots.size();
        must(loaded().C_GetSlotList(CK_TRUE, slots.data(), &count));
        must(softhsm->C_OpenSession(
            slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle));
        if (loggedIn) {
            const CK_RV result = softhsm->C_Login(handle, CKU_USER, pin(), std::strlen(password));
            must(result == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : result);
        }
    }
    ~session() { softhsm->C_CloseSession(handle); }
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    static CK_UTF8CHAR* pin() {
        return reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(password));
    }

    CK_SESSION_HANDLE handle = 0;
};

CK_BBOOL yes = CK_TRUE;

template <class T>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, T& value) {
    return {type, &value, sizeof value};
}

} // namespace

void reset() {
    now = interference{};
    calls = 0;
}

void useFolder(const std::string& folder) {
    std::filesystem::create_directories(folder + "/tokens");
    std::ofstream(folder + "/softhsm2.conf")
        << "directories.tokendir = " << folder << "/tokens\nlog.level = ERROR\n";
    ::setenv("SOFTHSM2_CONF", (folder + "/softhsm2.conf").c_str(), 1);
}

void makeToken(const std::string& label) {
    reset();
    std::array<CK_SLOT_ID, 8> slots{};
    CK_ULONG count = slots.size();
    must(loaded().C_GetSlotList(CK_TRUE, slots.data(), &count));
    std::string padded = label;
    padded.resize(32, ' ');
    auto* text = reinterpret_cast<CK_UTF8CHAR*>(padded.data());
    must(softhsm->C_InitToken(slots[0], session::pin(), std::strlen(password), text));
    const session officer(false);
    must(softhsm->C_Login(officer.handle, CKU_SO, session::pin(), std::strlen(password)));
    must(softhsm->C_InitPIN(officer.handle, session::pin(), std::strlen(password)));
    must(softhsm->C_Logout(officer.handle));
    std::array<char, EU_DESCRIPTION_SIZE> description{};
    must(EUEnumKeyMediaDevices(0, 0, description.data())); // the serial number is a new one
    reset();
}

EU_KEY_MEDIA medium(const std::string& pin) {
    EU_KEY_MEDIA media{};
    std::copy(pin.begin(), pin.end(), media.szPassword);
    return media;
}

std::size_t objectCount() {
    const session look(true);
    std::array<CK_OBJECT_HANDLE, 32> found{};
    CK_ULONG count = 0;
    must(softhsm->C_FindObjectsInit(look.handle, nullptr, 0));
    must(softhsm->C_FindObjects(look.handle, found.data(), found.size(), &count));
    must(softhsm->C_FindObjectsFinal(look.handle));
    return count;
}

void store(std::vector<unsigned char> certificate) {
    const session make(true);
    CK_OBJECT_CLASS type = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    unsigned char subject[2] = {0x30, 0x00};
    std::vector<CK_ATTRIBUTE> attributes{attribute(CKA_CLASS, type),
        attribute(CKA_CERTIFICATE_TYPE, x509), attribute(CKA_TOKEN, yes),
        attribute(CKA_SUBJECT, subject), {CKA_VALUE, certificate.data(), certificate.size()}};
    CK_OBJECT_HANDLE made = 0;
    must(softhsm->C_CreateObject(make.handle, attributes.data(), attributes.size(), &made));
}

} // namespace layer

using namespace layer;

void p11_kit_be_quiet() {}

char* p11_kit_config_option(CK_FUNCTION_LIST*, const char*) { return nullptr; }

CK_FUNCTION_LIST** p11_kit_modules_load(const char*, int) {
    wrapped = loaded();
    wrap<&CK_FUNCTION_LIST::C_GetSlotList, &CK_FUNCTION_LIST::C_OpenSession,
        &CK_FUNCTION_LIST::C_FindObjectsInit, &CK_FUNCTION_LIST::C_FindObjects,
        &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_GenerateKeyPair,
        &CK_FUNCTION_LIST::C_DestroyObject, &CK_FUNCTION_LIST::C_SignInit,
        &CK_FUNCTION_LIST::C_Sign>();
    wrapped.C_Login = logIn;
    wrapped.C_GetTokenInfo = tokenInfo;
    wrapped.C_GetMechanismInfo = mechanismInfo;
    wrapped.C_SetAttributeValue =
        refusable<&interference::refuseChange, &CK_FUNCTION_LIST::C_SetAttributeValue>;
    wrapped.C_CopyObject = refusable<&interference::refuseCopy, &CK_FUNCTION_LIST::C_CopyObject>;
    return list.data();
}

CK_RV p11_kit_module_initialize(CK_FUNCTION_LIST*) { return CKR_OK; }

CK_RV p11_kit_module_finalize(CK_FUNCTION_LIST*) { return softhsm->C_Finalize(nullptr); }

void p11_kit_modules_release(CK_FUNCTION_LIST**) {}
