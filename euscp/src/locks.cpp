#include "locks.h"

#include "errors.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace eu {

namespace {

using namespace std::chrono_literals;

// Whether the attempt succeeded in time; patience is what remains of that time.
template <class Attempt>
bool inTime(std::chrono::milliseconds& patience, std::chrono::milliseconds pause, Attempt attempt) {
    while (!attempt()) {
        if (patience < pause) {
            return false;
        }
        patience -= pause;
        std::this_thread::sleep_for(pause);
    }
    return true;
}

void release(int descriptor) {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

// This library's own file serves as the lock: all who use it can open it, and none has to make it.
int openOwnFile() {
    Dl_info own{};
    return ::dladdr(reinterpret_cast<void*>(&openOwnFile), &own) != 0
               ? ::open(own.dli_fname, O_RDONLY | O_CLOEXEC)
               : -1;
}

} // namespace

state_lock::state_lock(purpose use) : file(openOwnFile()) {
    static std::chrono::milliseconds patience = 30s; // of this process, in all: somebody hangs
    const int operation = use == purpose::writing ? LOCK_EX : LOCK_SH;
    inTime(patience, 2ms, [this, operation] {
        return ::flock(file, operation | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    });
}

state_lock::~state_lock() {
    release(file);
}

// A socket's name outside the file system serves as the lock: it takes no file that somebody would
// have to own, and one holder at a time. Where there are no such sockets, the work goes on without.
keys_lock::keys_lock(const std::string& serial)
    : name(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string text = "EUSignCP keys " + serial;
    const auto length = std::min(text.size(), sizeof address.sun_path - 1);
    std::copy_n(text.begin(), length, address.sun_path + 1); // after the zero that such names have
    std::chrono::milliseconds patience = 60s;
    const bool decided = inTime(patience, 20ms, [&] {
        return ::bind(
                   name,
                   reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length)) == 0 ||
               errno != EADDRINUSE;
    });
    if (!decided) {
        release(name);
        throw failure(EU_ERROR_KEY_MEDIAS_BUSY);
    }
}

keys_lock::~keys_lock() {
    release(name);
}

} // namespace eu
