#include "token/token.h"

#include "texts.h"
#include "token/locks.h"
#include "token/modules.h"

#include <algorithm>
#include <functional>
#include <map>

namespace eu {

namespace {

// Texts of a token are padded with blanks; some modules use zero bytes instead.
template <std::size_t Size>
std::string unpadded(const unsigned char (&field)[Size]) {
    const std::string text(reinterpret_cast<const char*>(field), Size);
    const std::string cut = text.substr(0, text.find('\0'));
    return cut.substr(0, cut.find_last_not_of(' ') + 1);
}

// The slots that hold a token; none, which is told, for a module that cannot say.
std::vector<CK_SLOT_ID> slotsWithToken(const pkcs11_module& of) {
    CK_FUNCTION_LIST* const module = of.functions();
    CK_ULONG count = 0;
    std::vector<CK_SLOT_ID> slots;
    CK_RV result = module->C_GetSlotList(CK_TRUE, nullptr, &count);
    if (worked(result)) {
        count += 4; // room for tokens plugged in between the two calls
        slots.resize(count);
        result = module->C_GetSlotList(CK_TRUE, slots.data(), &count);
    }
    if (!worked(result)) {
        of.tell(std::string("its slots: ").append(describe(codeOf(result))));
        return {};
    }
    slots.resize(count);
    return slots;
}

// Why a token cannot be named in a line of text, or null.
const char* obstacleTo(const token& found) {
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
    if (found.serial.empty()) {
        return "a token without a serial";
    }
    return std::ranges::any_of(found.serial + found.label, isControl)
               ? "a token with control characters in its serial or label"
               : nullptr;
}

// Adds the module's tokens that are initialised and can be named. What else there is, is told; but
// not an uninitialised token, since some modules always have one: whether there is any comes back.
bool addTokens(std::vector<token>& tokens, pkcs11_module& from) {
    CK_FUNCTION_LIST* const module = from.functions();
    const state_lock reading(module);
    if (!from.start()) {
        return false;
    }
    bool anyBlank = false;
    for (const CK_SLOT_ID slot : slotsWithToken(from)) {
        CK_TOKEN_INFO info{};
        const CK_RV result = module->C_GetTokenInfo(slot, &info);
        if (worked(result) && (info.flags & CKF_TOKEN_INITIALIZED) == 0) {
            anyBlank = true;
            continue;
        }
        const std::string serial = unpadded(info.serialNumber);
        token found{module, slot, serial, unpadded(info.label), serial};
        const char* obstacle = result == CKR_OK ? obstacleTo(found) : describe(codeOf(result));
        if (obstacle != nullptr) {
            from.tell(std::string("slot ") + std::to_string(slot) + ": " + obstacle);
        } else {
            tokens.push_back(std::move(found));
        }
    }
    return anyBlank;
}

// Adds a mark and what tells them apart to the texts that several tokens share.
template <class Text>
void tellApart(std::vector<token>& tokens, char mark, Text addition) {
    std::vector<std::string> texts(tokens.size());
    std::ranges::transform(tokens, texts.begin(), &token::text);
    for (token& each : tokens) {
        if (std::ranges::count(texts, each.text) > 1) {
            each.text.append(1, mark).append(std::invoke(addition, each));
        }
    }
}

} // namespace

std::vector<token> listTokens() {
    std::vector<token> tokens;
    const pkcs11_module* withBlank = nullptr;
    std::map<CK_FUNCTION_LIST*, const pkcs11_module*> registered;
    for (const auto& module : modules()) {
        withBlank = addTokens(tokens, *module) ? module.get() : withBlank;
        registered[module->functions()] = module.get();
    }
    if (tokens.empty() && withBlank != nullptr) {
        withBlank->tell("no token but an uninitialised one");
    }
    tellApart(tokens, '/', &token::label);
    tellApart(tokens, '#', [](const token& each) { return std::to_string(each.slot); });
    tellApart(tokens, '@', [&](const token& each) {
        return registered[each.module]->registration();
    });
    std::erase_if(tokens, [&](const token& each) {
        const bool isTooLong = each.text.size() >= EU_DESCRIPTION_SIZE;
        if (isTooLong) {
            registered[each.module]->tell("a token that only too long a text names: " + each.text);
        }
        return isTooLong;
    });
    return tokens;
}

CK_TOKEN_INFO present(const token& listed) {
    CK_TOKEN_INFO info{};
    const state_lock reading(state_lock::purpose::reading, listed.module, listed.serial);
    check(listed.module->C_GetTokenInfo(listed.slot, &info));
    require(
        unpadded(info.serialNumber) == listed.serial && unpadded(info.label) == listed.label,
        EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
    return info;
}

std::optional<CK_MECHANISM_INFO> mechanism(const token& listed, CK_MECHANISM_TYPE type) {
    CK_MECHANISM_INFO info{};
    const CK_RV result = listed.module->C_GetMechanismInfo(listed.slot, type, &info);
    if (result == CKR_MECHANISM_INVALID) {
        return std::nullopt;
    }
    check(result);
    return info;
}

void rethrown(const failure& caught, const token& on) {
    // A session that finds nothing any more may be one whose token has gone.
    if (caught.code >= EU_ERROR_PKCS11 || caught.code == EU_ERROR_KEY_NOT_FOUND) {
        try {
            present(on);
        } catch (const failure&) {
            throw failure(EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
        }
    }
    throw failure(caught.code);
}

} // namespace eu
