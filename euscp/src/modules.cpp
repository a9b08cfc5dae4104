#include "modules.h"

#include "errors.h"

#include <cstdlib>
#include <cstring>

namespace eu {

namespace {

bool holdsTrustPolicy(CK_FUNCTION_LIST* module) {
    char* option = p11_kit_config_option(module, "trust-policy");
    const bool answer = option != nullptr && std::strcmp(option, "yes") == 0;
    std::free(option);
    return answer;
}

class loaded_modules {
public:
    loaded_modules() {
        p11_kit_be_quiet();
        all = p11_kit_modules_load(nullptr, 0);
        if (all == nullptr) {
            throw failure(EU_ERROR_KEY_MEDIAS_FAILED);
        }
        for (CK_FUNCTION_LIST** module = all; *module != nullptr; ++module) {
            if (!holdsTrustPolicy(*module) && p11_kit_module_initialize(*module) == CKR_OK) {
                started.push_back(*module);
            }
        }
    }

    ~loaded_modules() {
        for (CK_FUNCTION_LIST* module : started) {
            p11_kit_module_finalize(module);
        }
        p11_kit_modules_release(all);
    }

    loaded_modules(const loaded_modules&) = delete;
    loaded_modules& operator=(const loaded_modules&) = delete;

    std::vector<CK_FUNCTION_LIST*> started;

private:
    CK_FUNCTION_LIST** all = nullptr;
};

} // namespace

const std::vector<CK_FUNCTION_LIST*>& modules() {
    // A module's own static objects are built while it is loaded and die in reverse order. Built
    // after that, this one finalises the modules while they are still whole.
    static const loaded_modules loaded;
    return loaded.started;
}

} // namespace eu
