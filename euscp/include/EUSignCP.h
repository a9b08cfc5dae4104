/*
 * The EUSignCP interface, as far as velmora calls it.
 *
 * Conventions that hold for every function:
 *  - A DWORD result is 0 (EU_ERROR_NONE) on success, else a code of the table below, whose text
 *    EUGetErrorLangDesc returns. Outputs are written on success only.
 *  - Lengths are in bytes. Texts are zero-terminated; unless said otherwise they are UTF-8.
 *  - What the library hands out belongs to the caller until it is given back through the function
 *    named beside it. Giving back a null pointer does nothing.
 *  - A null pointer where an argument is required is EU_ERROR_BAD_PARAMETER.
 *  - The library is to be used from one thread at a time. Every context is to be freed before the
 *    process leaves main.
 */
#ifndef EUSIGNCP_H
#define EUSIGNCP_H

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned long DWORD;
typedef int BOOL;
typedef unsigned short WORD;
typedef unsigned char BYTE;

/* General. */
#define EU_ERROR_NONE 0x0000UL
#define EU_ERROR_NOT_INITIALIZED 0x0001UL
#define EU_ERROR_BAD_PARAMETER 0x0002UL
#define EU_ERROR_MEMORY 0x0003UL
#define EU_ERROR_NOT_SUPPORTED 0x0004UL
#define EU_WARNING_END_OF_ENUM 0x0007UL
#define EU_ERROR_CRYPTO 0x0008UL
#define EU_ERROR_UNKNOWN 0x0009UL
#define EU_ERROR_LIBRARY 0x000AUL

/* Key media and the keys on them. */
#define EU_ERROR_KEY_MEDIAS_FAILED 0x0011UL
#define EU_ERROR_KEY_MEDIAS_ACCESS_FAILED 0x0012UL
#define EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED 0x0013UL
#define EU_ERROR_KEY_MEDIAS_NO_MECHANISM 0x0014UL
#define EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED 0x0015UL
#define EU_ERROR_KEY_MEDIAS_EXTRACTABLE 0x0016UL
#define EU_ERROR_KEY_MEDIAS_BUSY 0x0017UL
#define EU_ERROR_KEY_EXISTS 0x0018UL
#define EU_ERROR_KEY_NOT_FOUND 0x0019UL
#define EU_ERROR_KEY_NOT_SUPPORTED 0x001AUL
#define EU_ERROR_KEY_BAD_SIGNATURE 0x001BUL

/* Passwords. */
#define EU_ERROR_PASSWORD_INCORRECT 0x0020UL
#define EU_ERROR_PASSWORD_LOCKED 0x0021UL
#define EU_ERROR_PASSWORD_LENGTH 0x0022UL
#define EU_ERROR_PASSWORD_EXPIRED 0x0023UL
#define EU_ERROR_PASSWORD_NOT_SET 0x0024UL

/* Files. */
#define EU_ERROR_FILE_READ 0x0030UL
#define EU_ERROR_FILE_WRITE 0x0031UL

/* Certificates. */
#define EU_ERROR_CERT_NOT_FOUND 0x0040UL
#define EU_ERROR_CERT_FORMAT 0x0041UL
#define EU_ERROR_CERT_PERIOD 0x0042UL
#define EU_ERROR_CERT_USAGE 0x0043UL

/* Signatures. */
#define EU_ERROR_SIGN_FORMAT 0x0050UL
#define EU_ERROR_SIGN_SIGNER 0x0051UL
#define EU_ERROR_SIGN_ALGORITHM 0x0052UL
#define EU_ERROR_SIGN_TIME 0x0053UL
#define EU_ERROR_SIGN_UNCHECKED 0x0054UL
#define EU_ERROR_SIGN_INVALID 0x0055UL

/* A PKCS#11 result (CKR_) that has no code above is this plus the result's number. */
#define EU_ERROR_PKCS11 0x1000UL

/* The language code of English texts. */
#define EU_LANG_ENGLISH 3UL

/* Size of the caller's buffers for the description of a media type or device, terminator included.
 */
#define EU_DESCRIPTION_SIZE 257
/* Size of the caller's buffers for the suggested file name of a certificate request. */
#define EU_REQUEST_NAME_SIZE 1024
/* Size of the password field of a key medium, terminator included. */
#define EU_PASSWORD_SIZE 65

/* Values of the arguments that select something; a function names those it serves. */
#define EU_CERT_KEY_TYPE_OWN 1UL
#define EU_KEY_USAGE_SIGNATURE 1UL
#define EU_SIGN_ALGORITHM_TOKEN 1UL

/* A moment in UTC; wMonth and wDay count from 1, wDayOfWeek from 0 (Sunday). */
typedef struct {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME;

/* A key medium: media type, device within the type (both as enumerated), and the password that
 * opens it, zero-terminated, at most 64 bytes. */
typedef struct {
    DWORD dwTypeIndex;
    DWORD dwDevIndex;
    char szPassword[EU_PASSWORD_SIZE];
} EU_KEY_MEDIA;

/* The owner of a private key, from its certificate (names as in RFC 4514, serial in hexadecimal).
 * bFilled is 0, and every text null, while the medium holds no certificate of the key. */
typedef struct {
    BOOL bFilled;
    char* pszIssuer;
    char* pszSerial;
    char* pszSubject;
} EU_CERT_OWNER_INFO;

/* A parsed certificate (RFC 5280). */
typedef struct {
    BOOL bFilled;
    char* pszIssuer;
    char* pszSerial;
    char* pszSubject;
    SYSTEMTIME stCertBeginTime;
    SYSTEMTIME stCertEndTime;
} EU_CERT_INFO_EX;

/* What a verified signature says: its signer, and its signing time if bTimeAvail or bTimeStamp is
 * not 0. bTimeStamp tells a time that a time-stamping authority vouches for. */
typedef struct {
    BOOL bFilled;
    char* pszIssuer;
    char* pszSerial;
    char* pszSubject;
    BOOL bTimeAvail;
    BOOL bTimeStamp;
    SYSTEMTIME Time;
} EU_SIGN_INFO;

#pragma GCC visibility push(default)

/* Sets whether the library may show windows. This implementation has none; any value is taken. */
void EUSetUIMode(BOOL bUIMode);

/* Makes the library ready. No key medium is touched: the PKCS#11 modules are loaded by the first
 * call that needs a token. Repeating it does no harm.
 * Always succeeds: what the library works with is loaded by the first function that needs it, which
 * then may return EU_ERROR_LIBRARY, or EU_ERROR_CRYPTO. */
DWORD EUInitialize(void);

/* Ends the use of the library: calls after it fail with EU_ERROR_NOT_INITIALIZED until the next
 * EUInitialize. The release functions still work. */
void EUFinalize(void);

/* The text of a code, one English sentence that names the cause, with the PKCS#11 name of the
 * result where there is one. Never null, never to be freed. The language is not looked at. */
const char* EUGetErrorLangDesc(DWORD dwError, DWORD dwLanguage);

/* Describes the media type at an index, in Windows-1251. There is one type, at index 0.
 * pszDescription: at least EU_DESCRIPTION_SIZE bytes.
 * Errors: EU_WARNING_END_OF_ENUM past the last type. */
DWORD EUEnumKeyMediaTypes(DWORD dwTypeIndex, char* pszDescription);

/* Describes the device at an index within a type: the serial number of an initialised PKCS#11
 * token, without its blank padding. The list is taken afresh when device 0 is asked for and kept
 * for every other index, and for the key functions below, until then.
 * pszDescription: at least EU_DESCRIPTION_SIZE bytes.
 * Errors: EU_WARNING_END_OF_ENUM past the last device or type; EU_ERROR_KEY_MEDIAS_FAILED when no
 * PKCS#11 module list can be had. */
DWORD EUEnumKeyMediaDevices(DWORD dwTypeIndex, DWORD dwDevIndex, char* pszDescription);

/* Tells, without a password, whether the medium holds a signing key.
 * Errors: EU_ERROR_KEY_MEDIAS_ACCESS_FAILED when the medium is absent, was removed or was replaced
 * by another since the list was taken. */
DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* pKeyMedia, BOOL* pbExists);

/* Makes a library context. Given back with EUCtxFree. */
DWORD EUCtxCreate(void** ppvContext);

/* Frees a context; the private keys read with it are to be freed before. */
void EUCtxFree(void* pvContext);

/* Opens the signing key of a medium with the password, as the PKCS#11 user PIN. The token checks
 * the password every time, whatever was opened before.
 * *ppvPrivateKey is given back with EUCtxFreePrivateKey, the texts of *pInfo with
 * EUCtxFreeCertOwnerInfo. A key without a certificate opens too (see EU_CERT_OWNER_INFO).
 * Errors: the EU_ERROR_PASSWORD_ codes, EU_ERROR_KEY_NOT_FOUND, EU_ERROR_KEY_NOT_SUPPORTED. */
DWORD EUCtxReadPrivateKey(
    void* pvContext,
    const EU_KEY_MEDIA* pKeyMedia,
    void** ppvPrivateKey,
    EU_CERT_OWNER_INFO* pInfo);

/* Closes a private key and wipes its password from memory. */
void EUCtxFreePrivateKey(void* pvPrivateKey);

/* Frees the texts of an owner record and clears it; the record itself is the caller's. */
void EUCtxFreeCertOwnerInfo(void* pvContext, EU_CERT_OWNER_INFO* pInfo);

/* The certificate of an opened key: the certificate on the medium that holds the same public key;
 * of several the one valid now, then the one that ends last.
 * dwCertKeyType: EU_CERT_KEY_TYPE_OWN; dwKeyUsage: EU_KEY_USAGE_SIGNATURE.
 * *ppInfo is given back with EUFreeCertificateInfoEx, *ppbCertificate (DER) with EUFreeMemory.
 * Errors: EU_ERROR_CERT_NOT_FOUND. */
DWORD EUCtxGetOwnCertificate(
    void* pvPrivateKey,
    DWORD dwCertKeyType,
    DWORD dwKeyUsage,
    EU_CERT_INFO_EX** ppInfo,
    BYTE** ppbCertificate,
    DWORD* pdwCertificateLength);

/* Frees a certificate record with its texts. */
void EUFreeCertificateInfoEx(EU_CERT_INFO_EX* pInfo);

/* Signs data in memory: CMS SignedData (RFC 5652) in DER, profile CAdES-BES (ETSI EN 319 122-1),
 * with SHA-256, the signing time and the signing-certificate-v2 attribute (RFC 5035).
 * dwSignAlgorithm: EU_SIGN_ALGORITHM_TOKEN, the algorithm of the key. bExternal: not 0, a detached
 * signature; signatures that hold the data are not made (EU_ERROR_NOT_SUPPORTED). bAppendCert: not
 * 0 puts the signer's certificate into the signature.
 * *ppbSignature is given back with EUFreeMemory.
 * Errors: those of EUCtxGetOwnCertificate; EU_ERROR_CERT_PERIOD or EU_ERROR_CERT_USAGE when the
 * certificate does not allow signing now; EU_ERROR_KEY_BAD_SIGNATURE when what the token returned
 * does not verify. */
DWORD EUCtxSignData(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const BYTE* pbData,
    DWORD dwDataLength,
    BOOL bExternal,
    BOOL bAppendCert,
    BYTE** ppbSignature,
    DWORD* pdwSignatureLength);

/* The same for a file of any size, read once, in constant memory. The signature is written to a
 * temporary file beside the target and renamed over it, so the target is whole or untouched; an
 * existing target keeps its permissions.
 * Errors besides those of EUCtxSignData: EU_ERROR_FILE_READ; EU_ERROR_FILE_WRITE, also when the
 * target exists and is no regular file, or is the data file itself. */
DWORD EUCtxSignFile(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const char* pszFileName,
    BOOL bExternal,
    BOOL bAppendCert,
    const char* pszSignatureFileName);

/* Verifies a detached CMS signature (RFC 5652, DER) of data in memory, of any length, against the
 * signer's certificate (DER, or PEM as RFC 7468 writes it).
 * Accepted is a signature of one signer, named by that certificate, with SHA-256, SHA-384 or
 * SHA-512, by an EC key (P-256, P-384, P-521) or an RSA key (rsaEncryption, or RSASSA-PSS with the
 * same digest throughout), with a signing time (if any) inside the certificate's validity, and a
 * key usage (if any) that allows signing. Whatever in the signature cannot be checked makes it
 * fail: unsigned attributes, revocation lists, foreign certificates. A certificate in the
 * signature is never trusted: it must be the given one, or stand on the path from there up to one
 * that signed itself.
 * A signing-certificate attribute (CAdES), or the signer's certificate in the signature, ties the
 * signature to the given certificate to the last byte. A signature with neither names no more than
 * its issuer and serial number (or key identifier) and is tied to those and to the key.
 * Some of a signature nobody signs, and it verifies before and after these changes: certificates as
 * above come or go; an algorithm without parameters has NULL in their place, or nothing (RFC 5754);
 * the second half of an ECDSA signature is s or n - s. Do not tell signatures apart by their bytes.
 * A certificate's own issuer is not asked: whether to trust the certificate is the caller's choice.
 * pvHash, dwHashLength, dwSignIndex, pvParams, dwParamsLength, pvSettings: optional inputs, which
 * this implementation does not serve; null or 0, else EU_ERROR_NOT_SUPPORTED.
 * pInfo: the caller's record; its texts are given back with EUFreeSignInfo.
 * Errors: EU_ERROR_CERT_FORMAT, EU_ERROR_CERT_USAGE and the EU_ERROR_SIGN_ codes. */
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
    EU_SIGN_INFO* pInfo);

/* Frees the texts of a signature record and clears it; the record itself is the caller's. */
void EUFreeSignInfo(EU_SIGN_INFO* pInfo);

/* Generates, on the medium and with its password, a key pair for signing ("DS") and one for key
 * agreement ("KEP"; key transport where the token has no elliptic curves), private parts never
 * extractable, and returns a PKCS#10 request (RFC 2986, DER) for each, with matching key usages.
 * The subject is CN = the token's label, serialNumber = its serial. The token's mechanisms decide
 * the algorithm: P-256, or RSA with 3072 bits where there are no elliptic curves.
 * bSetPassword, dwKeysType, dwDsSpec, dwKepSpec, pszParamsPath, dwInternationalType,
 * dwInternationalSpec: selectors of a vendor's algorithms; they are not looked at.
 * The other const void pointers, the DWORDs beside them and the third request's outputs: optional,
 * not served; null or 0, else EU_ERROR_NOT_SUPPORTED.
 * *ppbDsRequest and *ppbKepRequest are given back with EUFreeMemory. pszDsName and pszKepName
 * receive a suggested file name: at least EU_REQUEST_NAME_SIZE bytes each, or null.
 * A failed call removes what it made on the medium. What a killed process left never counts as a
 * key and is cleared by the next generation or destruction. Of the processes on a machine (in
 * one network namespace, where it has several) that generate or destroy keys on a medium one goes
 * ahead, and the others wait.
 * Errors: EU_ERROR_KEY_EXISTS when the medium holds a signing key; the EU_ERROR_PASSWORD_ codes;
 * EU_ERROR_KEY_MEDIAS_BUSY after a minute of waiting; EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED,
 * _NO_MECHANISM, _CHANGE_REFUSED for what a token cannot do. */
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
    char* pszInternationalName);

/* Destroys, with the password, the signing key of a medium (the one that EUCtxReadPrivateKey
 * opens), the pair generated beside it, what killed generations left, and the certificates of all
 * these. Where no key opens, it destroys every pair that was ever generated. Other objects stay.
 * Errors: the EU_ERROR_PASSWORD_ codes; EU_ERROR_KEY_NOT_FOUND; EU_ERROR_KEY_NOT_SUPPORTED;
 * EU_ERROR_KEY_MEDIAS_BUSY and _WRITE_PROTECTED as for a generation; the PKCS#11 codes for what
 * the token refuses to destroy.
 */
DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* pKeyMedia);

/* Frees a byte buffer that the library handed out. */
void EUFreeMemory(BYTE* pbMemory);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
