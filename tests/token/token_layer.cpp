#include "token_layer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/params.h>
#include <openssl/x509.h>
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
    if (calls == now.dieAt) {
        ::_exit(9);
    }
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
    if (result != CKR_OK) {
        throw std::runtime_error("PKCS#11 result " + std::to_string(result));
    }
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
            slots[0],
            CKF_SERIAL_SESSION | CKF_RW_SESSION,
            nullptr,
            nullptr,
            &handle));
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

    std::vector<CK_OBJECT_HANDLE> find(std::vector<CK_ATTRIBUTE> wanted) const {
        std::vector<CK_OBJECT_HANDLE> found(32);
        CK_ULONG count = 0;
        must(softhsm->C_FindObjectsInit(handle, wanted.data(), wanted.size()));
        must(softhsm->C_FindObjects(handle, found.data(), found.size(), &count));
        must(softhsm->C_FindObjectsFinal(handle));
        found.resize(count);
        return found;
    }

    std::vector<unsigned char> value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
        std::vector<unsigned char> bytes(1024);
        CK_ATTRIBUTE attribute{type, bytes.data(), bytes.size()};
        must(softhsm->C_GetAttributeValue(handle, object, &attribute, 1));
        bytes.resize(attribute.ulValueLen);
        return bytes;
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

std::vector<object> objects() {
    const session look(true);
    std::vector<object> found;
    for (const CK_OBJECT_HANDLE each : look.find({})) {
        const auto label = look.value(each, CKA_LABEL);
        CK_OBJECT_CLASS type = 0;
        std::memcpy(&type, look.value(each, CKA_CLASS).data(), sizeof type);
        found.push_back({type, {label.begin(), label.end()}});
    }
    return found;
}

void provision(CK_MECHANISM_TYPE type, int curve, bool alwaysAuthenticate) {
    const session make(true);
    CK_MECHANISM mechanism{type, nullptr, 0};
    std::array<unsigned char, 3> id{7, 7, 7};
    std::array<unsigned char, 3> exponent{1, 0, 1};
    CK_ULONG bits = 2048;
    CK_BBOOL always = alwaysAuthenticate ? CK_TRUE : CK_FALSE;
    std::vector<CK_ATTRIBUTE> shown{
        attribute(CKA_TOKEN, yes),
        attribute(CKA_VERIFY, yes),
        attribute(CKA_ID, id)};
    std::vector<CK_ATTRIBUTE> hidden{
        attribute(CKA_TOKEN, yes),
        attribute(CKA_PRIVATE, yes),
        attribute(CKA_SIGN, yes),
        attribute(CKA_ALWAYS_AUTHENTICATE, always),
        attribute(CKA_ID, id)};
    std::array<unsigned char, 32> oid{};
    if (type == CKM_EC_KEY_PAIR_GEN) {
        unsigned char* end = oid.data();
        const int size = i2d_ASN1_OBJECT(OBJ_nid2obj(curve), &end);
        shown.push_back({CKA_EC_PARAMS, oid.data(), static_cast<CK_ULONG>(size)});
    } else {
        shown.push_back(attribute(CKA_MODULUS_BITS, bits));
        shown.push_back(attribute(CKA_PUBLIC_EXPONENT, exponent));
    }
    std::array<CK_OBJECT_HANDLE, 2> pair{};
    must(softhsm->C_GenerateKeyPair(
        make.handle,
        &mechanism,
        shown.data(),
        shown.size(),
        hidden.data(),
        hidden.size(),
        &pair[0],
        &pair[1]));
}

key_ptr provisionedKey() {
    const session look(true);
    CK_OBJECT_CLASS type = CKO_PUBLIC_KEY;
    const CK_OBJECT_HANDLE object = look.find({attribute(CKA_CLASS, type)}).at(0);
    const bool rsa = look.value(object, CKA_KEY_TYPE).at(0) == CKK_RSA;
    std::vector<OSSL_PARAM> parameters;
    std::vector<unsigned char> first;
    std::vector<unsigned char> second;
    std::string group;
    if (rsa) {
        first = look.value(object, CKA_MODULUS);
        std::reverse(first.begin(), first.end()); // OpenSSL takes the host's byte order
        second = {1, 0, 1};
        parameters.push_back(OSSL_PARAM_construct_BN("n", first.data(), first.size()));
        parameters.push_back(OSSL_PARAM_construct_BN("e", second.data(), second.size()));
    } else {
        const auto curve = look.value(object, CKA_EC_PARAMS);
        const unsigned char* start = curve.data();
        group = OBJ_nid2sn(OBJ_obj2nid(d2i_ASN1_OBJECT(nullptr, &start, 32)));
        first = look.value(object, CKA_EC_POINT);
        first.erase(first.begin(), first.begin() + (first[1] < 0x80 ? 2 : 3));
        parameters.push_back(OSSL_PARAM_construct_utf8_string("group", group.data(), 0));
        parameters.push_back(OSSL_PARAM_construct_octet_string("pub", first.data(), first.size()));
    }
    parameters.push_back(OSSL_PARAM_construct_end());
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, rsa ? "RSA" : "EC", nullptr),
        EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    must(
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.data()) == 1
            ? CKR_OK
            : CKR_GENERAL_ERROR);
    return {key, EVP_PKEY_free};
}

void store(const std::vector<unsigned char>& certificate) {
    const session make(true);
    CK_OBJECT_CLASS type = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    auto bytes = certificate;
    unsigned char subject[2] = {0x30, 0x00};
    std::vector<CK_ATTRIBUTE> attributes{
        attribute(CKA_CLASS, type),
        attribute(CKA_CERTIFICATE_TYPE, x509),
        attribute(CKA_TOKEN, yes),
        attribute(CKA_SUBJECT, subject),
        {CKA_VALUE, bytes.data(), bytes.size()}};
    CK_OBJECT_HANDLE made = 0;
    must(softhsm->C_CreateObject(make.handle, attributes.data(), attributes.size(), &made));
}

} // namespace layer

using namespace layer;

void p11_kit_be_quiet() {}

char* p11_kit_config_option(CK_FUNCTION_LIST*, const char*) {
    return nullptr;
}

CK_FUNCTION_LIST** p11_kit_modules_load(const char*, int) {
    wrapped = loaded();
    wrap<
        &CK_FUNCTION_LIST::C_GetSlotList,
        &CK_FUNCTION_LIST::C_OpenSession,
        &CK_FUNCTION_LIST::C_FindObjectsInit,
        &CK_FUNCTION_LIST::C_FindObjects,
        &CK_FUNCTION_LIST::C_GetAttributeValue,
        &CK_FUNCTION_LIST::C_GenerateKeyPair,
        &CK_FUNCTION_LIST::C_DestroyObject,
        &CK_FUNCTION_LIST::C_SignInit,
        &CK_FUNCTION_LIST::C_Sign>();
    wrapped.C_Login = logIn;
    wrapped.C_GetTokenInfo = tokenInfo;
    wrapped.C_GetMechanismInfo = mechanismInfo;
    wrapped.C_SetAttributeValue =
        refusable<&interference::refuseChange, &CK_FUNCTION_LIST::C_SetAttributeValue>;
    wrapped.C_CopyObject = refusable<&interference::refuseCopy, &CK_FUNCTION_LIST::C_CopyObject>;
    return list.data();
}

CK_RV p11_kit_module_initialize(CK_FUNCTION_LIST*) {
    return CKR_OK;
}

CK_RV p11_kit_module_finalize(CK_FUNCTION_LIST*) {
    return softhsm->C_Finalize(nullptr);
}

void p11_kit_modules_release(CK_FUNCTION_LIST**) {}
