// A session with a token, and the objects seen in it.
#pragma once

#include "bytes.h"
#include "token/token.h"

#include <deque>
#include <initializer_list>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace eu {

// A list of attributes with the storage of their values.
class attributes {
public:
    attributes() = default;
    attributes(const attributes&) = delete; // the list points into the values
    attributes& operator=(const attributes&) = delete;

    attributes& add(CK_ATTRIBUTE_TYPE type, view value);
    attributes& add(CK_ATTRIBUTE_TYPE type, std::string_view text);
    attributes& flag(CK_ATTRIBUTE_TYPE type, bool value);
    attributes& number(CK_ATTRIBUTE_TYPE type, CK_ULONG value);

    CK_ATTRIBUTE* data() { return list.data(); }
    CK_ULONG size() const { return list.size(); }

private:
    std::deque<bytes> values;
    std::vector<CK_ATTRIBUTE> list;
};

// What an object tells of itself: nothing of what it does not have, or hides.
class object_values {
public:
    void set(CK_ATTRIBUTE_TYPE type, bytes value) { values[type] = std::move(value); }

    const bytes* find(CK_ATTRIBUTE_TYPE type) const;
    std::optional<CK_ULONG> number(CK_ATTRIBUTE_TYPE type) const;
    std::optional<bool> flag(CK_ATTRIBUTE_TYPE type) const;

private:
    std::map<CK_ATTRIBUTE_TYPE, bytes> values;
};

class session {
public:
    enum class mode { read_only, read_write };

    // Throws EU_ERROR_KEY_MEDIAS_ACCESS_FAILED when the token is no longer in its slot or another
    // one is, EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED when it is not to be written.
    session(token with, mode access);
    ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    // Logs in as the user. The token is looked at once more, so that another one which has taken
    // its place is not tried: throws as the opening does. A login that another session of the
    // process left is ended first, so the token itself judges the password. A password of a length
    // that the token rules out is refused without costing an attempt.
    void login(std::string_view password);

    // Gives the password once more, for the one signature just begun.
    void loginForSignature(std::string_view password) const;

    // The objects that have all the attributes. One that a software token is still making, or was
    // killed at, lacks CKA_TOKEN: it may pass for a key, and asking for its value may write to it.
    std::vector<CK_OBJECT_HANDLE> find(attributes& wanted) const;
    std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass) const; // with CKA_TOKEN

    // Attributes of an object, in one call where the module answers it whole.
    object_values
    values(CK_OBJECT_HANDLE object, std::initializer_list<CK_ATTRIBUTE_TYPE> types) const;

    // An attribute of an object; nothing if the object does not have it, hides it or has gone.
    std::optional<bytes> value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    std::optional<CK_ULONG> number(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    bool flag(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;

    void destroy(CK_OBJECT_HANDLE object) const;

    const token& medium() const { return on; }
    CK_FUNCTION_LIST& call() const { return *on.module; }
    CK_SESSION_HANDLE handle() const { return opened; }

private:
    CK_RV give(CK_USER_TYPE user, std::string_view password) const;

    token on;
    CK_TOKEN_INFO info;
    CK_SESSION_HANDLE opened = CK_INVALID_HANDLE;
};

} // namespace eu
