#include "process/time_limit.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace Orlek::Support::Velmora {

namespace {

constexpr unsigned long long work = 64ULL << 20U;

struct limit_timer {
    int signal;
    time_t reserve; // what it comes later than the other, in seconds
    timer_t id = nullptr;
};

std::array timers = {limit_timer{SIGVTALRM, 0}, limit_timer{SIGKILL, 30}};
void (*whenExpired)() = nullptr;
int counters = -1; // of this process's input and output
unsigned long long readBefore = 0;

void startTimers(time_t seconds) {
    for (const auto& timer : timers) {
        const itimerspec once{{0, 0}, {seconds + timer.reserve, 0}};
        (void)timer_settime(timer.id, 0, &once, nullptr);
    }
}

unsigned long long bytesRead() {
    constexpr const char* name = "rchar: "; // of the first counter
    std::array<char, 64> text{};
    (void)!pread(counters, text.data(), text.size() - 1, 0);
    return std::strtoull(text.data() + std::strlen(name), nullptr, 10);
}

void onTimer(int /*signal*/) {
    const auto now = bytesRead();
    if (now - readBefore < work) {
        whenExpired();
    }
    readBefore = now;
    startTimers(time_limit);
}

} // namespace

void limitTime(void (*expired)()) {
    whenExpired = expired;
    counters = open("/proc/self/io", O_RDONLY | O_CLOEXEC);
    struct sigaction action {};
    action.sa_handler = onTimer;
    action.sa_flags = SA_RESTART | SA_NODEFER;
    (void)sigaction(SIGVTALRM, &action, nullptr);
    sigset_t used;
    sigemptyset(&used);
    sigaddset(&used, SIGVTALRM);
    (void)pthread_sigmask(SIG_UNBLOCK, &used, nullptr); // whatever the starting process blocked
    for (auto& timer : timers) {
        struct sigevent event {};
        event.sigev_signo = timer.signal;
        (void)timer_create(CLOCK_MONOTONIC, &event, &timer.id);
    }
    startTimers(time_limit);
}

void shortenTime() noexcept {
    constexpr time_t seconds = 2;
    readBefore = bytesRead();
    startTimers(seconds);
}

} // namespace Orlek::Support::Velmora
