// liblog2 as a recorder: every call becomes a line of the transcript.
#include <log2.h>

#include <cstdarg>
#include <cstdio>

#include "transcript.h"

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
}

void LogClose(void) { transcribe("LogClose()"); }
