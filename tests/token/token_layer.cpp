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
std::string certificateFile;

bool ofCurves(CK_MECHANISM_TYPE type) {
    return type == CKM_EC_KEY_PAIR_GEN || type == CKM_ECDSA || type == CKM_ECDH1_DERIVE;
}

CK_RV interfere() {
    ++calls;
    if (calls == now.dieAt) { ::_exit(9); }
    return calls == now.failAt ? CKR_DEVICE_ERROR : CKR_OK;
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

CK_UTF8CHAR* pin() { return reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(password)); }

// The objects on the token, which are destroyed on demand.
CK_ULONG countObjects(bool destroying) {
    std::array<CK_SLOT_ID, 8> slots{};
    std::array<CK_OBJECT_HANDLE, 32> found{};
    CK_ULONG count = slots.size();
    CK_SESSION_HANDLE session = 0;
    must(loaded().C_GetSlotList(CK_TRUE, slots.data(), &count));
    must(softhsm->C_OpenSession(
        slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
    const CK_RV login = softhsm->C_Login(session, CKU_USER, pin(), std::strlen(password));
    must(login == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : login);
    must(softhsm->C_FindObjectsInit(session, nullptr, 0));
    must(softhsm->C_FindObjects(session, found.data(), found.size(), &count));
    must(softhsm->C_FindObjectsFinal(session));
    for (CK_ULONG i = 0; destroying && i < count; ++i) {
        must(softhsm->C_DestroyObject(session, found[i]));
    }
    must(softhsm->C_CloseSession(session));
    return count;
}

void shell(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        throw std::runtime_error(command);
    }
}

} // namespace

void reset() {
    now = interference{};
    calls = 0;
}

void makeToken(const std::string& folder) {
    std::filesystem::create_directories(folder + "/tokens");
    std::ofstream(folder + "/softhsm2.conf")
        << "directories.tokendir = " << folder << "/tokens\nlog.level = ERROR\n";
    ::setenv("SOFTHSM2_CONF", (folder + "/softhsm2.conf").c_str(), 1);
    shell("softhsm2-util --init-token --free --label Alice --so-pin 12345678 --pin " +
          std::string(password));
    certificateFile = folder + "/certificate";
}

void empty() {
    countObjects(true);
    reset();
}

EU_KEY_MEDIA medium(const std::string& pin) {
    EU_KEY_MEDIA media{};
    std::copy(pin.begin(), pin.end(), media.szPassword);
    return media;
}

std::size_t objectCount() { return countObjects(false); }

void store(const std::vector<unsigned char>& certificate) {
    std::ofstream(certificateFile, std::ios::binary)
        .write(reinterpret_cast<const char*>(certificate.data()),
            static_cast<std::streamsize>(certificate.size()));
    shell("pkcs11-tool --module " SOFTHSM_PATH " --token-label Alice --login --pin " +
          std::string(password) + " --write-object " + certificateFile + " --type cert");
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
