// The key media, as callers name them: by index, in the list that was taken last.
#pragma once

#include "token/private_key.h"

#include <EUSignCP.h>

#include <optional>
#include <vector>

namespace eu {

// The one media type's index.
inline constexpr DWORD token_type = 0;

// The media in the order of their indexes. The list is taken afresh if that is asked for, or if
// there was none yet.
const std::vector<token>& listedMedia(bool afresh);

// The medium that a caller's record names. Throws EU_ERROR_BAD_PARAMETER for another type,
// EU_ERROR_KEY_MEDIAS_ACCESS_FAILED for an index past the list.
const token& mediumOf(const EU_KEY_MEDIA& named);

// Whether the medium shows a signing key. What was seen is kept for the opening that follows.
bool showsKey(const token& medium);

// What was last seen, if it was of this medium; it is the caller's from then on.
std::optional<look> takenLook(const token& medium);

// Ends the session of the last look.
void forgetLook();

} // namespace eu
