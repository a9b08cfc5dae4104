// The PKCS#11 modules that p11-kit has registered.
#pragma once

#include <p11-kit/p11-kit.h>
#include <vector>

namespace eu {

// The initialised modules, in p11-kit's order, without those that only hold trust policy. The
// first call loads them; they are finalised when the process exits. A module that does not start
// is left out.
// Throws failure (EU_ERROR_KEY_MEDIAS_FAILED) when there is no list of modules to be had.
const std::vector<CK_FUNCTION_LIST*>& modules();

} // namespace eu
