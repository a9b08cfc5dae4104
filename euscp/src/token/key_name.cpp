#include "token/key_name.h"

#include "openssl.h"

#include <openssl/rand.h>

namespace eu {

namespace {

constexpr std::size_t generation_size = 16;

std::string_view asText(const bytes& value) {
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

} // namespace

const char* labelOf(purpose use) {
    return use == purpose::ds ? "DS" : "KEP";
}

bytes key_name::id() const {
    bytes whole = generation;
    whole.push_back(static_cast<unsigned char>(use));
    return whole;
}

bytes newGeneration() {
    bytes name(generation_size);
    succeed(RAND_bytes(name.data(), static_cast<int>(name.size())));
    constexpr unsigned char no_slot = 0xE0; // PIV's are 0x01 to 0x19, or 0x80 to 0x9E and 0xF9
    name.front() = static_cast<unsigned char>(no_slot | (name.front() & 0x0F));
    return name;
}

std::optional<key_name> nameIn(const object_values& told) {
    const bytes* const id = told.find(CKA_ID);
    const bytes* const label = told.find(CKA_LABEL);
    if (id == nullptr || label == nullptr || id->size() != generation_size + 1) {
        return std::nullopt;
    }
    for (const purpose use : {purpose::ds, purpose::kep}) {
        if (id->back() == static_cast<unsigned char>(use) && asText(*label) == labelOf(use)) {
            return key_name{bytes(id->begin(), id->end() - 1), use};
        }
    }
    return std::nullopt;
}

} // namespace eu
