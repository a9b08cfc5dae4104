#include "token/locks.h"

#include "errors.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace eu {

namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

// The ranges in use: every module has one for the states of its tokens, a number each; behind them
// stand the numbers of those whose keys are made.
constexpr off_t states_start = off_t{1} << 60;
constexpr off_t keys_start = off_t{1} << 61;
constexpr off_t tokens_a_module = off_t{1} << 32;

// Two serials may get one number, and then wait for each other.
off_t numberOf(std::string_view serial) {
    return static_cast<off_t>(static_cast<std::uint32_t>(std::hash<std::string_view>{}(serial)));
}

// The module's range, by the file that its code is in: its name differs between registrations.
off_t statesOf(CK_FUNCTION_LIST* module) {
    Dl_info code{};
    struct stat file {};
    const bool known = ::dladdr(reinterpret_cast<void*>(module->C_GetFunctionList), &code) != 0 &&
                       ::stat(code.dli_fname, &file) == 0;
    const auto number = known ? static_cast<off_t>(file.st_ino & 0xFFFFFF) : 0;
    return states_start + number * tokens_a_module;
}

// Sleeps for the next step of a wait; false if there is no patience left for it. The steps grow:
// a software token's login takes a millisecond, a generation seconds.
class steps {
public:
    explicit steps(microseconds longest) : limit(longest) {}

    bool next(microseconds& patience) {
        if (patience < pause) {
            return false;
        }
        patience -= pause;
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, limit);
        return true;
    }

private:
    microseconds pause = 50us;
    microseconds limit;
};

} // namespace

range_lock::range_lock() : file(::open("/dev/null", O_RDWR | O_CLOEXEC)) {}

range_lock::~range_lock() {
    if (file >= 0) {
        ::close(file);
    }
}

range_lock::range range_lock::blockedBy(short type, range wanted) const {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = wanted.start;
    lock.l_len = wanted.length;
    struct flock holder = lock;
    if (::fcntl(file, F_OFD_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES) ||
        ::fcntl(file, F_OFD_GETLK, &holder) != 0) {
        return {};
    }
    return {holder.l_start, holder.l_len}; // the wanted one if its holder has just gone
}

state_lock::state_lock(CK_FUNCTION_LIST* module) {
    take(F_RDLCK, {statesOf(module), tokens_a_module});
}

state_lock::state_lock(purpose use, CK_FUNCTION_LIST* module, const std::string& serial) {
    const short type = use == purpose::writing ? F_WRLCK : F_RDLCK;
    take(type, {statesOf(module) + numberOf(serial), 1});
}

void state_lock::take(short type, range_lock::range wanted) {
    static microseconds forOthers = 1s; // of this process, in all: somebody hangs
    static microseconds forOwn = 30s;
    const off_t end = wanted.start + wanted.length;
    steps waiting(1ms);
    for (;;) {
        const auto held = lock.blockedBy(type, wanted);
        if (held.length == 0) {
            return;
        }
        if (!waiting.next(held.length == wanted.length ? forOwn : forOthers)) {
            const off_t heldEnd = held.start + held.length;
            if (wanted.start < held.start) { // what is held by nobody, if anything
                take(type, {wanted.start, held.start - wanted.start});
            }
            if (heldEnd < end) {
                take(type, {heldEnd, end - heldEnd});
            }
            return;
        }
    }
}

keys_lock::keys_lock(const std::string& serial) {
    microseconds patience = 60s;
    steps waiting(20ms);
    while (lock.blockedBy(F_WRLCK, {keys_start + numberOf(serial), 1}).length != 0) {
        require(waiting.next(patience), EU_ERROR_KEY_MEDIAS_BUSY);
    }
}

} // namespace eu
