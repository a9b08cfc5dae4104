// How the process ends when it is not main that ends it.
#pragma once

namespace Orlek::Support::Velmora {

// A token's module is other people's code inside the process, and some crash or call exit, above
// all when memory runs out. From here on such an end is the command's failure, "FAIL\n" and 70, or,
// once there is an answer, the exit status that goes with it; a record of level 1 tells of it. To
// be called before anything that is undone when the process ends. A signal that something else
// (a sanitizer, the starting process) has taken care of before is left to that.
void guardEnding();

// Lets the answer out: from then on the process ends with this status.
void settleEnding(int exitCode, void (*answer)());

} // namespace Orlek::Support::Velmora
