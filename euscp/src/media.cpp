#include "media.h"

#include "token/modules.h"

#include <unistd.h>
#include <utility>

namespace eu {

namespace {

std::optional<std::vector<token>>& list() {
    static std::optional<std::vector<token>> listed;
    return listed;
}

// Whether there is a last look: not before the first, and not after the process's exit has ended
// it, which EUFinalize may come behind.
bool looked = false;

class kept_look {
public:
    kept_look() { looked = true; }
    ~kept_look() {
        looked = false;
        if (seen && ::getpid() != owner) { // a copy of the process ends no session of the process
            static_cast<void>(seen->with.release());
        }
    }
    kept_look(const kept_look&) = delete;
    kept_look& operator=(const kept_look&) = delete;

    std::optional<look> seen;

private:
    const pid_t owner = ::getpid();
};

// The modules' list is made before and so goes after it.
std::optional<look>& lastLook() {
    static const auto& loaded = modules();
    static kept_look last;
    static_cast<void>(loaded);
    return last.seen;
}

} // namespace

const std::vector<token>& listedMedia(bool afresh) {
    if (afresh || !list()) {
        lastLook().reset();
        list() = listTokens();
    }
    return *list();
}

const token& mediumOf(const EU_KEY_MEDIA& named) {
    require(named.dwTypeIndex == token_type, EU_ERROR_BAD_PARAMETER);
    const auto& media = listedMedia(false);
    require(named.dwDevIndex < media.size(), EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
    return media[named.dwDevIndex];
}

bool showsKey(const token& medium) {
    watched(medium, [&medium] { lastLook().emplace(medium); });
    return !lastLook()->shown.keys.empty();
}

std::optional<look> takenLook(const token& medium) {
    std::optional<look> last = std::exchange(lastLook(), std::nullopt);
    return last && last->with->medium() == medium ? std::move(last) : std::nullopt;
}

void forgetLook() {
    if (looked) {
        lastLook().reset();
    }
}

} // namespace eu
