// What keeps processes that use a token at once out of each other's way. PKCS#11 has no lock that
// two processes share, so these are the system's: a process that dies lets them go, and none of
// them is waited for without end.
#pragma once

#include <string>

namespace eu {

// Held while a module reads the state of its tokens (reading), or may rewrite it (writing). A
// software token's module keeps that state in a file, which a login rewrites: for a moment it is
// empty, and whoever reads it then takes the token for absent. Many read at once; one writes alone.
// If the lock cannot be had, the work goes on without.
class state_lock {
public:
    enum class purpose { reading, writing };

    explicit state_lock(purpose use);
    ~state_lock();
    state_lock(const state_lock&) = delete;
    state_lock& operator=(const state_lock&) = delete;

private:
    int file;
};

// Held by the one process of this machine (of one network namespace, where it has several) that
// makes or destroys a token's keys. Of two that make a
// key at once, the second finds the first one's; and an unfinished generation that it finds is a
// dead process's. Waits for another holder for a minute, then throws EU_ERROR_KEY_MEDIAS_BUSY.
class keys_lock {
public:
    explicit keys_lock(const std::string& serial);
    ~keys_lock();
    keys_lock(const keys_lock&) = delete;
    keys_lock& operator=(const keys_lock&) = delete;

private:
    int name;
};

} // namespace eu
