// The interface: arguments checked, failures turned into codes, the work done elsewhere.

#include "cms/certificate.h"
#include "cms/files.h"
#include "cms/signing.h"
#include "cms/verifying.h"
#include "hand_out.h"
#include "media.h"
#include "texts.h"
#include "token/key_pairs.h"
#include "token/private_key.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <openssl/crypto.h>

using namespace eu;

namespace {

// The one media type's description, as the caller knows it, in Windows-1251.
constexpr char type_description[] = "\xE5.\xEA\xEB\xFE\xF7 \xB2\xB2\xD2 \xC0\xEB\xEC\xE0\xE7-1\xCA";

bool initialized = false;

// Makes OpenSSL ready. Neither what openssl.cnf or the environment may name, code to be loaded
// among it, nor the texts of errors, which nobody asks for. Its memory goes with the process, which
// ends sooner without a cleaning up that a module's own handlers might run into.
void prepareCrypto() {
    constexpr std::uint64_t options =
        OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_NO_ATEXIT;
    succeed(OPENSSL_init_crypto(options, nullptr));
}

// Runs an operation of the initialised library and tells its result code. OpenSSL is made ready
// before all else: reading its queue of errors would make it ready in its own way.
template <class Operation>
DWORD serve(Operation operation) noexcept {
    if (!initialized) {
        return EU_ERROR_NOT_INITIALIZED;
    }
    return guarded([&operation] {
        prepareCrypto();
        operation();
    });
}

struct library_context {};

void requireGiven(std::initializer_list<const void*> arguments) {
    for (const void* argument : arguments) {
        require(argument != nullptr, EU_ERROR_BAD_PARAMETER);
    }
}

template <class... Argument>
void requireUnused(Argument... unused) {
    require(((unused == Argument{}) && ...), EU_ERROR_NOT_SUPPORTED);
}

// Copies a text into a caller's buffer, which is larger than any that is handed out: a token whose
// text is not has been left out of the list.
void copyTo(char* buffer, std::string_view text) {
    *std::ranges::copy(text, buffer).out = '\0';
}

std::string_view passwordOf(const EU_KEY_MEDIA& medium) {
    const char* end = std::ranges::find(medium.szPassword, '\0');
    require(end != std::end(medium.szPassword), EU_ERROR_BAD_PARAMETER);
    return {medium.szPassword, end};
}

EU_CERT_OWNER_INFO ownerOf(const private_key& key) {
    return key.hasCertificate() ? named<EU_CERT_OWNER_INFO>(key.certificate())
                                : EU_CERT_OWNER_INFO{};
}

void requireSignable(DWORD algorithm, BOOL external) {
    require(algorithm == EU_SIGN_ALGORITHM_TOKEN, EU_ERROR_BAD_PARAMETER);
    require(external != 0, EU_ERROR_NOT_SUPPORTED);
}

} // namespace

void EUSetUIMode(BOOL /*bUIMode*/) {}

DWORD EUInitialize() {
    initialized = true;
    return EU_ERROR_NONE;
}

void EUFinalize() {
    initialized = false;
    forgetLook();
}

const char* EUGetErrorLangDesc(DWORD dwError, DWORD /*dwLanguage*/) {
    return describe(dwError);
}

DWORD EUEnumKeyMediaTypes(DWORD dwTypeIndex, char* pszDescription) {
    return serve([&] {
        requireGiven({pszDescription});
        require(dwTypeIndex == token_type, EU_WARNING_END_OF_ENUM);
        std::ranges::copy(type_description, pszDescription);
    });
}

DWORD EUEnumKeyMediaDevices(DWORD dwTypeIndex, DWORD dwDevIndex, char* pszDescription) {
    return serve([&] {
        requireGiven({pszDescription});
        require(dwTypeIndex == token_type, EU_WARNING_END_OF_ENUM);
        const auto& media = listedMedia(dwDevIndex == 0);
        require(dwDevIndex < media.size(), EU_WARNING_END_OF_ENUM);
        copyTo(pszDescription, media[dwDevIndex].text);
    });
}

DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* pKeyMedia, BOOL* pbExists) {
    return serve([&] {
        requireGiven({pKeyMedia, pbExists});
        *pbExists = showsKey(mediumOf(*pKeyMedia)) ? 1 : 0;
    });
}

DWORD EUCtxCreate(void** ppvContext) {
    return serve([&] {
        requireGiven({ppvContext});
        *ppvContext = new library_context;
    });
}

void EUCtxFree(void* pvContext) {
    delete static_cast<library_context*>(pvContext);
}

DWORD EUCtxReadPrivateKey(
    void* pvContext,
    const EU_KEY_MEDIA* pKeyMedia,
    void** ppvPrivateKey,
    EU_CERT_OWNER_INFO* pInfo) {
    return serve([&] {
        requireGiven({pvContext, pKeyMedia, ppvPrivateKey, pInfo});
        const token& medium = mediumOf(*pKeyMedia);
        auto key = watched(medium, [&] {
            return std::make_unique<private_key>(medium, passwordOf(*pKeyMedia), takenLook(medium));
        });
        *pInfo = ownerOf(*key);
        *ppvPrivateKey = key.release();
    });
}

void EUCtxFreePrivateKey(void* pvPrivateKey) {
    delete static_cast<private_key*>(pvPrivateKey);
}

void EUCtxFreeCertOwnerInfo(void* /*pvContext*/, EU_CERT_OWNER_INFO* pInfo) {
    if (pInfo != nullptr) {
        clearRecord(pInfo);
    }
}

DWORD EUCtxGetOwnCertificate(
    void* pvPrivateKey,
    DWORD dwCertKeyType,
    DWORD dwKeyUsage,
    EU_CERT_INFO_EX** ppInfo,
    BYTE** ppbCertificate,
    DWORD* pdwCertificateLength) {
    return serve([&] {
        requireGiven({pvPrivateKey, ppInfo, ppbCertificate, pdwCertificateLength});
        require(
            dwCertKeyType == EU_CERT_KEY_TYPE_OWN && dwKeyUsage == EU_KEY_USAGE_SIGNATURE,
            EU_ERROR_BAD_PARAMETER);
        X509* const certificate = static_cast<private_key*>(pvPrivateKey)->certificate();
        parcel encoding(encoded(certificate, i2d_X509));
        const SYSTEMTIME begin = systemTime(X509_get0_notBefore(certificate));
        const SYSTEMTIME end = systemTime(X509_get0_notAfter(certificate));
        auto info = std::make_unique<EU_CERT_INFO_EX>();
        *info = named<EU_CERT_INFO_EX>(certificate);
        info->stCertBeginTime = begin;
        info->stCertEndTime = end;
        *ppInfo = info.release();
        encoding.giveAway(ppbCertificate, pdwCertificateLength);
    });
}

void EUFreeCertificateInfoEx(EU_CERT_INFO_EX* pInfo) {
    if (pInfo != nullptr) {
        clearRecord(pInfo);
        delete pInfo;
    }
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
    return serve([&] {
        requireGiven({pvPrivateKey, pbData, ppbSignature, pdwSignatureLength});
        requireSignable(dwSignAlgorithm, bExternal);
        const bytes digest = sha256({pbData, dwDataLength});
        parcel(signDigest(*static_cast<private_key*>(pvPrivateKey), digest, bAppendCert != 0))
            .giveAway(ppbSignature, pdwSignatureLength);
    });
}

DWORD EUCtxSignFile(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const char* pszFileName,
    BOOL bExternal,
    BOOL bAppendCert,
    const char* pszSignatureFileName) {
    return serve([&] {
        requireGiven({pvPrivateKey, pszFileName, pszSignatureFileName});
        requireSignable(dwSignAlgorithm, bExternal);
        const data_file data(pszFileName);
        const signature_file target(pszSignatureFileName, data);
        const bytes digest = data.digest();
        target.replace(
            signDigest(*static_cast<private_key*>(pvPrivateKey), digest, bAppendCert != 0));
    });
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
    return serve([&] {
        requireGiven({pbData, pbSignature, pbCertificate, pInfo});
        requireUnused(pvHash, dwHashLength, dwSignIndex, pvParams, dwParamsLength, pvSettings);
        const verified result = verify(
            {pbData, dwDataLength},
            {pbSignature, dwSignatureLength},
            {pbCertificate, dwCertificateLength});
        *pInfo = named<EU_SIGN_INFO>(result.signer.get());
        pInfo->bTimeAvail = result.signingTime ? 1 : 0;
        pInfo->Time = result.signingTime.value_or(SYSTEMTIME{});
    });
}

void EUFreeSignInfo(EU_SIGN_INFO* pInfo) {
    if (pInfo != nullptr) {
        clearRecord(pInfo);
    }
}

DWORD EUGeneratePrivateKeyEx(
    const EU_KEY_MEDIA* pKeyMedia,
    BOOL /*bSetPassword*/,
    DWORD /*dwKeysType*/,
    DWORD /*dwDsSpec*/,
    DWORD /*dwKepSpec*/,
    const char* /*pszParamsPath*/,
    DWORD /*dwInternationalType*/,
    DWORD /*dwInternationalSpec*/,
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
    return serve([&] {
        requireGiven(
            {pKeyMedia, ppbDsRequest, pdwDsRequestLength, ppbKepRequest, pdwKepRequestLength});
        requireUnused(
            pvInternationalParams,
            ppbPrivateKey,
            pdwPrivateKeyLength,
            ppbPrivateKeyInfo,
            pdwPrivateKeyInfoLength,
            pvOwner,
            pvExtensions,
            ppbInternationalRequest,
            pdwInternationalRequestLength,
            pszInternationalName);
        const token& medium = mediumOf(*pKeyMedia);
        key_requests requests =
            watched(medium, [&] { return generateKeys(medium, passwordOf(*pKeyMedia)); });
        requests.ds.giveAway(ppbDsRequest, pdwDsRequestLength);
        requests.kep.giveAway(ppbKepRequest, pdwKepRequestLength);
        if (pszDsName != nullptr) {
            copyTo(pszDsName, "DS.p10");
        }
        if (pszKepName != nullptr) {
            copyTo(pszKepName, "KEP.p10");
        }
    });
}

DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* pKeyMedia) {
    return serve([&] {
        requireGiven({pKeyMedia});
        const token& medium = mediumOf(*pKeyMedia);
        watched(medium, [&] { destroyKeys(medium, passwordOf(*pKeyMedia)); });
    });
}

void EUFreeMemory(BYTE* pbMemory) {
    std::free(pbMemory);
}
