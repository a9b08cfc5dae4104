// Where the standard streams led at the start.
#pragma once

#include <array>

namespace Orlek {

// The descriptors that lead where 0, 1 and 2 did at the start, whatever those lead to by now.
inline std::array<int, 3> standard_streams{0, 1, 2};

} // namespace Orlek
