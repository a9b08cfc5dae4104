#include "token/modules.h"

#include "errors.h"
#include "texts.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>

namespace eu {

namespace {

// p11-kit, loaded along with the modules: a verification does without both. Its functions are
// looked up as those of a linked library would be, those of the program itself first.
class p11_kit {
public:
    p11_kit() {
        (void)dlopen(P11_KIT_SONAME, RTLD_LAZY | RTLD_GLOBAL); // where it fails, find() tells
        find(be_loud, "p11_kit_be_loud");
        find(be_quiet, "p11_kit_be_quiet");
        find(modules_load, "p11_kit_modules_load");
        find(modules_release, "p11_kit_modules_release");
        find(module_get_name, "p11_kit_module_get_name");
        find(config_option, "p11_kit_config_option");
    }

    // What the module's registration says of an option, if anything.
    std::optional<std::string> option(CK_FUNCTION_LIST* module, const char* name) const {
        errno = 0;
        return text(config_option(module, name));
    }

    std::string nameOf(CK_FUNCTION_LIST* module) const {
        errno = 0;
        return text(module_get_name(module)).value_or("a module");
    }

    decltype(&p11_kit_be_loud) be_loud;
    decltype(&p11_kit_be_quiet) be_quiet;
    decltype(&p11_kit_modules_load) modules_load;
    decltype(&p11_kit_modules_release) modules_release;

private:
    template <class Function>
    static void find(Function& function, const char* name) {
        function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        require(function != nullptr, EU_ERROR_LIBRARY);
    }

    static std::optional<std::string> text(char* given) {
        require(given != nullptr || errno != ENOMEM, EU_ERROR_MEMORY);
        const std::unique_ptr<char, decltype(&std::free)> owner(given, &std::free);
        return given != nullptr ? std::optional<std::string>(given) : std::nullopt;
    }

    decltype(&p11_kit_module_get_name) module_get_name;
    decltype(&p11_kit_config_option) config_option;
};

// A list of modules as p11-kit hands it out.
class module_list {
public:
    module_list(const p11_kit& from, int flags) : kit(from), all(kit.modules_load(nullptr, flags)) {
        require(all != nullptr, EU_ERROR_KEY_MEDIAS_FAILED);
    }
    ~module_list() { kit.modules_release(all); }
    module_list(const module_list&) = delete;
    module_list& operator=(const module_list&) = delete;

    CK_FUNCTION_LIST** begin() const { return all; }

private:
    const p11_kit& kit;
    CK_FUNCTION_LIST** all;
};

class loaded_modules {
public:
    // p11-kit starts the modules it manages with mutexes, so they are taken as they are; but those
    // of other machines or processes only it can reach. What it cannot load it tells once.
    loaded_modules()
        : local((kit.be_loud(), kit), P11_KIT_MODULE_UNMANAGED), managed((kit.be_quiet(), kit), 0) {
        kit.be_loud();
        add(local, [](CK_FUNCTION_LIST*) { return true; });
        add(managed,
            [this](CK_FUNCTION_LIST* each) { return kit.option(each, "remote").has_value(); });
    }

    ~loaded_modules() {
        if (::getpid() != owner) { // a copy of the process ends no module of the process
            for (auto& module : usable) {
                static_cast<void>(module.release());
            }
        }
    }

    loaded_modules(const loaded_modules&) = delete;
    loaded_modules& operator=(const loaded_modules&) = delete;

    const std::vector<std::unique_ptr<pkcs11_module>>& list() const { return usable; }

private:
    template <class Choice>
    void add(const module_list& from, Choice isWanted) {
        for (CK_FUNCTION_LIST** module = from.begin(); *module != nullptr; ++module) {
            const bool isTwice = std::ranges::any_of(usable, [module](const auto& each) {
                return each->functions() == *module;
            });
            if (!isTwice && isWanted(*module) && kit.option(*module, "trust-policy") != "yes") {
                usable.push_back(std::make_unique<pkcs11_module>(
                    *module,
                    kit.nameOf(*module),
                    kit.option(*module, "x-init-reserved")));
            }
        }
    }

    const pid_t owner = ::getpid();
    const p11_kit kit;
    const module_list local;
    const module_list managed;
    std::vector<std::unique_ptr<pkcs11_module>> usable; // goes before the lists do
};

} // namespace

pkcs11_module::pkcs11_module(
    CK_FUNCTION_LIST* list,
    std::string named,
    std::optional<std::string> reserved)
    : calls(list), name(std::move(named)), argument(std::move(reserved)) {}

pkcs11_module::~pkcs11_module() {
    if (result == CKR_OK) {
        calls->C_Finalize(nullptr);
    }
}

bool pkcs11_module::start() {
    // One that was started already, under another name or by another part of the process, serves.
    const auto serves = [](CK_RV each) {
        return each == CKR_CRYPTOKI_ALREADY_INITIALIZED || worked(each);
    };
    if (!result) {
        result = initialize();
        if (!serves(*result)) {
            tell(std::string("not started: ").append(describe(codeOf(*result))));
        }
    }
    return serves(*result);
}

void pkcs11_module::tell(const std::string& what) const {
    (void)std::fprintf(stderr, "%s: %s\n", name.c_str(), what.c_str());
}

CK_RV pkcs11_module::initialize() {
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.pReserved = argument ? argument->data() : nullptr;
    const CK_RV alone = calls->C_Initialize(argument ? &arguments : nullptr);
    if (alone != CKR_ARGUMENTS_BAD && alone != CKR_CANT_LOCK &&
        alone != CKR_NEED_TO_CREATE_THREADS) {
        return alone;
    }
    arguments.flags = CKF_OS_LOCKING_OK; // for a module that insists on arguments, or on threads
    return calls->C_Initialize(&arguments);
}

const std::vector<std::unique_ptr<pkcs11_module>>& modules() {
    // A module's own static objects are built while it is loaded and die in reverse order. Built
    // after that, this one finalises the modules while they are still whole.
    static const loaded_modules loaded;
    return loaded.list();
}

} // namespace eu
