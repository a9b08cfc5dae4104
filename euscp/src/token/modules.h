// The PKCS#11 modules that p11-kit has registered.
#pragma once

#include <memory>
#include <optional>
#include <p11-kit/p11-kit.h>
#include <string>
#include <vector>

namespace eu {

// A loaded module. It is started by the first that asks for its tokens, and ended as it goes.
// This process has one thread and is the module's only user, so it is handed no mutexes: a module
// may lock itself up with them.
class pkcs11_module {
public:
    // reserved: what the module's registration gives it for a start, if anything.
    pkcs11_module(CK_FUNCTION_LIST* list, std::string named, std::optional<std::string> reserved);
    ~pkcs11_module();
    pkcs11_module(const pkcs11_module&) = delete;
    pkcs11_module& operator=(const pkcs11_module&) = delete;

    // Whether the module has started. Why one did not is told.
    bool start();

    // Tells the operator of the module on standard error, as p11-kit tells there which modules it
    // could not load.
    void tell(const std::string& what) const;

    CK_FUNCTION_LIST* functions() const { return calls; }
    const std::string& registration() const { return name; }

private:
    CK_RV initialize();

    CK_FUNCTION_LIST* calls;
    std::string name;
    std::optional<std::string> argument;
    std::optional<CK_RV> result; // of the start
};

// The modules, in p11-kit's order, without those that only hold trust policy; those of other
// machines or processes last. The first call loads them; they go when the process exits.
// Throws failure (EU_ERROR_KEY_MEDIAS_FAILED) when there is no list of modules to be had.
const std::vector<std::unique_ptr<pkcs11_module>>& modules();

} // namespace eu
