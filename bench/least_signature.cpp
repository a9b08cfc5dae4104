// What every program pays for a signature by a token, before CMS and X.509 come into it: the module
// loaded directly, one login, one search, one C_Sign. Arguments: module, PIN, label of the key.
#include <array>
#include <cstring>
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

namespace {

void require(bool holds) {
    if (!holds) {
        throw 1;
    }
}

CK_SLOT_ID firstToken(const CK_FUNCTION_LIST& module) {
    std::array<CK_SLOT_ID, 64> slots{};
    CK_ULONG count = slots.size();
    require(module.C_GetSlotList(CK_TRUE, slots.data(), &count) == CKR_OK && count > 0);
    return slots[0];
}

} // namespace

int main(int /*argc*/, char** argv) try {
    void* const library = dlopen(argv[1], RTLD_NOW);
    require(library != nullptr);
    CK_FUNCTION_LIST* module = nullptr;
    require(
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(&module) ==
        CKR_OK);
    require(module->C_Initialize(nullptr) == CKR_OK);

    CK_SESSION_HANDLE session = 0;
    require(
        module
            ->C_OpenSession(firstToken(*module), CKF_SERIAL_SESSION, nullptr, nullptr, &session) ==
        CKR_OK);
    require(
        module->C_Login(
            session,
            CKU_USER,
            reinterpret_cast<CK_UTF8CHAR*>(argv[2]),
            std::strlen(argv[2])) == CKR_OK);

    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    std::array<CK_ATTRIBUTE, 2> wanted{
        {{CKA_CLASS, &kind, sizeof kind}, {CKA_LABEL, argv[3], std::strlen(argv[3])}}};
    CK_OBJECT_HANDLE key = 0;
    CK_ULONG found = 0;
    require(module->C_FindObjectsInit(session, wanted.data(), wanted.size()) == CKR_OK);
    require(module->C_FindObjects(session, &key, 1, &found) == CKR_OK && found == 1);
    require(module->C_FindObjectsFinal(session) == CKR_OK);

    CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    std::array<CK_BYTE, 32> digest{};
    std::array<CK_BYTE, 64> signature{};
    CK_ULONG length = signature.size();
    require(module->C_SignInit(session, &ecdsa, key) == CKR_OK);
    require(
        module->C_Sign(session, digest.data(), digest.size(), signature.data(), &length) == CKR_OK);
    return module->C_Finalize(nullptr) == CKR_OK ? 0 : 1;
} catch (int failed) {
    return failed;
}
