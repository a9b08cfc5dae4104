// Byte strings: what is owned, and what is only looked at.
#pragma once

#include <span>
#include <vector>

namespace eu {

using bytes = std::vector<unsigned char>;
using view = std::span<const unsigned char>;

} // namespace eu
