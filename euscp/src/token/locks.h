// What keeps processes that use a token at once out of each other's way. PKCS#11 has no lock that
// two processes share, so these are the system's: ranges of /dev/null, which everybody can open
// and lock, and nobody has to make. A process that dies lets them go, and none of them is waited
// for without end.
#pragma once

#include <chrono>
#include <p11-kit/pkcs11.h>
#include <string>
#include <sys/types.h>

namespace eu {

// A range of numbers, locked by this object alone (to write) or along with others (to read).
class range_lock {
public:
    struct range {
        off_t start;
        off_t length;

        bool operator==(const range&) const = default;
    };

    range_lock();
    ~range_lock();
    range_lock(const range_lock&) = delete;
    range_lock& operator=(const range_lock&) = delete;

    // The range that another holder has in the way of the lock; of no length once it is had, or
    // cannot be had at all: then the work goes on without.
    range blockedBy(short type, range wanted) const;

private:
    int file;
};

// Held while a module reads the state of its tokens, or may rewrite that of one. A software token's
// module keeps it in a file, which a login rewrites: for a moment it is empty, and whoever reads it
// then takes the token for absent. Many read at once; one writes alone. Logins on different tokens
// do not meet. Another process that hangs is waited for: 30 seconds by a login at the same token, 5
// by a login while tokens are listed, and by a list; any number that follow one another, two
// minutes. Then the work goes on beside it, but those at one token still take turns when it is a
// list that hangs.
class state_lock {
public:
    // To read the state of all the module's tokens.
    explicit state_lock(CK_FUNCTION_LIST* module);

    // To read or rewrite that of one.
    enum class purpose { reading, writing };
    state_lock(purpose use, CK_FUNCTION_LIST* module, const std::string& serial);

private:
    void take(short type, range_lock::range wanted, std::chrono::microseconds patience);
    void takeAround(
        range_lock::range held,
        short type,
        range_lock::range wanted,
        std::chrono::microseconds patience);

    range_lock lock;
};

// Held by the one process of this machine that makes or destroys a token's keys. Of two that make a
// key at once, the second finds the first one's; and an unfinished generation that it finds is a
// dead process's. Waits for another holder for a minute, then throws EU_ERROR_KEY_MEDIAS_BUSY.
class keys_lock {
public:
    explicit keys_lock(const std::string& serial);

private:
    range_lock lock;
};

} // namespace eu
