// The library's long calls, with just what the tests vary.
#pragma once

#include "certificates.h"
#include "token_layer.h"

#include <array>
#include <gtest/gtest.h>

inline DWORD generate(const EU_KEY_MEDIA& media, made::bytes* ds = nullptr) {
    std::array<BYTE*, 2> requests{};
    std::array<DWORD, 2> lengths{};
    std::array<std::array<char, EU_REQUEST_NAME_SIZE>, 2> names{};
    const DWORD result = EUGeneratePrivateKeyEx(&media, 1, 1, 2, 2, nullptr, 0, 2, nullptr, nullptr,
        nullptr, nullptr, nullptr, nullptr, nullptr, &requests[0], &lengths[0], names[0].data(),
        &requests[1], &lengths[1], names[1].data(), nullptr, nullptr, nullptr);
    if (ds != nullptr && result == 0) { ds->assign(requests[0], requests[0] + lengths[0]); }
    EUFreeMemory(requests[0]);
    EUFreeMemory(requests[1]);
    return result;
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

    DWORD sign(BOOL append = 0, made::bytes* made = nullptr) const {
        const BYTE data[] = {'d', 'a', 't', 'a'};
        BYTE* signature = nullptr;
        DWORD length = 0;
        const DWORD code = EUCtxSignData(key, 1, data, sizeof data, 1, append, &signature, &length);
        if (made != nullptr) { made->assign(signature, signature + length); }
        EUFreeMemory(signature);
        return code;
    }

    void* context = nullptr;
    void* key = nullptr;
    DWORD result;
};

inline DWORD verify(const made::bytes& of, const made::bytes& signature,
    const made::bytes& certificate, bool* timed = nullptr) {
    EU_SIGN_INFO info{};
    const DWORD result = EUVerifyDataWithParams(of.data(), of.size(), nullptr, 0, signature.data(),
        signature.size(), 0, nullptr, 0, certificate.data(), certificate.size(), nullptr, &info);
    if (timed != nullptr) { *timed = info.bTimeAvail != 0; }
    EUFreeSignInfo(&info);
    return result;
}

inline made::certificate certify(EVP_PKEY* key) {
    auto certificate = made::issue(key, made::key(EVP_EC_gen("P-256")).get());
    layer::store(made::der(certificate));
    return certificate;
}

// A token with a key and its certificate, which is returned.
inline made::certificate makeSigner() {
    layer::empty();
    made::bytes request;
    EXPECT_EQ(generate(layer::medium(), &request), EU_ERROR_NONE);
    auto certificate = certify(made::requested(request).get());
    layer::reset();
    return certificate;
}
