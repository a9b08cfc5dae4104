// libzip with every call written down, and with the one that ZIP_FAIL names ("k:code", the k-th)
// made to fail; the rest is the real library's.
#include <zip.h>

#include <dlfcn.h>

#include "transcript.h"

namespace {

// The function of this name, and of the other one's type, in the real library.
template <class function>
function* real(const char* name, function* /*other*/ = nullptr) {
    static void* const library = ::dlopen(REAL_LIBZIP, RTLD_NOW);
    return reinterpret_cast<function*>(::dlsym(library, name));
}

// Whether this is the call to fail; the archive, if there is one, then holds the code.
int failure(zip_t* archive = nullptr) {
    static int calls = 0;
    const std::string fail = std::getenv("ZIP_FAIL") ? std::getenv("ZIP_FAIL") : "0:0";
    const int code = ++calls == std::stoi(fail) ? std::stoi(fail.substr(fail.find(':') + 1)) : 0;
    if (code != 0 && archive != nullptr) {
        auto* error = real<decltype(zip_get_error)>("zip_get_error")(archive);
        real<decltype(zip_error_set)>("zip_error_set")(error, code, 0);
    }
    return code;
}

template <class result>
result told(const std::string& function, result answer, result failed) {
    transcribe(function + (answer == failed ? " failed" : ""));
    return answer;
}

} // namespace

zip_t* zip_open(const char* path, int flags, int* error) {
    *error = failure();
    auto* open = real(__func__, zip_open);
    return told<zip_t*>(__func__, *error ? nullptr : open(path, flags, error), nullptr);
}

zip_source_t* zip_source_buffer(zip_t* archive, const void* data, zip_uint64_t size, int freeing) {
    auto* make = real(__func__, zip_source_buffer);
    auto* made = failure(archive) ? nullptr : make(archive, data, size, freeing);
    return told<zip_source_t*>(__func__, made, nullptr);
}

zip_int64_t zip_file_add(zip_t* archive, const char* name, zip_source_t* source, zip_flags_t how) {
    auto* add = real(__func__, zip_file_add);
    return told<zip_int64_t>(__func__, failure(archive) ? -1 : add(archive, name, source, how), -1);
}

int zip_file_set_external_attributes(
    zip_t* archive, zip_uint64_t index, zip_flags_t how, zip_uint8_t system, zip_uint32_t value) {
    auto* set = real(__func__, zip_file_set_external_attributes);
    return told(__func__, failure(archive) ? -1 : set(archive, index, how, system, value), -1);
}

int zip_close(zip_t* archive) {
    return told(__func__, failure(archive) ? -1 : real(__func__, zip_close)(archive), -1);
}

void zip_source_free(zip_source_t* source) {
    transcribe(__func__);
    real(__func__, zip_source_free)(source);
}

void zip_discard(zip_t* archive) {
    transcribe(__func__);
    real(__func__, zip_discard)(archive);
}

const char* zip_strerror(zip_t* archive) { return real(__func__, zip_strerror)(archive); }
