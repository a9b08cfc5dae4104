#include "ending.h"

#include <orlek/log.h>

#include <csignal>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace Orlek::Support::Velmora {

namespace {

constexpr std::string_view failure = "FAIL\n";
volatile std::sig_atomic_t status = 70; // of the failure, until there is an answer
enum : std::sig_atomic_t { open, answering, answered };
volatile std::sig_atomic_t state = open;

// The failure comes before its record, so that nothing worse can happen than that the record is
// lost: a second signal, or the alarm where it waits for a lock that the crash left locked, ends
// it. A module's thread that crashes while the answer goes out waits for main to end the process.
//
// No help is where the loader itself ends the process: when it has no memory for the thread-local
// data of a library just loaded, it says so on standard error and exits with 127.
[[noreturn]] void end(const char* cause, int number) {
    while (state == answering && gettid() != getpid()) {
        pause();
    }
    if (state != answered) {
        state = answered;
        (void)!write(STDOUT_FILENO, failure.data(), failure.size());
        constexpr unsigned seconds = 2;
        alarm(seconds);
        LogWrite(ORLEK_HERE, log_failure, "fail: %s (%d)", cause, number);
    }
    _exit(status);
}

void onSignal(int number) {
    end("ended by a signal", number);
}

void onExit(int exitCode, void* /*nothing*/) {
    if (state != answered || exitCode != status) {
        end("ended by a module's exit", exitCode);
    }
}

} // namespace

void guardEnding() {
    (void)on_exit(onExit, nullptr);
    for (const int number : {SIGABRT, SIGALRM, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
        struct sigaction present {};
        if (sigaction(number, nullptr, &present) == 0 && present.sa_handler == SIG_DFL) {
            present.sa_handler = onSignal;
            present.sa_flags = SA_NODEFER;
            (void)sigaction(number, &present, nullptr);
        }
    }
}

void settleEnding(int exitCode, void (*answer)()) {
    state = answering;
    answer();
    status = exitCode;
    state = answered;
}

} // namespace Orlek::Support::Velmora
