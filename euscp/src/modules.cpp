#include "modules.h"

#include "errors.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace eu {

namespace {

// p11-kit, loaded along with the modules: a verification does without both. Its functions are
// looked up as those of a linked library would be, those of the program itself first.
class p11_kit {
public:
    p11_kit() {
        if (dlopen(P11_KIT_SONAME, RTLD_LAZY | RTLD_GLOBAL) == nullptr) {
            throw failure(EU_ERROR_LIBRARY);
        }
        find(be_quiet, "p11_kit_be_quiet");
        find(modules_load, "p11_kit_modules_load");
        find(modules_release, "p11_kit_modules_release");
        find(module_initialize, "p11_kit_module_initialize");
        find(module_finalize, "p11_kit_module_finalize");
        find(config_option, "p11_kit_config_option");
    }

    decltype(&p11_kit_be_quiet) be_quiet;
    decltype(&p11_kit_modules_load) modules_load;
    decltype(&p11_kit_modules_release) modules_release;
    decltype(&p11_kit_module_initialize) module_initialize;
    decltype(&p11_kit_module_finalize) module_finalize;
    decltype(&p11_kit_config_option) config_option;

private:
    template <class Function>
    static void find(Function& function, const char* name) {
        function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        require(function != nullptr, EU_ERROR_LIBRARY);
    }
};

bool holdsTrustPolicy(const p11_kit& kit, CK_FUNCTION_LIST* module) {
    errno = 0;
    char* option = kit.config_option(module, "trust-policy");
    require(option != nullptr || errno != ENOMEM, EU_ERROR_MEMORY);
    const bool answer = option != nullptr && std::strcmp(option, "yes") == 0;
    std::free(option);
    return answer;
}

class loaded_modules {
public:
    loaded_modules() : loaded_modules(p11_kit()) { // the rest is undone if something fails here
        for (CK_FUNCTION_LIST** module = all; *module != nullptr; ++module) {
            if (!holdsTrustPolicy(kit, *module)) {
                started.push_back(*module);
                if (!worked(kit.module_initialize(*module))) {
                    started.pop_back();
                }
            }
        }
    }

    ~loaded_modules() {
        for (CK_FUNCTION_LIST* module : started) {
            kit.module_finalize(module);
        }
        kit.modules_release(all);
    }

    loaded_modules(const loaded_modules&) = delete;
    loaded_modules& operator=(const loaded_modules&) = delete;

    std::vector<CK_FUNCTION_LIST*> started;

private:
    explicit loaded_modules(const p11_kit& loaded) : kit(loaded) {
        kit.be_quiet();
        all = kit.modules_load(nullptr, 0);
        require(all != nullptr, EU_ERROR_KEY_MEDIAS_FAILED);
    }

    const p11_kit kit;
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
