// The functions that euscp.so forwards, under the same names: arguments checked, failures turned
// into codes, the work done elsewhere.

#include "certificate.h"
#include "files.h"
#include "hand_out.h"
#include "key_pairs.h"
#include "private_key.h"
#include "signature.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <openssl/crypto.h>

using namespace eu;

namespace {

constexpr DWORD token_type = 0;

// The tokens by device index, as last listed.
std::optional<std::vector<token>>& devices() {
    static std::optional<std::vector<token>> listed;
    return listed;
}

struct library_context {};

void requireGiven(std::initializer_list<const void*> arguments) {
    for (const void* argument : arguments) {
        require(argument != nullptr, EU_ERROR_BAD_PARAMETER);
    }
}

void requireUnused(std::initializer_list<bool> unused) {
    require(std::ranges::find(unused, false) == unused.end(), EU_ERROR_NOT_SUPPORTED);
}

// Copies a text into a caller's buffer, which is larger than any that is handed out.
void copyTo(char* buffer, std::string_view text) {
    *std::ranges::copy(text, buffer).out = '\0';
}

std::string_view passwordOf(const EU_KEY_MEDIA& medium) {
    const char* end = std::ranges::find(medium.szPassword, '\0');
    require(end != std::end(medium.szPassword), EU_ERROR_BAD_PARAMETER);
    return {medium.szPassword, end};
}

// The token of a key medium, as it was listed last.
const token& tokenOf(const EU_KEY_MEDIA& medium) {
    require(medium.dwTypeIndex == token_type, EU_ERROR_BAD_PARAMETER);
    if (!devices()) {
        devices() = listTokens();
    }
    require(medium.dwDevIndex < devices()->size(), EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
    return (*devices())[medium.dwDevIndex];
}

EU_CERT_OWNER_INFO ownerOf(const private_key& key) {
    try {
        return named<EU_CERT_OWNER_INFO>(key.certificate());
    } catch (const failure& e) {
        require(e.code == EU_ERROR_CERT_NOT_FOUND, e.code);
        return {};
    }
}

void requireSignable(DWORD algorithm, BOOL external) {
    require(algorithm == EU_SIGN_ALGORITHM_TOKEN, EU_ERROR_BAD_PARAMETER);
    require(external != 0, EU_ERROR_NOT_SUPPORTED);
}

} // namespace

DWORD EUInitialize() {
    return guarded([] {
        // Neither what openssl.cnf or the environment may name, code to be loaded among it, nor
        // the texts of errors, which nobody asks for. Its memory goes with the process, which ends
        // sooner without a cleaning up that a module's own handlers might run into.
        constexpr std::uint64_t options = OPENSSL_INIT_NO_LOAD_CONFIG |
                                          OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                                          OPENSSL_INIT_NO_ATEXIT;
        succeed(OPENSSL_init_crypto(options, nullptr));
    });
}

DWORD EUEnumKeyMediaDevices(DWORD dwTypeIndex, DWORD dwDevIndex, char* pszDescription) {
    return guarded([&] {
        requireGiven({pszDescription});
        require(dwTypeIndex == token_type, EU_WARNING_END_OF_ENUM);
        if (dwDevIndex == 0 || !devices()) {
            devices() = listTokens();
        }
        require(dwDevIndex < devices()->size(), EU_WARNING_END_OF_ENUM);
        copyTo(pszDescription, (*devices())[dwDevIndex].serial);
    });
}

DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* pKeyMedia, BOOL* pbExists) {
    return guarded([&] {
        requireGiven({pKeyMedia, pbExists});
        const session with(tokenOf(*pKeyMedia), session::mode::read_only);
        *pbExists = signingKeys(with).empty() ? 0 : 1;
    });
}

DWORD EUCtxCreate(void** ppvContext) {
    return guarded([&] {
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
    return guarded([&] {
        requireGiven({pvContext, pKeyMedia, ppvPrivateKey, pInfo});
        auto key = std::make_unique<private_key>(tokenOf(*pKeyMedia), passwordOf(*pKeyMedia));
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
    return guarded([&] {
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
    return guarded([&] {
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
    return guarded([&] {
        requireGiven({pvPrivateKey, pszFileName, pszSignatureFileName});
        requireSignable(dwSignAlgorithm, bExternal);
        checkTarget(pszSignatureFileName, pszFileName);
        const bytes digest = fileDigest(pszFileName);
        replaceFile(
            pszSignatureFileName,
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
    return guarded([&] {
        requireGiven({pbData, pbSignature, pbCertificate, pInfo});
        requireUnused(
            {pvHash == nullptr,
             dwHashLength == 0,
             dwSignIndex == 0,
             pvParams == nullptr,
             dwParamsLength == 0,
             pvSettings == nullptr});
        const verified result = verify(
            {pbData, dwDataLength},
            {pbSignature, dwSignatureLength},
            {pbCertificate, dwCertificateLength});
        const bool timed = result.signingTime != nullptr;
        const SYSTEMTIME time = timed ? systemTime(result.signingTime) : SYSTEMTIME{};
        *pInfo = named<EU_SIGN_INFO>(result.signer.get());
        pInfo->bTimeAvail = timed ? 1 : 0;
        pInfo->Time = time;
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
    return guarded([&] {
        requireGiven(
            {pKeyMedia, ppbDsRequest, pdwDsRequestLength, ppbKepRequest, pdwKepRequestLength});
        for (const void* unused : std::initializer_list<const void*>{
                 pvInternationalParams,
                 ppbPrivateKey,
                 pdwPrivateKeyLength,
                 ppbPrivateKeyInfo,
                 pdwPrivateKeyInfoLength,
                 pvOwner,
                 pvExtensions,
                 ppbInternationalRequest,
                 pdwInternationalRequestLength,
                 pszInternationalName}) {
            require(unused == nullptr, EU_ERROR_NOT_SUPPORTED);
        }
        key_requests requests = generateKeys(tokenOf(*pKeyMedia), passwordOf(*pKeyMedia));
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
    return guarded([&] {
        requireGiven({pKeyMedia});
        destroyKeys(tokenOf(*pKeyMedia), passwordOf(*pKeyMedia));
    });
}

void EUFreeMemory(BYTE* pbMemory) {
    std::free(pbMemory);
}
