// How the process ends when it is not main that ends it.
#pragma once

#include <orlek/cli.h>

namespace Orlek::Support::Velmora {

// A token's module is other people's code inside the process, and some crash, call exit, above all
// when memory runs out, or never return. From here on each of these is the command's failure:
// "FAIL\n", a record of level 1, and 70; once there is an answer, its exit status. A module has the
// time that time_limit.h tells. To be called after divertStreams, and before anything that is
// undone when the process ends. The ends of processes that a module starts are their own.
void guardEnding();

// Gives the answer and returns its exit status, with which the process ends from then on.
int answerAndEnd(const cli_response& response);

} // namespace Orlek::Support::Velmora
