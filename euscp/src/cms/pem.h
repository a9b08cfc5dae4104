// PEM (RFC 7468): binary in lines of text.
#pragma once

#include "bytes.h"

#include <initializer_list>
#include <optional>
#include <string_view>

namespace eu {

// What the first PEM block under one of the labels holds; nothing if there is no such block or it
// is malformed. Lines may have any length and end with LF or CRLF, text may stand around the block.
// No two blocks with the same lines hold the same: every character counts. The text has to be
// shorter than 1 GiB.
std::optional<bytes> pemContents(view text, std::initializer_list<std::string_view> labels);

// Whether the bytes start a SEQUENCE of more than 127 bytes, in DER or BER, as every certificate
// and every signature does. No text begins so.
bool looksLikeDer(view encoding);

} // namespace eu
