// liblog2 as a recorder: every call becomes a line of the transcript. After a failure's it does not
// return, or crashes, if LOG_END is "hang" or "crash". And the C library's conversion of texts,
// which cannot be started if ICONV is "none", and has no room left if it is "full".
#include <log2.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>

#include <iconv.h>
#include <unistd.h>

#include "double.h"

void LogOpen2(const char* name, int level, int flag) {
    transcribe("LogOpen2(\"" + std::string{name} + "\", " + std::to_string(level) + ", " +
               std::to_string(flag) + ")");
}

void LogWrite(const char* file, int, const char* function, int level, const char* format, ...) {
    char message[8192];
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    transcribe(std::to_string(level) + " " + file + " " + function + ": " + message);
    const auto end = setting("LOG_END");
    if (level == 1 && end == "crash") { std::raise(SIGSEGV); }
    while (level == 1 && end == "hang") { ::pause(); }
}

void LogClose(void) { transcribe("LogClose()"); }

extern "C" [[gnu::visibility("default")]] iconv_t iconv_open(const char* to, const char* from) {
    if (setting("ICONV") == "none") { return errno = EMFILE, reinterpret_cast<iconv_t>(-1); }
    return real(__func__, iconv_open)(to, from);
}

extern "C" [[gnu::visibility("default")]] std::size_t iconv(
    iconv_t converter, char** in, std::size_t* in_left, char** out, std::size_t* room) {
    const auto result = real(__func__, iconv)(converter, in, in_left, out, room);
    if (setting("ICONV") == "full") { *room = 0; }
    return result;
}
