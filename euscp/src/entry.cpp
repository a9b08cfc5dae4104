// euscp.so itself: the part of the interface that costs next to nothing. Whatever needs a token or
// cryptography is in the library beside it, which is loaded, with all that it is linked with, at
// the first such call: a process that makes none starts in a fraction of the time.

#include "texts.h"

#include <algorithm>
#include <dlfcn.h>
#include <iterator>
#include <new>
#include <string>
#include <type_traits>

namespace {

// The one media type's description, as the caller knows it, in Windows-1251.
constexpr char type_description[] = "\xE5.\xEA\xEB\xFE\xF7 \xB2\xB2\xD2 \xC0\xEB\xEC\xE0\xE7-1\xCA";

bool initialized = false;

// Loads the library beside this one, by its path, so that no other one of the name takes its place,
// and makes it ready. Null if that fails.
void* loadWorker() noexcept try {
    Dl_info own{};
    if (dladdr(&initialized, &own) == 0) {
        return nullptr;
    }
    const std::string path = own.dli_fname;
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    void* const library = dlopen((folder + EUSCP_WORKER).c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) {
        return nullptr;
    }
    const auto initialize =
        reinterpret_cast<decltype(&EUInitialize)>(dlsym(library, "EUInitialize"));
    return initialize != nullptr && initialize() == EU_ERROR_NONE ? library : nullptr;
} catch (const std::bad_alloc&) {
    return nullptr;
}

// The worker's function of the same name; null if the worker cannot be loaded. The worker stays
// loaded until the process ends: a token's module may have threads and exit handlers of its own.
void* worker(const char* name) noexcept {
    static void* const library = loadWorker();
    return library != nullptr ? dlsym(library, name) : nullptr;
}

template <class... Parameters>
DWORD forward(
    DWORD (* /*of this type*/)(Parameters...),
    const char* name,
    std::type_identity_t<Parameters>... arguments) noexcept {
    if (!initialized) {
        return EU_ERROR_NOT_INITIALIZED;
    }
    const auto function = reinterpret_cast<DWORD (*)(Parameters...)>(worker(name));
    return function != nullptr ? function(arguments...) : EU_ERROR_LIBRARY;
}

// For what gives something back, which only the worker can have handed out.
template <class... Parameters>
void release(
    void (* /*of this type*/)(Parameters...),
    const char* name,
    std::type_identity_t<Parameters>... arguments) noexcept {
    if (const auto function = reinterpret_cast<void (*)(Parameters...)>(worker(name))) {
        function(arguments...);
    }
}

} // namespace

void EUSetUIMode(BOOL /*bUIMode*/) {}

DWORD EUInitialize() {
    initialized = true;
    return EU_ERROR_NONE;
}

void EUFinalize() {
    initialized = false;
}

const char* EUGetErrorLangDesc(DWORD dwError, DWORD /*dwLanguage*/) {
    return eu::describe(dwError);
}

DWORD EUEnumKeyMediaTypes(DWORD dwTypeIndex, char* pszDescription) {
    if (!initialized) {
        return EU_ERROR_NOT_INITIALIZED;
    }
    if (pszDescription == nullptr) {
        return EU_ERROR_BAD_PARAMETER;
    }
    if (dwTypeIndex != 0) {
        return EU_WARNING_END_OF_ENUM;
    }
    std::copy(std::begin(type_description), std::end(type_description), pszDescription);
    return EU_ERROR_NONE;
}

DWORD EUEnumKeyMediaDevices(DWORD dwTypeIndex, DWORD dwDevIndex, char* pszDescription) {
    return forward(EUEnumKeyMediaDevices, __func__, dwTypeIndex, dwDevIndex, pszDescription);
}

DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* pKeyMedia, BOOL* pbExists) {
    return forward(EUIsPrivateKeyExists, __func__, pKeyMedia, pbExists);
}

DWORD EUCtxCreate(void** ppvContext) {
    return forward(EUCtxCreate, __func__, ppvContext);
}

void EUCtxFree(void* pvContext) {
    release(EUCtxFree, __func__, pvContext);
}

DWORD EUCtxReadPrivateKey(
    void* pvContext,
    const EU_KEY_MEDIA* pKeyMedia,
    void** ppvPrivateKey,
    EU_CERT_OWNER_INFO* pInfo) {
    return forward(EUCtxReadPrivateKey, __func__, pvContext, pKeyMedia, ppvPrivateKey, pInfo);
}

void EUCtxFreePrivateKey(void* pvPrivateKey) {
    release(EUCtxFreePrivateKey, __func__, pvPrivateKey);
}

void EUCtxFreeCertOwnerInfo(void* pvContext, EU_CERT_OWNER_INFO* pInfo) {
    release(EUCtxFreeCertOwnerInfo, __func__, pvContext, pInfo);
}

DWORD EUCtxGetOwnCertificate(
    void* pvPrivateKey,
    DWORD dwCertKeyType,
    DWORD dwKeyUsage,
    EU_CERT_INFO_EX** ppInfo,
    BYTE** ppbCertificate,
    DWORD* pdwCertificateLength) {
    return forward(
        EUCtxGetOwnCertificate,
        __func__,
        pvPrivateKey,
        dwCertKeyType,
        dwKeyUsage,
        ppInfo,
        ppbCertificate,
        pdwCertificateLength);
}

void EUFreeCertificateInfoEx(EU_CERT_INFO_EX* pInfo) {
    release(EUFreeCertificateInfoEx, __func__, pInfo);
}

DWORD EUCtxSignData(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const BYTE* pbData,
    DWORD dwDataLength,
    BOOL bExternal,
    BOOL bAppendCert,
    BYTE** ppbSignature,
    DWORD* pdwSignatureLength) {
    return forward(
        EUCtxSignData,
        __func__,
        pvPrivateKey,
        dwSignAlgorithm,
        pbData,
        dwDataLength,
        bExternal,
        bAppendCert,
        ppbSignature,
        pdwSignatureLength);
}

DWORD EUCtxSignFile(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const char* pszFileName,
    BOOL bExternal,
    BOOL bAppendCert,
    const char* pszSignatureFileName) {
    return forward(
        EUCtxSignFile,
        __func__,
        pvPrivateKey,
        dwSignAlgorithm,
        pszFileName,
        bExternal,
        bAppendCert,
        pszSignatureFileName);
}

DWORD EUVerifyDataWithParams(
    const BYTE* pbData,
    DWORD dwDataLength,
    const void* pvHash,
    DWORD dwHashLength,
    const BYTE* pbSignature,
    DWORD dwSignatureLength,
    DWORD dwSignIndex,
    const void* pvParams,
    DWORD dwParamsLength,
    const BYTE* pbCertificate,
    DWORD dwCertificateLength,
    const void* pvSettings,
    EU_SIGN_INFO* pInfo) {
    return forward(
        EUVerifyDataWithParams,
        __func__,
        pbData,
        dwDataLength,
        pvHash,
        dwHashLength,
        pbSignature,
        dwSignatureLength,
        dwSignIndex,
        pvParams,
        dwParamsLength,
        pbCertificate,
        dwCertificateLength,
        pvSettings,
        pInfo);
}

void EUFreeSignInfo(EU_SIGN_INFO* pInfo) {
    release(EUFreeSignInfo, __func__, pInfo);
}

DWORD EUGeneratePrivateKeyEx(
    const EU_KEY_MEDIA* pKeyMedia,
    BOOL bSetPassword,
    DWORD dwKeysType,
    DWORD dwDsSpec,
    DWORD dwKepSpec,
    const char* pszParamsPath,
    DWORD dwInternationalType,
    DWORD dwInternationalSpec,
    const void* pvInternationalParams,
    BYTE** ppbPrivateKey,
    DWORD* pdwPrivateKeyLength,
    BYTE** ppbPrivateKeyInfo,
    DWORD* pdwPrivateKeyInfoLength,
    const void* pvOwner,
    const void* pvExtensions,
    BYTE** ppbDsRequest,
    DWORD* pdwDsRequestLength,
    char* pszDsName,
    BYTE** ppbKepRequest,
    DWORD* pdwKepRequestLength,
    char* pszKepName,
    BYTE** ppbInternationalRequest,
    DWORD* pdwInternationalRequestLength,
    char* pszInternationalName) {
    return forward(
        EUGeneratePrivateKeyEx,
        __func__,
        pKeyMedia,
        bSetPassword,
        dwKeysType,
        dwDsSpec,
        dwKepSpec,
        pszParamsPath,
        dwInternationalType,
        dwInternationalSpec,
        pvInternationalParams,
        ppbPrivateKey,
        pdwPrivateKeyLength,
        ppbPrivateKeyInfo,
        pdwPrivateKeyInfoLength,
        pvOwner,
        pvExtensions,
        ppbDsRequest,
        pdwDsRequestLength,
        pszDsName,
        ppbKepRequest,
        pdwKepRequestLength,
        pszKepName,
        ppbInternationalRequest,
        pdwInternationalRequestLength,
        pszInternationalName);
}

DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* pKeyMedia) {
    return forward(EUDestroyPrivateKey, __func__, pKeyMedia);
}

void EUFreeMemory(BYTE* pbMemory) {
    release(EUFreeMemory, __func__, pbMemory);
}
