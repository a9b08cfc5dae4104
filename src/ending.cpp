#include "ending.h"

#include <orlek/log.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace Orlek::Support::Velmora {

namespace {

constexpr std::string_view failure = "FAIL\n";

// Whoever takes the turn to answer, main or what ends the process in its place, keeps it.
std::atomic_flag answerTaken;
std::atomic<int> status = 70; // of the failure, until there is an answer
std::atomic<bool> answered = false;
pid_t guarded = 0; // a module may have children, whose ends are their own

// A second signal, or the alarm where the record waits for a lock that the crash left locked.
[[noreturn]] void endNow(int /*number*/) {
    _exit(status);
}

// The failure comes before its record, so that nothing worse can happen than that the record is
// lost. A thread that crashes while main answers waits for main to end the process.
//
// No help is where the stack is used up, since the handler has none either, and where the loader
// itself ends the process: when it has no memory for the thread-local data of a library just
// loaded, it says so on standard error and exits with 127.
[[noreturn]] void end(const char* cause, int number) {
    if (answerTaken.test_and_set()) {
        while (!answered && gettid() != getpid()) {
            pause();
        }
        _exit(status);
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)!write(STDOUT_FILENO, failure.data(), failure.size());

    sigset_t alarmSignal;
    sigemptyset(&alarmSignal);
    sigaddset(&alarmSignal, SIGALRM);
    (void)std::signal(SIGALRM, endNow);
    (void)pthread_sigmask(SIG_UNBLOCK, &alarmSignal, nullptr);
    constexpr unsigned seconds = 2;
    alarm(seconds);
    LogWrite(ORLEK_HERE, log_failure, "fail: %s (%d)", cause, number);
    _exit(status);
}

void onSignal(int number) {
    if (getpid() != guarded) {
        (void)std::signal(number, SIG_DFL);
        (void)std::raise(number);
        return;
    }
    end("ended by a signal", number);
}

void onExit(int exitCode, void* /*nothing*/) {
    if (getpid() == guarded && (!answered || exitCode != status)) {
        end("ended by a module's exit", exitCode);
    }
}

} // namespace

void guardEnding() {
    guarded = getpid();
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

void settleEnding(const std::function<int()>& answer) {
    if (answerTaken.test_and_set()) {
        for (;;) { // another thread has failed for all
            pause();
        }
    }
    status = answer();
    answered = true;
}

} // namespace Orlek::Support::Velmora
