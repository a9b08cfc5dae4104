// log_call NAME COUNT MESSAGE: opens the log of that name and writes so many records with the
// message, for the sessions in golden/; and one each that is no record, and after the end of main.
#include <log2.h>

#include <cerrno>
#include <cstdlib>

static void atTheExit() { LogWrite("src/a.cpp", 42, "f", 4, "at the exit: %zu", std::size_t{3}); }

int main(int, char** argv) {
    errno = ENOENT;
    LogWrite("src/a.cpp", 1, "f", 1, "before the opening");
    LogOpen2(argv[1], 4, 0);
    for (int i = 0; i < std::atoi(argv[2]); ++i) {
        LogWrite("a\nb", i, i % 2 != 0 ? nullptr : "f", 1, "%s", argv[3]);
    }
    LogWrite("src/a.cpp", 1, "f", 5, "above the level");
    LogClose();
    LogWrite("src/a.cpp", 1, "f", 1, "after the closing");
    LogOpen2(argv[1], 4, 0);
    std::atexit(atTheExit);
    return errno == ENOENT ? 0 : 1;
}
