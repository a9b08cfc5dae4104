#include "token/session.h"

#include "texts.h"
#include "token/locks.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace eu {

namespace {

// Room for most values at once: asking for the length first would double the calls, which are what
// takes time.
constexpr std::size_t value_room = 1024;

// The password is the one argument of a login that can be bad: some modules say so of its length.
void checkLogin(CK_RV result) {
    const bool length = result == CKR_ARGUMENTS_BAD || result == CKR_DATA_LEN_RANGE;
    check(length ? CKR_PIN_LEN_RANGE : result);
}

} // namespace

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

const bytes* object_values::find(CK_ATTRIBUTE_TYPE type) const {
    const auto found = values.find(type);
    return found != values.end() ? &found->second : nullptr;
}

std::optional<CK_ULONG> object_values::number(CK_ATTRIBUTE_TYPE type) const {
    const bytes* raw = find(type);
    CK_ULONG result = 0;
    if (raw == nullptr || raw->size() != sizeof result) {
        return std::nullopt;
    }
    std::memcpy(&result, raw->data(), sizeof result);
    return result;
}

std::optional<bool> object_values::flag(CK_ATTRIBUTE_TYPE type) const {
    const bytes* raw = find(type);
    return raw != nullptr && !raw->empty() ? std::optional(raw->front() != CK_FALSE) : std::nullopt;
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
    info = present(on);
    require(
        password.size() >= info.ulMinPinLen &&
            (info.ulMaxPinLen == 0 || password.size() <= info.ulMaxPinLen), // 0: not told
        EU_ERROR_PASSWORD_LENGTH);

    call().C_Logout(opened); // fails where nobody is logged in, which is as good
    checkLogin(give(CKU_USER, password));
}

void session::loginForSignature(std::string_view password) const {
    checkLogin(give(CKU_CONTEXT_SPECIFIC, password));
}

CK_RV session::give(CK_USER_TYPE user, std::string_view password) const {
    // Hardware keeps count of its logins itself, and may be slow at them.
    CK_SLOT_INFO slot{};
    const bool hardware =
        call().C_GetSlotInfo(on.slot, &slot) == CKR_OK && (slot.flags & CKF_HW_SLOT) != 0;
    std::optional<state_lock> writing;
    if (!hardware) {
        writing.emplace(state_lock::purpose::writing, on.module, on.serial);
    }
    // C_Login takes a pointer to writable characters and writes nothing there.
    auto* pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(password.data()));
    return call().C_Login(opened, user, pin, password.size());
}

std::vector<CK_OBJECT_HANDLE> session::find(attributes& wanted) const {
    std::vector<CK_OBJECT_HANDLE> found;
    std::array<CK_OBJECT_HANDLE, 64> batch{};
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

object_values
session::values(CK_OBJECT_HANDLE object, std::initializer_list<CK_ATTRIBUTE_TYPE> types) const {
    bytes room(types.size() * value_room);
    std::vector<CK_ATTRIBUTE> asked;
    for (const CK_ATTRIBUTE_TYPE type : types) {
        asked.push_back({type, room.data() + asked.size() * value_room, value_room});
    }
    const CK_RV result = call().C_GetAttributeValue(opened, object, asked.data(), asked.size());
    const bool told = result == CKR_OK || result == CKR_ATTRIBUTE_TYPE_INVALID ||
                      result == CKR_ATTRIBUTE_SENSITIVE;
    object_values found;
    for (const CK_ATTRIBUTE& each : asked) {
        // After a failure, an attribute that stands as it was asked for was not looked at.
        if (!told || (result != CKR_OK && each.ulValueLen == value_room)) {
            if (auto alone = value(object, each.type)) {
                found.set(each.type, std::move(*alone));
            }
        } else if (each.ulValueLen <= value_room) {
            const auto* start = static_cast<const unsigned char*>(each.pValue);
            found.set(each.type, bytes(start, start + each.ulValueLen));
        }
    }
    return found;
}

std::optional<bytes> session::value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    bytes contents(value_room);
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
    return values(object, {type}).number(type);
}

bool session::flag(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    return values(object, {type}).flag(type).value_or(false);
}

void session::destroy(CK_OBJECT_HANDLE object) const {
    checkChange(call().C_DestroyObject(opened, object));
}

} // namespace eu
