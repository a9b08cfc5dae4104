// What the tests of keys share: the library's long calls, with just what they vary, and what stands
// in the place of p11-kit. Included once in a program.
#pragma once

#include "certificates.h"

#include <array>
#include <gtest/gtest.h>
#include <p11-kit/p11-kit.h>

namespace made {

// Has the media listed anew, as the calls for one want it.
inline DWORD list() {
    std::array<char, EU_DESCRIPTION_SIZE> text{};
    return EUEnumKeyMediaDevices(0, 0, text.data());
}

inline DWORD find(const EU_KEY_MEDIA& media) {
    BOOL exists = 0;
    const DWORD result = EUIsPrivateKeyExists(&media, &exists);
    return result == EU_ERROR_NONE && exists == 0 ? EU_ERROR_KEY_NOT_FOUND : result;
}

class opened_key {
public:
    explicit opened_key(const EU_KEY_MEDIA& media) {
        EXPECT_EQ(EUCtxCreate(&context), EU_ERROR_NONE);
        EU_CERT_OWNER_INFO owner{};
        result = EUCtxReadPrivateKey(context, &media, &key, &owner);
        EUCtxFreeCertOwnerInfo(context, &owner);
    }
    ~opened_key() {
        EUCtxFreePrivateKey(key);
        EUCtxFree(context);
    }

    DWORD sign(bytes* made = nullptr) const {
        BYTE* signature = nullptr;
        DWORD size = 0;
        const DWORD code = EUCtxSignData(key, 1, data.data(), data.size(), 1, 1, &signature, &size);
        if (made != nullptr) { made->assign(signature, signature + size); }
        EUFreeMemory(signature);
        return code;
    }

    DWORD certificate(bytes& own) const {
        EU_CERT_INFO_EX* parsed = nullptr;
        BYTE* der = nullptr;
        DWORD size = 0;
        const DWORD code = EUCtxGetOwnCertificate(key, 1, 1, &parsed, &der, &size);
        own.assign(der, der + size);
        EUFreeCertificateInfoEx(parsed);
        EUFreeMemory(der);
        return code;
    }

    void* context = nullptr;
    void* key = nullptr;
    DWORD result;
};

} // namespace made

CK_FUNCTION_LIST* onlyModule(); // the program's own

void p11_kit_be_loud() {}

void p11_kit_be_quiet() {}

char* p11_kit_module_get_name(CK_FUNCTION_LIST*) { return nullptr; }

char* p11_kit_config_option(CK_FUNCTION_LIST*, const char*) { return nullptr; }

CK_FUNCTION_LIST** p11_kit_modules_load(const char*, int flags) {
    static CK_FUNCTION_LIST* all[]{onlyModule(), nullptr};
    return flags == 0 ? &all[1] : all; // none that p11-kit manages
}

void p11_kit_modules_release(CK_FUNCTION_LIST**) {}
