// Where an archive is made, before it comes into its place.
#pragma once

#include "fs/target.h"

#include <string>

namespace Orlek::Support::Velmora::Fs {

// libzip copies the mode of what it finds under an archive's name, set-id bits included, and goes
// by the name at every step; so where that may be somebody else's file, or become one, it works
// beside it, under a name that nobody foresees. What was made there goes with this, unless it was
// settled.
class new_archive {
public:
    explicit new_archive(const target& archive);
    ~new_archive();
    new_archive(const new_archive&) = delete;
    new_archive& operator=(const new_archive&) = delete;

    [[nodiscard]] const char* path() const { return name.c_str(); }

    // Why the archive must not be made, or null. What is not looked at here, libzip refuses.
    [[nodiscard]] const char* obstacle() const;

    // Puts the archive that was made into its place, with the permissions of one's own that was
    // there. False, with errno set, if it cannot.
    bool settle();

private:
    [[nodiscard]] bool givePermissions() const;

    const target& at;
    bool aside;
    std::string name;
};

} // namespace Orlek::Support::Velmora::Fs
