#include "token/token.h"

#include "texts.h"
#include "token/locks.h"
#include "token/modules.h"

#include <algorithm>

namespace eu {

namespace {

// Texts of a token are padded with blanks; some modules use zero bytes instead.
template <std::size_t Size>
std::string unpadded(const unsigned char (&field)[Size]) {
    const std::string text(reinterpret_cast<const char*>(field), Size);
    const std::string cut = text.substr(0, text.find('\0'));
    return cut.substr(0, cut.find_last_not_of(' ') + 1);
}

// The slots that hold a token; none for a module that cannot tell.
std::vector<CK_SLOT_ID> slotsWithToken(CK_FUNCTION_LIST* module) {
    CK_ULONG count = 0;
    if (!worked(module->C_GetSlotList(CK_TRUE, nullptr, &count))) {
        return {};
    }
    count += 4; // room for tokens plugged in between the two calls
    std::vector<CK_SLOT_ID> slots(count);
    if (!worked(module->C_GetSlotList(CK_TRUE, slots.data(), &count))) {
        return {};
    }
    slots.resize(count);
    return slots;
}

void addTokens(std::vector<token>& tokens, pkcs11_module& from) {
    CK_FUNCTION_LIST* const module = from.functions();
    const state_lock reading(module);
    if (!from.start()) {
        return;
    }
    for (const CK_SLOT_ID slot : slotsWithToken(module)) {
        CK_TOKEN_INFO info{};
        if (!worked(module->C_GetTokenInfo(slot, &info)) ||
            (info.flags & CKF_TOKEN_INITIALIZED) == 0) {
            continue;
        }
        const std::string serial = unpadded(info.serialNumber);
        if (!serial.empty()) {
            tokens.push_back({module, slot, serial, unpadded(info.label), serial});
        }
    }
}

// Adds to the texts that several tokens share what tells these apart.
template <class Text>
void tellApart(std::vector<token>& tokens, Text addition) {
    std::vector<std::string> texts(tokens.size());
    std::ranges::transform(tokens, texts.begin(), &token::text);
    for (token& each : tokens) {
        if (std::ranges::count(texts, each.text) > 1) {
            each.text += addition(each);
        }
    }
}

} // namespace

std::vector<token> listTokens() {
    std::vector<token> tokens;
    for (const auto& module : modules()) {
        addTokens(tokens, *module);
    }
    tellApart(tokens, [](const token& each) { return std::string("/").append(each.label); });
    tellApart(tokens, [](const token& each) {
        return std::string("#").append(std::to_string(each.slot));
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
