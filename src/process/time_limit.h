// How long a command may take.
#pragma once

namespace Orlek::Support::Velmora {

inline constexpr int time_limit = 600; // seconds

// A command that has not ended after ten minutes is looked at every ten minutes: one that has read
// at least 64 MiB since the last look is at work on a large file, and goes on; any other hangs in a
// module, and `expired` is called, from a signal handler of the main thread. Half a minute later,
// if the process still lives since a module has blocked all signals, SIGKILL ends it. Neither
// alarm() nor the timers of a module disturb this. To be called while /proc may be read: before
// forbidDumps.
void limitTime(void (*expired)());

// Two seconds from now, and `expired` is called again.
void shortenTime() noexcept;

} // namespace Orlek::Support::Velmora
