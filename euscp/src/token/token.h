// The PKCS#11 tokens that are attached.
#pragma once

#include "errors.h"

#include <optional>
#include <string>
#include <vector>

namespace eu {

// An initialised token, as it was when it was listed.
struct token {
    CK_FUNCTION_LIST* module;
    CK_SLOT_ID slot;
    std::string serial; // without its blank padding; not empty
    std::string label;  // likewise; may be empty
    std::string text;   // names it among those listed: see listTokens

    bool operator==(const token&) const = default;
};

// The initialised tokens with a serial number, in module and slot order. A token's text is its
// serial; of those that share one, the serial, "/" and the label; of those that share that, too,
// "#" and the slot's number behind it; of those that share even that, which are tokens of several
// modules, "@" and the name of the module's registration. Modules and tokens that are left out, and
// why, are told on standard error; an uninitialised token only where there is no other.
std::vector<token> listTokens();

// The token's present state. Throws EU_ERROR_KEY_MEDIAS_ACCESS_FAILED when it is no longer in its
// slot or another one is.
CK_TOKEN_INFO present(const token& listed);

// The key size range of a mechanism that the token offers, or nothing.
std::optional<CK_MECHANISM_INFO> mechanism(const token& listed, CK_MECHANISM_TYPE type);

// Throws a failure again that an operation on the token ended with, or, where it tells a removed
// token no better than any other trouble and the token has gone, EU_ERROR_KEY_MEDIAS_ACCESS_FAILED.
[[noreturn]] void rethrown(const failure& caught, const token& on);

// Runs an operation on the token, so that its removal is told as such.
template <class Operation>
auto watched(const token& on, Operation operation) {
    try {
        return operation();
    } catch (const failure& e) {
        rethrown(e, on);
    }
}

} // namespace eu
