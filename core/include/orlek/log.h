// What every file that logs shares: the levels in use, and the place of the caller.
#pragma once

#include <log2.h>

namespace Orlek {

inline constexpr int log_failure = 1;
inline constexpr int log_tolerated = 2; // a failure that the operation gets past
inline constexpr int log_progress = 4;

// Where a record is written from, for what several operations have in common. Made with
// {ORLEK_HERE}.
struct place {
    const char* file;
    int line;
    const char* function;
};

} // namespace Orlek

// The first three arguments of LogWrite. A macro, because only one can name the function it is
// used in and still leave the format to be checked against its values.
#define ORLEK_HERE __FILE__, __LINE__, __func__
