// How the key objects that a generation makes are named, which tells them from other tools' keys.
#pragma once

#include "token/session.h"

namespace eu {

enum class purpose : unsigned char { ds, kep };

const char* labelOf(purpose use);

// How a generation's key objects are named: by the label of their purpose, and by a CKA_ID of
// random bytes that the generation's objects share, with the purpose behind.
struct key_name {
    bytes generation;
    purpose use;

    bytes id() const;
};

// A new generation's name. Where a module takes the identifier's first byte for the number of a
// slot, there is none of that number: a key that is in one already is not to be written over.
bytes newGeneration();

// The name in an object's CKA_ID and CKA_LABEL; nothing for one that no generation made.
std::optional<key_name> nameIn(const object_values& told);

} // namespace eu
