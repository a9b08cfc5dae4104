#include "errors.h"

#include "texts.h"

#include <openssl/err.h>

namespace eu {

DWORD codeOf(CK_RV result) {
    switch (result) {
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

void checkChange(CK_RV result) {
    require(result != CKR_USER_TYPE_INVALID, EU_ERROR_KEY_MEDIAS_ADMINISTRATOR);
    check(result);
}

bool worked(CK_RV result) {
    require(result != CKR_HOST_MEMORY, EU_ERROR_MEMORY);
    return result == CKR_OK;
}

void require(bool condition, DWORD code) {
    if (!condition) {
        throw failure(code);
    }
}

bool cryptoRanOutOfMemory() noexcept {
    bool ranOut = false;
    while (const unsigned long error = ERR_get_error()) {
        ranOut = ranOut || ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
    }
    return ranOut;
}

void requireMemory() {
    require(!cryptoRanOutOfMemory(), EU_ERROR_MEMORY);
}

} // namespace eu
