// log_call NAME COUNT MESSAGE: opens the log of that name and writes so many records with the
// message, for the sessions in golden/; and one each that is no record, one whose conversion fails,
// one of a thread that is cancelled, and one after the end of main. CUT in the environment is how
// much of a record the disk has room for, and BEHIND what others then write behind it.
#include <log2.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

extern "C" [[gnu::visibility("default")]] ssize_t write(
    int file, const void* data, std::size_t size) {
    const char* cut = std::getenv("CUT");
    const std::size_t room = cut != nullptr ? std::strtoul(cut, nullptr, 10) : size;
    const auto written = ::syscall(SYS_write, file, data, std::min(size, room));
    if (const char* text = std::getenv("BEHIND")) {
        const auto path = "/proc/self/fd/" + std::to_string(file);
        const int other = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        ::syscall(SYS_write, other, text, std::string(text).size());
    }
    return written;
}

static void atTheExit() { LogWrite("src/a.cpp", 42, "f", 4, "at the exit: %zu", std::size_t{3}); }

// A call is carried out to its end, and the thread ends behind it.
static void* cancelled(void* nothing) {
    ::pthread_cancel(::pthread_self());
    LogWrite("src/a.cpp", 1, "f", 4, "cancelled");
    ::pthread_testcancel();
    LogWrite("src/a.cpp", 1, "f", 4, "after the end of its thread");
    return nothing;
}

int main(int, char** argv) {
    errno = ENOENT;
    LogWrite("src/a.cpp", 1, "f", 1, "before the opening");
    LogOpen2(argv[1], 4, 0);
    for (int i = 0; i < std::atoi(argv[2]); ++i) {
        LogWrite("a\nb", i, i % 2 != 0 ? nullptr : "f", 1, "%s", argv[3]);
    }
    LogWrite("src/a.cpp", 1, "f", 5, "above the level");
    LogWrite("src/a.cpp", 1, "f", 1, nullptr);
    char** const variables = std::exchange(environ, nullptr);
    LogOpen2(argv[1], 4, 0);
    LogWrite("src/a.cpp", 1, "f", 1, "without a place");
    environ = variables;
    LogOpen2(argv[1], 4, 0);
    LogClose();
    LogWrite("src/a.cpp", 1, "f", 1, "after the closing");
    LogOpen2(argv[1], 4, 0);
    LogWrite(nullptr, -1, "", 4, "%lc is no character", wint_t{0xD800});
    pthread_t thread{};
    ::pthread_create(&thread, nullptr, cancelled, nullptr);
    ::pthread_join(thread, nullptr);
    std::atexit(atTheExit);
    return errno == ENOENT ? 0 : 1; // as it was
}
