/*
 * The EUSignCP interface, as far as velmora calls it.
 *
 * Conventions that hold for every function:
 *  - A DWORD result is 0 (EU_ERROR_NONE) on success, else a code of the table below, whose text
 *    EUGetErrorLangDesc returns; beside it stands the number as velmora's log shows it, in decimal.
 *    Outputs are written on success only.
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
#define EU_ERROR_NONE 0x0000UL            /* 0 */
#define EU_ERROR_NOT_INITIALIZED 0x0001UL /* 1 */
#define EU_ERROR_BAD_PARAMETER 0x0002UL   /* 2 */
#define EU_ERROR_MEMORY 0x0003UL          /* 3 */
#define EU_ERROR_NOT_SUPPORTED 0x0004UL   /* 4 */
#define EU_WARNING_END_OF_ENUM 0x0007UL   /* 7 */
#define EU_ERROR_CRYPTO 0x0008UL          /* 8 */
#define EU_ERROR_UNKNOWN 0x0009UL         /* 9 */
#define EU_ERROR_LIBRARY 0x000AUL         /* 10 */

/* Key media and the keys on them. */
#define EU_ERROR_KEY_MEDIAS_FAILED 0x0011UL             /* 17 */
#define EU_ERROR_KEY_MEDIAS_ACCESS_FAILED 0x0012UL      /* 18 */
#define EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED 0x0013UL    /* 19 */
#define EU_ERROR_KEY_MEDIAS_NO_MECHANISM 0x0014UL       /* 20 */
#define EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED 0x0015UL     /* 21 */
#define EU_ERROR_KEY_MEDIAS_EXTRACTABLE 0x0016UL        /* 22 */
#define EU_ERROR_KEY_MEDIAS_BUSY 0x0017UL               /* 23 */
#define EU_ERROR_KEY_EXISTS 0x0018UL                    /* 24 */
#define EU_ERROR_KEY_NOT_FOUND 0x0019UL                 /* 25 */
#define EU_ERROR_KEY_NOT_SUPPORTED 0x001AUL             /* 26 */
#define EU_ERROR_KEY_BAD_SIGNATURE 0x001BUL             /* 27 */
#define EU_ERROR_KEY_MEDIAS_ADMINISTRATOR 0x001CUL      /* 28 */
#define EU_ERROR_KEY_MEDIAS_GENERATION_REFUSED 0x001DUL /* 29 */

/* Passwords. */
#define EU_ERROR_PASSWORD_INCORRECT 0x0020UL /* 32 */
#define EU_ERROR_PASSWORD_LOCKED 0x0021UL    /* 33 */
#define EU_ERROR_PASSWORD_LENGTH 0x0022UL    /* 34 */
#define EU_ERROR_PASSWORD_EXPIRED 0x0023UL   /* 35 */
#define EU_ERROR_PASSWORD_NOT_SET 0x0024UL   /* 36 */

/* Files. */
#define EU_ERROR_FILE_READ 0x0030UL    /* 48 */
#define EU_ERROR_FILE_WRITE 0x0031UL   /* 49 */
#define EU_ERROR_FILE_LINK 0x0032UL    /* 50 */
#define EU_ERROR_FILE_TYPE 0x0033UL    /* 51 */
#define EU_ERROR_FILE_SAME 0x0034UL    /* 52 */
#define EU_ERROR_FILE_CHANGED 0x0035UL /* 53 */

/* Certificates. */
#define EU_ERROR_CERT_NOT_FOUND 0x0040UL   /* 64 */
#define EU_ERROR_CERT_FORMAT 0x0041UL      /* 65 */
#define EU_ERROR_CERT_PERIOD 0x0042UL      /* 66 */
#define EU_ERROR_CERT_USAGE 0x0043UL       /* 67 */
#define EU_ERROR_CERT_OTHER_KEY 0x0044UL   /* 68 */
#define EU_ERROR_CERT_SIZE 0x0045UL        /* 69 */
#define EU_ERROR_CERT_KEY 0x0046UL         /* 70 */
#define EU_ERROR_CERT_KEY_SHORT 0x0047UL   /* 71 */
#define EU_ERROR_CERT_KEY_UNSOUND 0x0048UL /* 72 */

/* Signatures. */
#define EU_ERROR_SIGN_FORMAT 0x0050UL             /* 80 */
#define EU_ERROR_SIGN_SIGNER 0x0051UL             /* 81 */
#define EU_ERROR_SIGN_ALGORITHM 0x0052UL          /* 82 */
#define EU_ERROR_SIGN_TIME 0x0053UL               /* 83 */
#define EU_ERROR_SIGN_INVALID 0x0055UL            /* 85 */
#define EU_ERROR_SIGN_SIZE 0x0056UL               /* 86 */
#define EU_ERROR_SIGN_CONTENT 0x0057UL            /* 87 */
#define EU_ERROR_SIGN_ATTACHED 0x0058UL           /* 88 */
#define EU_ERROR_SIGN_UNSIGNED 0x0059UL           /* 89 */
#define EU_ERROR_SIGN_SHA1 0x005AUL               /* 90 */
#define EU_ERROR_SIGN_MD5 0x005BUL                /* 91 */
#define EU_ERROR_SIGN_DIGEST 0x005CUL             /* 92 */
#define EU_ERROR_SIGN_PSS 0x005DUL                /* 93 */
#define EU_ERROR_SIGN_CONTRADICTION 0x005EUL      /* 94 */
#define EU_ERROR_SIGN_OTHER_DATA 0x005FUL         /* 95 */
#define EU_ERROR_SIGN_OTHER_CERTIFICATE 0x0060UL  /* 96 */
#define EU_ERROR_SIGN_ATTRIBUTE_FORMAT 0x0061UL   /* 97 */
#define EU_ERROR_SIGN_ATTRIBUTE_MISSING 0x0062UL  /* 98 */
#define EU_ERROR_SIGN_ATTRIBUTE_REPEATED 0x0063UL /* 99 */
#define EU_ERROR_SIGN_ATTRIBUTE_ORDER 0x0064UL    /* 100 */
#define EU_ERROR_SIGN_AMBIGUOUS 0x0065UL          /* 101 */

/* A PKCS#11 result (CKR_) that has no code above is this plus the result's number. */
#define EU_ERROR_PKCS11 0x1000UL /* 4096 */

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
 * Always succeeds: OpenSSL is prepared, and p11-kit loaded, by the first function that needs it,
 * which then may return EU_ERROR_CRYPTO or EU_ERROR_LIBRARY. */
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
 * token, without its blank padding. Where several tokens share one (a card with two PINs), it is
 * followed by "/" and the token's label, and where the labels are the same, too, by "#" and the
 * slot's number, and where tokens of two modules share even that, by "@" and the name that the
 * module is registered under: no text names two tokens. The list is taken afresh when device 0 is
 * asked for and kept for every other index, and for the key functions below, until then. Why a
 * module or a token is left out is told on standard error: one that does not load, start or answer,
 * one without a serial or with control characters in serial or label, and, where there is no other,
 * an uninitialised one.
 * pszDescription: at least EU_DESCRIPTION_SIZE bytes.
 * Errors: EU_WARNING_END_OF_ENUM past the last device or type; EU_ERROR_KEY_MEDIAS_FAILED when no
 * PKCS#11 module list can be had. */
DWORD EUEnumKeyMediaDevices(DWORD dwTypeIndex, DWORD dwDevIndex, char* pszDescription);

/* Tells, without a password, whether the medium shows a signing key: a public key with CKA_VERIFY
 * or, where it shows none, a certificate that is no authority's. None is one whose certificate
 * forbids signing, or that the medium lets anybody use without the password. What was seen, and the
 * session that saw it, serve the next EUCtxReadPrivateKey.
 * Errors: EU_ERROR_KEY_MEDIAS_ACCESS_FAILED when the medium is absent, was removed or was replaced
 * by another since the list was taken. */
DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* pKeyMedia, BOOL* pbExists);

/* Makes a library context. Given back with EUCtxFree. */
DWORD EUCtxCreate(void** ppvContext);

/* Frees a context; the private keys read with it are to be freed before. */
void EUCtxFree(void* pvContext);

/* Opens the signing key of a medium with the password, as the PKCS#11 user PIN. The token checks
 * the password every time, whatever was opened before. The key is one whose public key and exactly
 * one private key have a CKA_ID that no other public key has; of several one whose certificate
 * allows non-repudiation, then one with a certificate, then the first by CKA_ID.
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
 * of several one that allows signing, then one valid now, then the one that ends last.
 * dwCertKeyType: EU_CERT_KEY_TYPE_OWN; dwKeyUsage: EU_KEY_USAGE_SIGNATURE.
 * *ppInfo is given back with EUFreeCertificateInfoEx, *ppbCertificate (DER) with EUFreeMemory.
 * Errors: EU_ERROR_CERT_NOT_FOUND; EU_ERROR_CERT_OTHER_KEY when the medium holds certificates, but
 * none of this key. */
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

/* The same for a file of any size, read once, in constant memory.
 * The target is looked up once, before the data is read, and its folder held open. A link at the
 * end of its path is followed if it is the caller's (by effective user id) or the folder's owner's.
 * The signature is written to a temporary file in that folder and renamed over the target, so the
 * target is whole or untouched. One that the caller owns keeps its permissions (0777 at most);
 * somebody else's is replaced by a new file, with 0666 less the umask.
 * Errors besides those of EUCtxSignData: EU_ERROR_FILE_READ; EU_ERROR_FILE_CHANGED when the data
 * file's size or times changed meanwhile; for the target EU_ERROR_FILE_LINK (a link of somebody
 * else's, or to nowhere), EU_ERROR_FILE_TYPE (no regular file), EU_ERROR_FILE_SAME (the data file)
 * and EU_ERROR_FILE_WRITE (anything else). */
DWORD EUCtxSignFile(
    void* pvPrivateKey,
    DWORD dwSignAlgorithm,
    const char* pszFileName,
    BOOL bExternal,
    BOOL bAppendCert,
    const char* pszSignatureFileName);

/* Verifies a detached CMS or PKCS#7 signature (RFC 5652; DER, BER or PEM) of data in memory, of any
 * length, against the signer's certificate (DER, or the first one of a PEM text).
 * What the signer signed is checked to the last bit; what nobody signed (certificates, revocation
 * lists, unsigned attributes, time stamps among them, versions, the list of digests, other signers)
 * is not looked at: it neither helps nor harms.
 * Accepted: every signer that names the certificate, by issuer and serial number or key identifier,
 * verifies; with SHA-256, -384 or -512 of SHA-2 or SHA-3, by RSA of 2048 bits or more (PKCS#1, or
 * PSS with one digest throughout) or ECDSA on P-256, P-384 or P-521. Signed attributes, if any, are
 * at most 64, each type once, and stand in the order of DER, which is the order they are verified
 * in; content type and message digest are among them, a signing-certificate attribute names this
 * certificate first, by its hash, and the signing time is inside the certificate's validity.
 * A key usage, if any, allows signing. The certificate's own issuer is not asked: whether to trust
 * it is the caller's choice. bTimeStamp is always 0: no time-stamping authority is trusted here.
 * The second half of an ECDSA signature may be s or n - s: do not tell signatures apart by bytes.
 * A signature as EUCtxSignData makes it does not verify with any one byte of it changed.
 * pvHash, dwHashLength, dwSignIndex, pvParams, dwParamsLength, pvSettings: optional inputs, which
 * this implementation does not serve; null or 0, else EU_ERROR_NOT_SUPPORTED.
 * pInfo: the caller's record; its texts are given back with EUFreeSignInfo.
 * Errors: EU_ERROR_CERT_FORMAT, _USAGE, _SIZE (over 64 KiB), _KEY, _KEY_SHORT, _KEY_UNSOUND and the
 * EU_ERROR_SIGN_ codes. */
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
 * the algorithm: P-256, else RSA with 3072 bits, else with 2048.
 * bSetPassword, dwKeysType, dwDsSpec, dwKepSpec, pszParamsPath, dwInternationalType,
 * dwInternationalSpec: selectors of a vendor's algorithms; they are not looked at.
 * The other const void pointers, the DWORDs beside them and the third request's outputs: optional,
 * not served; null or 0, else EU_ERROR_NOT_SUPPORTED.
 * *ppbDsRequest and *ppbKepRequest are given back with EUFreeMemory. pszDsName and pszKepName
 * receive a suggested file name: at least EU_REQUEST_NAME_SIZE bytes each, or null.
 * A failed call removes what it made on the medium. What stays where that fails too (the medium was
 * pulled, the process killed) is cleared by the next generation or destruction: it is told by the
 * labels and identifiers that a generation gives, by a signing key that was not let to verify yet,
 * and, where one private key is all there is, by no certificate or public key on the medium being
 * its. Where a medium lets every key verify, a signing key may be left, which counts as one and
 * which EUDestroyPrivateKey destroys.
 * Of the processes on a machine that generate or destroy keys on a medium one goes ahead, and the
 * others wait.
 * Errors: EU_ERROR_KEY_EXISTS when the medium holds a signing key (a public key or certificate
 * whose private key is not on the medium is none, and stays); the EU_ERROR_PASSWORD_ codes;
 * EU_ERROR_KEY_MEDIAS_BUSY after a minute of waiting; EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED,
 * _NO_MECHANISM, _GENERATION_REFUSED (where the identifier has to name a slot, for one),
 * _CHANGE_REFUSED, _EXTRACTABLE for what a token cannot do, _ADMINISTRATOR for what it does for its
 * security officer only: the user's password is all that is ever given to it. */
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
 * opens), the pair generated beside it, what generations and destructions that were cut short left,
 * and the certificates of all these. Where no key opens, it destroys every pair that was ever
 * generated. Other objects stay, the public key or certificate among them that a destruction cut
 * short leaves of a key that other tools made: nothing tells whose it is. Private keys go first, so
 * that what is left tells of the key until a repeated call has destroyed the rest.
 * Errors: the EU_ERROR_PASSWORD_ codes; EU_ERROR_KEY_NOT_FOUND; EU_ERROR_KEY_NOT_SUPPORTED;
 * EU_ERROR_KEY_MEDIAS_BUSY, _WRITE_PROTECTED and _ADMINISTRATOR as for a generation; the PKCS#11
 * codes for what the token refuses to destroy. */
DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* pKeyMedia);

/* Frees a byte buffer that the library handed out. */
void EUFreeMemory(BYTE* pbMemory);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
