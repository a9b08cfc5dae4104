#include "errors.h"

#include <algorithm>
#include <iterator>
#include <openssl/err.h>

namespace eu {

namespace {

struct described {
    DWORD code;
    const char* text;
};

constexpr DWORD pkcs11(CK_RV result) {
    return EU_ERROR_PKCS11 + result;
}

// Results that modules define for themselves have numbers of any size; all share this code.
constexpr DWORD vendor_defined = pkcs11(0xFFF);

constexpr described texts[] = {
    {EU_ERROR_NONE, "no error"},
    {EU_ERROR_NOT_INITIALIZED, "the library is not initialized"},
    {EU_ERROR_BAD_PARAMETER, "a parameter is missing or out of range"},
    {EU_ERROR_MEMORY, "out of memory (CKR_HOST_MEMORY)"},
    {EU_ERROR_NOT_SUPPORTED, "the request is not supported by this implementation"},
    {EU_WARNING_END_OF_ENUM, "the end of the list is reached"},
    {EU_ERROR_CRYPTO, "the cryptographic library failed"},
    {EU_ERROR_UNKNOWN, "an unexpected failure inside the library"},
    {EU_ERROR_KEY_MEDIAS_FAILED, "the PKCS#11 modules cannot be loaded"},
    {EU_ERROR_KEY_MEDIAS_ACCESS_FAILED,
     "the key medium cannot be accessed: it is absent, was removed or was replaced "
     "(CKR_TOKEN_NOT_PRESENT, CKR_DEVICE_REMOVED)"},
    {EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED,
     "the key medium is write-protected (CKR_TOKEN_WRITE_PROTECTED)"},
    {EU_ERROR_KEY_MEDIAS_NO_MECHANISM,
     "the key medium can generate neither P-256 nor RSA-3072 signing keys"},
    {EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED,
     "the key medium refuses to change a new object, so no key can be completed on it"},
    {EU_ERROR_KEY_MEDIAS_EXTRACTABLE, "the key medium would make the private key extractable"},
    {EU_ERROR_KEY_EXISTS, "the key medium already holds a signing key"},
    {EU_ERROR_KEY_NOT_FOUND, "the key medium holds no signing key with exactly one private key"},
    {EU_ERROR_KEY_NOT_SUPPORTED, "the key is neither RSA nor on the curve P-256, P-384 or P-521"},
    {EU_ERROR_KEY_BAD_SIGNATURE, "the key medium returned a signature that does not verify"},
    {EU_ERROR_PASSWORD_INCORRECT, "the password is wrong (CKR_PIN_INCORRECT)"},
    {EU_ERROR_PASSWORD_LOCKED,
     "the password is locked after too many wrong attempts (CKR_PIN_LOCKED)"},
    {EU_ERROR_PASSWORD_LENGTH,
     "the password is shorter or longer than the key medium allows (CKR_PIN_LEN_RANGE)"},
    {EU_ERROR_PASSWORD_EXPIRED, "the password has expired (CKR_PIN_EXPIRED)"},
    {EU_ERROR_PASSWORD_NOT_SET,
     "the key medium has no user password yet (CKR_USER_PIN_NOT_INITIALIZED)"},
    {EU_ERROR_FILE_READ, "the data file cannot be read or is not a regular file"},
    {EU_ERROR_FILE_WRITE,
     "the signature file cannot be written, is not a regular file or is the data file"},
    {EU_ERROR_CERT_NOT_FOUND, "the key medium holds no certificate of the key"},
    {EU_ERROR_CERT_FORMAT, "the certificate is malformed"},
    {EU_ERROR_CERT_PERIOD, "the certificate is not valid at this time"},
    {EU_ERROR_CERT_USAGE, "the certificate is not meant for signing"},
    {EU_ERROR_SIGN_FORMAT, "the signature is not a detached CMS signature of one signer in DER"},
    {EU_ERROR_SIGN_SIGNER, "the signature is not of the certificate's owner"},
    {EU_ERROR_SIGN_ALGORITHM, "the signature's algorithms are not accepted"},
    {EU_ERROR_SIGN_TIME, "the signing time is outside the certificate's validity"},
    {EU_ERROR_SIGN_UNCHECKED, "the signature carries parts that cannot be checked"},
    {EU_ERROR_SIGN_INVALID, "the signature does not match the data"},

    {pkcs11(CKR_CANCEL), "the key medium's operation was cancelled (CKR_CANCEL)"},
    {pkcs11(CKR_GENERAL_ERROR), "the key medium failed (CKR_GENERAL_ERROR)"},
    {pkcs11(CKR_FUNCTION_FAILED), "the key medium's operation failed (CKR_FUNCTION_FAILED)"},
    {pkcs11(CKR_ARGUMENTS_BAD), "the PKCS#11 module rejected an argument (CKR_ARGUMENTS_BAD)"},
    {pkcs11(CKR_NO_EVENT), "the PKCS#11 module reports no event (CKR_NO_EVENT)"},
    {pkcs11(CKR_NEED_TO_CREATE_THREADS),
     "the PKCS#11 module needs threads of its own (CKR_NEED_TO_CREATE_THREADS)"},
    {pkcs11(CKR_CANT_LOCK), "the PKCS#11 module cannot lock (CKR_CANT_LOCK)"},
    {pkcs11(CKR_ATTRIBUTE_READ_ONLY), "an attribute is read-only (CKR_ATTRIBUTE_READ_ONLY)"},
    {pkcs11(CKR_ATTRIBUTE_SENSITIVE), "an attribute is sensitive (CKR_ATTRIBUTE_SENSITIVE)"},
    {pkcs11(CKR_ATTRIBUTE_TYPE_INVALID),
     "the key medium does not know an attribute (CKR_ATTRIBUTE_TYPE_INVALID)"},
    {pkcs11(CKR_ATTRIBUTE_VALUE_INVALID),
     "the key medium refuses an attribute's value (CKR_ATTRIBUTE_VALUE_INVALID)"},
    {pkcs11(CKR_ACTION_PROHIBITED), "the key medium prohibits the action (CKR_ACTION_PROHIBITED)"},
    {pkcs11(CKR_DATA_INVALID), "the key medium rejects the data (CKR_DATA_INVALID)"},
    {pkcs11(CKR_DATA_LEN_RANGE), "the data has a wrong length (CKR_DATA_LEN_RANGE)"},
    {pkcs11(CKR_DEVICE_ERROR), "the key medium or its reader failed (CKR_DEVICE_ERROR)"},
    {pkcs11(CKR_DEVICE_MEMORY), "the key medium has no room left (CKR_DEVICE_MEMORY)"},
    {pkcs11(CKR_FUNCTION_CANCELED), "the operation was cancelled (CKR_FUNCTION_CANCELED)"},
    {pkcs11(CKR_FUNCTION_NOT_PARALLEL),
     "the PKCS#11 module runs nothing in parallel (CKR_FUNCTION_NOT_PARALLEL)"},
    {pkcs11(CKR_FUNCTION_NOT_SUPPORTED),
     "the PKCS#11 module does not offer the operation (CKR_FUNCTION_NOT_SUPPORTED)"},
    {pkcs11(CKR_KEY_HANDLE_INVALID), "the key is gone (CKR_KEY_HANDLE_INVALID)"},
    {pkcs11(CKR_KEY_SIZE_RANGE), "the key size is not served (CKR_KEY_SIZE_RANGE)"},
    {pkcs11(CKR_KEY_TYPE_INCONSISTENT),
     "the key does not fit the mechanism (CKR_KEY_TYPE_INCONSISTENT)"},
    {pkcs11(CKR_KEY_FUNCTION_NOT_PERMITTED),
     "the key is not permitted to sign (CKR_KEY_FUNCTION_NOT_PERMITTED)"},
    {pkcs11(CKR_MECHANISM_INVALID), "the mechanism is not offered (CKR_MECHANISM_INVALID)"},
    {pkcs11(CKR_MECHANISM_PARAM_INVALID),
     "the mechanism's parameter is wrong (CKR_MECHANISM_PARAM_INVALID)"},
    {pkcs11(CKR_OBJECT_HANDLE_INVALID), "an object is gone (CKR_OBJECT_HANDLE_INVALID)"},
    {pkcs11(CKR_OPERATION_ACTIVE), "another operation is active (CKR_OPERATION_ACTIVE)"},
    {pkcs11(CKR_OPERATION_NOT_INITIALIZED),
     "the operation was not started (CKR_OPERATION_NOT_INITIALIZED)"},
    {pkcs11(CKR_PIN_INVALID), "the password holds characters not allowed (CKR_PIN_INVALID)"},
    {pkcs11(CKR_SESSION_CLOSED), "the session was closed (CKR_SESSION_CLOSED)"},
    {pkcs11(CKR_SESSION_COUNT), "too many sessions are open (CKR_SESSION_COUNT)"},
    {pkcs11(CKR_SESSION_HANDLE_INVALID), "the session is gone (CKR_SESSION_HANDLE_INVALID)"},
    {pkcs11(CKR_SESSION_PARALLEL_NOT_SUPPORTED),
     "parallel sessions are not offered (CKR_SESSION_PARALLEL_NOT_SUPPORTED)"},
    {pkcs11(CKR_SESSION_READ_ONLY), "the session is read-only (CKR_SESSION_READ_ONLY)"},
    {pkcs11(CKR_SESSION_EXISTS), "another session is open (CKR_SESSION_EXISTS)"},
    {pkcs11(CKR_SESSION_READ_ONLY_EXISTS),
     "a read-only session is open (CKR_SESSION_READ_ONLY_EXISTS)"},
    {pkcs11(CKR_SESSION_READ_WRITE_SO_EXISTS),
     "the security officer is logged in (CKR_SESSION_READ_WRITE_SO_EXISTS)"},
    {pkcs11(CKR_SIGNATURE_INVALID), "the signature is invalid (CKR_SIGNATURE_INVALID)"},
    {pkcs11(CKR_SIGNATURE_LEN_RANGE), "the signature is too long (CKR_SIGNATURE_LEN_RANGE)"},
    {pkcs11(CKR_TEMPLATE_INCOMPLETE),
     "the key medium wants more attributes (CKR_TEMPLATE_INCOMPLETE)"},
    {pkcs11(CKR_TEMPLATE_INCONSISTENT),
     "the key medium refuses the attributes together (CKR_TEMPLATE_INCONSISTENT)"},
    {pkcs11(CKR_USER_ALREADY_LOGGED_IN),
     "an earlier login cannot be ended (CKR_USER_ALREADY_LOGGED_IN)"},
    {pkcs11(CKR_USER_NOT_LOGGED_IN), "the login is gone (CKR_USER_NOT_LOGGED_IN)"},
    {pkcs11(CKR_USER_TYPE_INVALID), "the kind of login is not offered (CKR_USER_TYPE_INVALID)"},
    {pkcs11(CKR_USER_ANOTHER_ALREADY_LOGGED_IN),
     "another user is logged in (CKR_USER_ANOTHER_ALREADY_LOGGED_IN)"},
    {pkcs11(CKR_USER_TOO_MANY_TYPES), "too many users are logged in (CKR_USER_TOO_MANY_TYPES)"},
    {pkcs11(CKR_DOMAIN_PARAMS_INVALID),
     "the key medium does not know the curve (CKR_DOMAIN_PARAMS_INVALID)"},
    {pkcs11(CKR_CURVE_NOT_SUPPORTED),
     "the key medium does not offer the curve (CKR_CURVE_NOT_SUPPORTED)"},
    {pkcs11(CKR_BUFFER_TOO_SMALL), "a buffer is too small (CKR_BUFFER_TOO_SMALL)"},
    {pkcs11(CKR_INFORMATION_SENSITIVE), "the information is sensitive (CKR_INFORMATION_SENSITIVE)"},
    {pkcs11(CKR_CRYPTOKI_NOT_INITIALIZED),
     "the PKCS#11 module is not initialized (CKR_CRYPTOKI_NOT_INITIALIZED)"},
    {pkcs11(CKR_MUTEX_BAD), "the PKCS#11 module's lock is bad (CKR_MUTEX_BAD)"},
    {pkcs11(CKR_FUNCTION_REJECTED),
     "the operation was rejected at the key medium (CKR_FUNCTION_REJECTED)"},
    {pkcs11(CKR_ENCRYPTED_DATA_INVALID),
     "the encrypted data is invalid (CKR_ENCRYPTED_DATA_INVALID)"},
    {pkcs11(CKR_ENCRYPTED_DATA_LEN_RANGE),
     "the encrypted data has a wrong length (CKR_ENCRYPTED_DATA_LEN_RANGE)"},
    {pkcs11(CKR_KEY_NOT_NEEDED), "the key medium needs no key for this (CKR_KEY_NOT_NEEDED)"},
    {pkcs11(CKR_KEY_CHANGED), "the key has changed (CKR_KEY_CHANGED)"},
    {pkcs11(CKR_KEY_NEEDED), "the key medium needs a key for this (CKR_KEY_NEEDED)"},
    {pkcs11(CKR_KEY_INDIGESTIBLE), "the key cannot be digested (CKR_KEY_INDIGESTIBLE)"},
    {pkcs11(CKR_KEY_NOT_WRAPPABLE), "the key cannot be wrapped (CKR_KEY_NOT_WRAPPABLE)"},
    {pkcs11(CKR_KEY_UNEXTRACTABLE), "the key cannot be extracted (CKR_KEY_UNEXTRACTABLE)"},
    {pkcs11(CKR_UNWRAPPING_KEY_SIZE_RANGE),
     "the unwrapping key has a size that is not served (CKR_UNWRAPPING_KEY_SIZE_RANGE)"},
    {pkcs11(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT),
     "the unwrapping key does not fit the mechanism (CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT)"},
    {pkcs11(CKR_WRAPPED_KEY_INVALID), "the wrapped key is invalid (CKR_WRAPPED_KEY_INVALID)"},
    {pkcs11(CKR_WRAPPED_KEY_LEN_RANGE),
     "the wrapped key has a wrong length (CKR_WRAPPED_KEY_LEN_RANGE)"},
    {pkcs11(CKR_WRAPPING_KEY_HANDLE_INVALID),
     "the wrapping key is gone (CKR_WRAPPING_KEY_HANDLE_INVALID)"},
    {pkcs11(CKR_WRAPPING_KEY_SIZE_RANGE),
     "the wrapping key has a size that is not served (CKR_WRAPPING_KEY_SIZE_RANGE)"},
    {pkcs11(CKR_WRAPPING_KEY_TYPE_INCONSISTENT),
     "the wrapping key does not fit the mechanism (CKR_WRAPPING_KEY_TYPE_INCONSISTENT)"},
    {pkcs11(CKR_RANDOM_SEED_NOT_SUPPORTED),
     "the key medium takes no random seed (CKR_RANDOM_SEED_NOT_SUPPORTED)"},
    {pkcs11(CKR_RANDOM_NO_RNG), "the key medium has no random numbers (CKR_RANDOM_NO_RNG)"},
    {pkcs11(CKR_SAVED_STATE_INVALID), "a saved state is invalid (CKR_SAVED_STATE_INVALID)"},
    {pkcs11(CKR_STATE_UNSAVEABLE), "the state cannot be saved (CKR_STATE_UNSAVEABLE)"},
    {pkcs11(CKR_CRYPTOKI_ALREADY_INITIALIZED),
     "the PKCS#11 module is initialized already (CKR_CRYPTOKI_ALREADY_INITIALIZED)"},
    {pkcs11(CKR_MUTEX_NOT_LOCKED),
     "the PKCS#11 module's lock is not locked (CKR_MUTEX_NOT_LOCKED)"},
    {pkcs11(CKR_NEW_PIN_MODE), "the key medium wants a new password (CKR_NEW_PIN_MODE)"},
    {pkcs11(CKR_NEXT_OTP), "the key medium wants the next one-time password (CKR_NEXT_OTP)"},
    {pkcs11(CKR_EXCEEDED_MAX_ITERATIONS),
     "the key medium gave up after too many iterations (CKR_EXCEEDED_MAX_ITERATIONS)"},
    {pkcs11(CKR_FIPS_SELF_TEST_FAILED),
     "the key medium's self-test failed (CKR_FIPS_SELF_TEST_FAILED)"},
    {pkcs11(CKR_LIBRARY_LOAD_FAILED),
     "the PKCS#11 module cannot load a library of its own (CKR_LIBRARY_LOAD_FAILED)"},
    {pkcs11(CKR_PIN_TOO_WEAK), "the password is too weak (CKR_PIN_TOO_WEAK)"},
    {pkcs11(CKR_PUBLIC_KEY_INVALID), "the public key is invalid (CKR_PUBLIC_KEY_INVALID)"},
    {vendor_defined, "the PKCS#11 module failed in its own way (CKR_VENDOR_DEFINED)"},
};

} // namespace

const char* failure::what() const noexcept {
    return describe(code);
}

const char* describe(DWORD code) {
    const auto* row =
        std::ranges::find_if(texts, [code](const described& each) { return each.code == code; });
    return row != std::end(texts) ? row->text : "an unknown error";
}

DWORD codeOf(CK_RV result) {
    switch (result) {
    case CKR_OK:
        return EU_ERROR_NONE;
    case CKR_HOST_MEMORY:
        return EU_ERROR_MEMORY;
    case CKR_SLOT_ID_INVALID:
    case CKR_TOKEN_NOT_PRESENT:
    case CKR_TOKEN_NOT_RECOGNIZED:
    case CKR_DEVICE_REMOVED:
        return EU_ERROR_KEY_MEDIAS_ACCESS_FAILED;
    case CKR_TOKEN_WRITE_PROTECTED:
        return EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED;
    case CKR_PIN_INCORRECT:
        return EU_ERROR_PASSWORD_INCORRECT;
    case CKR_PIN_LOCKED:
        return EU_ERROR_PASSWORD_LOCKED;
    case CKR_PIN_LEN_RANGE:
        return EU_ERROR_PASSWORD_LENGTH;
    case CKR_PIN_EXPIRED:
        return EU_ERROR_PASSWORD_EXPIRED;
    case CKR_USER_PIN_NOT_INITIALIZED:
        return EU_ERROR_PASSWORD_NOT_SET;
    default:
        return result < vendor_defined - EU_ERROR_PKCS11 ? pkcs11(result) : vendor_defined;
    }
}

void check(CK_RV result) {
    if (result != CKR_OK) {
        throw failure(codeOf(result));
    }
}

void require(bool condition, DWORD code) {
    if (!condition) {
        throw failure(code);
    }
}

void clearCryptoErrors() noexcept {
    ERR_clear_error();
}

} // namespace eu
