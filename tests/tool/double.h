// What the doubles share: their settings, which are environment variables; the transcript, in which
// they write down, line by line, what the program asks of them; and what they stand in front of.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

#include <dlfcn.h>

inline std::string setting(const std::string& name, const std::string& otherwise = "") {
    const char* value = std::getenv(name.c_str());
    return value ? value : otherwise;
}

// What a setting that reads "k:what" tells for this call, if that is the k-th.
inline std::string due(const std::string& name, int call) {
    const auto plan = setting(name, "0:");
    return call == std::stoi(plan) ? plan.substr(plan.find(':') + 1) : "";
}

inline void transcribe(const std::string& line) {
    std::ofstream transcript{setting("TRANSCRIPT"), std::ios::app};
    for (const char c : line) { transcript << (c == '\n' ? "\\n" : std::string(1, c)); }
    transcript << '\n';
}

// The function of this name, and of the other one's type, in the libraries loaded later.
template <class function>
function* real(const char* name, function* /*other*/) {
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, name));
}
