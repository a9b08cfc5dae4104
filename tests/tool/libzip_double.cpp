// libzip with every call written down, and with the one that ZIP_FAIL names ("k:code", the k-th)
// made to fail; the rest is the real library's.
#include <zip.h>

#include <type_traits>

#include "double.h"

namespace {

void* const libzip = ::dlopen(REAL_LIBZIP, RTLD_NOW);
int calls = 0; // that can fail

template <class result, class... values>
result call(const char* name, result (*other)(zip_t*, values...),
    std::type_identity_t<result> failed, zip_t* archive, std::type_identity_t<values>... given) {
    const auto code = due("ZIP_FAIL", ++calls);
    const auto answer = code.empty() ? real(name, other, libzip)(archive, given...) : failed;
    if (!code.empty()) {
        auto* error = real<decltype(zip_get_error)>("zip_get_error", nullptr, libzip)(archive);
        real<decltype(zip_error_set)>("zip_error_set", nullptr, libzip)(error, std::stoi(code), 0);
    }
    transcribe(std::string{name} + (answer == failed ? " failed" : ""));
    return answer;
}

} // namespace

zip_t* zip_open(const char* path, int flags, int* error) {
    const auto code = due("ZIP_FAIL", ++calls);
    *error = code.empty() ? 0 : std::stoi(code);
    auto* archive = *error ? nullptr : real(__func__, zip_open, libzip)(path, flags, error);
    transcribe(archive ? __func__ : "zip_open failed");
    return archive;
}

zip_source_t* zip_source_buffer(zip_t* archive, const void* data, zip_uint64_t size, int freeing) {
    return call(__func__, zip_source_buffer, nullptr, archive, data, size, freeing);
}

zip_int64_t zip_file_add(zip_t* archive, const char* name, zip_source_t* source, zip_flags_t how) {
    return call(__func__, zip_file_add, -1, archive, name, source, how);
}

int zip_file_set_external_attributes(
    zip_t* archive, zip_uint64_t index, zip_flags_t how, zip_uint8_t system, zip_uint32_t value) {
    return call(__func__, zip_file_set_external_attributes, -1, archive, index, how, system, value);
}

int zip_close(zip_t* archive) { return call(__func__, zip_close, -1, archive); }

void zip_source_free(zip_source_t* source) {
    transcribe(__func__);
    real(__func__, zip_source_free, libzip)(source);
}

void zip_discard(zip_t* archive) {
    transcribe(__func__);
    real(__func__, zip_discard, libzip)(archive);
}

const char* zip_strerror(zip_t* archive) { return real(__func__, zip_strerror, libzip)(archive); }
