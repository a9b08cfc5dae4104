#include "process/ending.h"

#include "process/streams.h"
#include "process/time_limit.h"

#include <orlek/log.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <limits>

#include <unistd.h>

namespace Orlek::Support::Velmora {

namespace {

constexpr int failed = 70;
constexpr int unsettled = std::numeric_limits<int>::min();

std::atomic<int> status = unsettled;
std::atomic<bool> answered = false;
pid_t guarded = 0; // a module may have children

// Main and what ends the process in its place may both come to this: whoever is first answers.
bool settle(int exitCode) {
    int expected = unsettled;
    return status.compare_exchange_strong(expected, exitCode);
}

// The failure comes before its record, so that nothing worse can happen than that the record is
// lost: a second crash ends here, and so does waiting for a lock that the first one left locked.
//
// No help is where the stack is used up, since the handler has none either, and where the loader
// itself ends the process: when it has no memory for the thread-local data of a library just
// loaded, it says so on standard error and exits with 127.
[[noreturn]] void end(const char* format, int number) {
    if (settle(failed)) {
        answerFailure();
        shortenTime();
        LogWrite(ORLEK_HERE, log_failure, format, number);
        logModuleOutput();
    }
    _exit(answered ? status.load() : failed); // an answer that is cut short is none
}

void onSignal(int number) {
    if (getpid() != guarded) {
        (void)std::signal(number, SIG_DFL);
        (void)std::raise(number);
        return;
    }
    end("fail: ended by a signal (%d)", number);
}

void onExit(int exitCode, void* /*nothing*/) {
    if (getpid() == guarded && exitCode != status) {
        end("fail: ended by a module's exit (%d)", exitCode);
    }
}

void onTimeout() {
    end("fail: ended after %d seconds without an answer", time_limit);
}

} // namespace

void guardEnding() {
    guarded = getpid();
    (void)on_exit(onExit, nullptr);
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_NODEFER;
    for (const int number : {SIGABRT, SIGALRM, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
        (void)sigaction(number, &action, nullptr);
    }
    limitTime(onTimeout);
}

int answerAndEnd(const cli_response& response) {
    while (!settle(response.exitCode)) { // another thread has failed for all
        pause();
    }
    const int exitCode = answer(response);
    answered = true;
    return exitCode;
}

} // namespace Orlek::Support::Velmora
