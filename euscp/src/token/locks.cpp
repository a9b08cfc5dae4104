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

// The ranges in use: every module has one against the lists of its tokens and one for those at its
// tokens, and each token has one in either; behind them stand the numbers of those whose keys are
// made. A range is held from its start, as many numbers as the holder's process number says:
// whoever waits sees by the length that one holder has followed another.
constexpr off_t a_token = off_t{1} << 16;
constexpr off_t all_tokens = off_t{1} << 40;
constexpr off_t own_states = off_t{1} << 41;
constexpr off_t a_module = off_t{1} << 42;
constexpr off_t states_start = off_t{1} << 60;
constexpr off_t keys_start = off_t{1} << 61;

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
    const auto number = known ? static_cast<off_t>(file.st_ino & 0x3FFFF) : 0;
    return states_start + number * a_module;
}

off_t stateOf(CK_FUNCTION_LIST* module, std::string_view serial) {
    return statesOf(module) + numberOf(serial) % (all_tokens / a_token) * a_token;
}

off_t ownLength() {
    return ::getpid() % a_token;
}

// Sleeps through a wait in steps, which grow: a software token's login takes a millisecond, a
// generation seconds.
class steps {
public:
    steps(microseconds longest, microseconds inAll) : limit(longest), left(inAll) {}

    // Sleeps for a step: how long, 0 if the wait has been long enough.
    microseconds next() {
        const microseconds step = pause <= left ? pause : 0us;
        std::this_thread::sleep_for(step);
        left -= step;
        pause = std::min(2 * pause, limit);
        return step;
    }

private:
    microseconds pause = 50us;
    microseconds limit;
    microseconds left;
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
    take(F_RDLCK, {statesOf(module), all_tokens + ownLength()}, 5s);
}

state_lock::state_lock(purpose use, CK_FUNCTION_LIST* module, const std::string& serial) {
    const range_lock::range listed{stateOf(module, serial), 1 + ownLength()};
    if (use == purpose::writing) {
        take(F_WRLCK, listed, 5s);
    }
    take(
        use == purpose::writing ? F_WRLCK : F_RDLCK,
        {listed.start + own_states, listed.length},
        30s);
}

void state_lock::take(short type, range_lock::range wanted, microseconds patience) {
    static range_lock::range holder{}; // the last one that stood in the way,
    static microseconds waited = 0us;  // and how long it has, of this process's time in all
    steps waiting(1ms, 120s);
    for (;;) {
        const auto held = lock.blockedBy(type, wanted);
        if (held.length == 0) {
            return;
        }
        if (held != holder) {
            holder = held;
            waited = 0us;
        }
        const microseconds slept = waited < patience ? waiting.next() : 0us;
        if (slept == 0us) {
            return takeAround(held, type, wanted, patience);
        }
        waited += slept;
    }
}

// What of a range nobody holds, if anything.
void state_lock::takeAround(
    range_lock::range held,
    short type,
    range_lock::range wanted,
    microseconds patience) {
    const off_t end = wanted.start + wanted.length;
    // A holder's slot is a_token wide, however short its process number makes the range.
    const off_t heldEnd = held.start + std::max(held.length, a_token);
    if (wanted.start < held.start) {
        take(type, {wanted.start, held.start - wanted.start}, patience);
    }
    if (heldEnd < end) {
        take(type, {heldEnd, end - heldEnd}, patience);
    }
}

keys_lock::keys_lock(const std::string& serial) {
    steps waiting(20ms, 60s);
    while (lock.blockedBy(F_WRLCK, {keys_start + numberOf(serial), 1}).length != 0) {
        require(waiting.next() != 0us, EU_ERROR_KEY_MEDIAS_BUSY);
    }
}

} // namespace eu
