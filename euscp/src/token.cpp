#include "token.h"

#include "locks.h"
#include "modules.h"

#include <array>
#include <cstring>

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

// The token's present state. Throws EU_ERROR_KEY_MEDIAS_ACCESS_FAILED when it is no longer in its
// slot or another one is.
CK_TOKEN_INFO present(const token& listed) {
    CK_TOKEN_INFO info{};
    const state_lock reading(state_lock::purpose::reading);
    check(listed.module->C_GetTokenInfo(listed.slot, &info));
    require(
        unpadded(info.serialNumber) == listed.serial && unpadded(info.label) == listed.label,
        EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
    return info;
}

} // namespace

std::vector<token> listTokens() {
    std::vector<token> tokens;
    const state_lock reading(state_lock::purpose::reading);
    for (CK_FUNCTION_LIST* module : modules()) {
        for (const CK_SLOT_ID slot : slotsWithToken(module)) {
            CK_TOKEN_INFO info{};
            if (!worked(module->C_GetTokenInfo(slot, &info)) ||
                (info.flags & CKF_TOKEN_INITIALIZED) == 0) {
                continue;
            }
            const std::string serial = unpadded(info.serialNumber);
            if (!serial.empty()) {
                tokens.push_back({module, slot, serial, unpadded(info.label)});
            }
        }
    }
    return tokens;
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

attributes& attributes::add(CK_ATTRIBUTE_TYPE type, view value) {
    bytes& kept = values.emplace_back(value.begin(), value.end());
    list.push_back({type, kept.data(), kept.size()});
    return *this;
}

attributes& attributes::add(CK_ATTRIBUTE_TYPE type, std::string_view text) {
    return add(type, view(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

attributes& attributes::flag(CK_ATTRIBUTE_TYPE type, bool value) {
    const CK_BBOOL raw = value ? CK_TRUE : CK_FALSE;
    return add(type, view(&raw, 1));
}

attributes& attributes::number(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return add(type, view(reinterpret_cast<const unsigned char*>(&value), sizeof value));
}

session::session(token with, mode access) : on(std::move(with)), info(present(on)) {
    const bool writes = access == mode::read_write;
    require(
        !writes || (info.flags & CKF_WRITE_PROTECTED) == 0,
        EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED);
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (writes ? CKF_RW_SESSION : 0UL);
    check(call().C_OpenSession(on.slot, flags, nullptr, nullptr, &opened));
}

session::~session() {
    call().C_CloseSession(opened);
}

void session::login(std::string_view password) {
    require(
        password.size() >= info.ulMinPinLen &&
            (info.ulMaxPinLen == 0 || password.size() <= info.ulMaxPinLen), // 0: not told
        EU_ERROR_PASSWORD_LENGTH);

    call().C_Logout(opened); // fails where nobody is logged in, which is as good
    check(give(CKU_USER, password));
}

void session::loginForSignature(std::string_view password) const {
    check(give(CKU_CONTEXT_SPECIFIC, password));
}

CK_RV session::give(CK_USER_TYPE user, std::string_view password) const {
    // Hardware keeps count of its logins itself, and may be slow at them.
    CK_SLOT_INFO slot{};
    const bool hardware =
        call().C_GetSlotInfo(on.slot, &slot) == CKR_OK && (slot.flags & CKF_HW_SLOT) != 0;
    std::optional<state_lock> writing;
    if (!hardware) {
        writing.emplace(state_lock::purpose::writing);
    }
    // C_Login takes a pointer to writable characters and writes nothing there.
    auto* pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(password.data()));
    return call().C_Login(opened, user, pin, password.size());
}

std::vector<CK_OBJECT_HANDLE> session::find(attributes& wanted) const {
    std::vector<CK_OBJECT_HANDLE> found;
    std::array<CK_OBJECT_HANDLE, 16> batch{};
    CK_ULONG count = 0;
    check(call().C_FindObjectsInit(opened, wanted.data(), wanted.size()));
    CK_RV result = CKR_OK;
    do {
        result = call().C_FindObjects(opened, batch.data(), batch.size(), &count);
        if (result == CKR_OK) {
            found.insert(found.end(), batch.begin(), batch.begin() + count);
        }
    } while (result == CKR_OK && count > 0);
    call().C_FindObjectsFinal(opened);
    check(result);
    return found;
}

std::vector<CK_OBJECT_HANDLE> session::find(CK_OBJECT_CLASS objectClass) const {
    return find(attributes().number(CKA_CLASS, objectClass).flag(CKA_TOKEN, true));
}

std::optional<bytes> session::value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    // Room for most values at once: asking for the length first would double the calls, which are
    // what takes time.
    bytes contents(1024);
    CK_ATTRIBUTE attribute{type, contents.data(), contents.size()};
    CK_RV result = call().C_GetAttributeValue(opened, object, &attribute, 1);
    if (result == CKR_BUFFER_TOO_SMALL) {
        attribute.pValue = nullptr;
        result = call().C_GetAttributeValue(opened, object, &attribute, 1);
        if (result == CKR_OK && attribute.ulValueLen != CK_UNAVAILABLE_INFORMATION) {
            contents.resize(attribute.ulValueLen);
            attribute.pValue = contents.data();
            result = call().C_GetAttributeValue(opened, object, &attribute, 1);
        }
    }
    require(result != CKR_HOST_MEMORY, EU_ERROR_MEMORY);
    if (result == CKR_ATTRIBUTE_TYPE_INVALID || result == CKR_ATTRIBUTE_SENSITIVE ||
        result == CKR_OBJECT_HANDLE_INVALID || // another process has destroyed it, or is making it
        attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
        return std::nullopt;
    }
    check(result);
    contents.resize(attribute.ulValueLen);
    return contents;
}

std::optional<CK_ULONG> session::number(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    const auto raw = value(object, type);
    CK_ULONG result = 0;
    if (!raw || raw->size() != sizeof result) {
        return std::nullopt;
    }
    std::memcpy(&result, raw->data(), sizeof result);
    return result;
}

bool session::flag(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    const auto raw = value(object, type);
    return raw && !raw->empty() && raw->front() != CK_FALSE;
}

void session::destroy(CK_OBJECT_HANDLE object) const {
    check(call().C_DestroyObject(opened, object));
}

} // namespace eu
