// Passwords in this process: nothing of them stays readable longer than it is needed.
#pragma once

namespace Orlek::Support::Velmora {

// Keeps the process from being dumped to a core file and read by other processes of its user
// (prctl PR_SET_DUMPABLE; the process is an administrator's to debug then).
void forbidDumps();

// Overwrites what follows the group and the command word on the process's command line, which
// everybody on the machine can read. `argv` is main's own; its texts are empty from then on.
void wipeParameters(int argc, char** argv);

// Overwrites what finished calls left on the stack below the caller. The heap needs no such call:
// memory is wiped whenever it is given back.
void wipeStack();

} // namespace Orlek::Support::Velmora
