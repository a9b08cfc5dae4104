#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <log2.h>
#include <vector>

static std::vector<std::string> captured;

std::string takeLog(const std::string& start) {
    std::string result;
    for (const auto& line : captured) {
        result += line.substr(line.starts_with(start) ? start.size() : 0) + '\n';
    }
    captured.clear();
    return result;
}

void LogWrite(const char* file, int, const char* function, int level, const char* format, ...) {
    char message[8192];
    va_list values;
    va_start(values, format);
    (void)std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    captured.push_back(
        std::string(file) + ' ' + std::to_string(level) + ' ' + function + ' ' + message);
}
