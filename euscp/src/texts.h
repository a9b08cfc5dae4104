// The result codes of PKCS#11 failures, and the one table of texts.
#pragma once

#include <EUSignCP.h>

#include <p11-kit/pkcs11.h>

namespace eu {

// The code of a PKCS#11 result that has none of its own.
constexpr DWORD pkcs11(CK_RV result) {
    return EU_ERROR_PKCS11 + result;
}

// Results that modules define for themselves have numbers of any size; all share this code.
inline constexpr DWORD vendor_defined = pkcs11(0xFFF);

// The English text of a result code; never null.
const char* describe(DWORD code);

} // namespace eu
