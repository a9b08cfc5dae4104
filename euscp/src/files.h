// The files that a signature is made of.
#pragma once

#include "bytes.h"

namespace eu {

// The SHA-256 of a regular file, read once in pieces. Throws EU_ERROR_FILE_READ.
bytes fileDigest(const char* path);

// Throws EU_ERROR_FILE_WRITE unless the target, if it exists, is a regular file other than the
// source.
void checkTarget(const char* target, const char* source);

// Writes a whole file: a temporary file beside the target, synced and renamed over it. The target
// ends up whole or is left as it was; one that exists keeps its permissions, and a link to it
// stays a link. Throws EU_ERROR_FILE_WRITE.
void replaceFile(const char* path, view contents);

} // namespace eu
