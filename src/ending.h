// How the process ends when it is not main that ends it.
#pragma once

#include <functional>

namespace Orlek::Support::Velmora {

// A token's module is other people's code inside the process, and some crash or call exit, above
// all when memory runs out. From here on such an end is the command's failure: "FAIL\n", a record
// of level 1, and 70; once there is an answer, its exit status. To be called when the log is open
// and before anything that is undone when the process ends. A signal that something else (a
// sanitizer, the starting process) has taken care of before is left to that; so are the ends of
// processes that a module starts.
void guardEnding();

// Lets the answer out, which returns the exit status; from then on the process ends with that.
void settleEnding(const std::function<int()>& answer);

} // namespace Orlek::Support::Velmora
