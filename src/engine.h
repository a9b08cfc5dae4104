// The command engine: from a command line to its response.
#pragma once

#include "eusign/api.h"

#include <orlek/cli.h>

#include <memory>
#include <string>

namespace Orlek::Support {

// Whatever carries out command lines.
class cli_engine_like {
public:
    virtual ~cli_engine_like() = default;

    // The usage text: one line per command form, each ended by a line feed.
    virtual std::string usage() = 0;

    // Carries out a command line. Failures come back as responses: the usage text for a command
    // line that nothing takes or whose parameters are refused, "FAIL\n" for everything else. Throws
    // only when memory runs out while it makes the response or its table.
    virtual cli_response activate(const cli_request& request) = 0;
};

} // namespace Orlek::Support

namespace Orlek::Support::Velmora {

// The services that command handlers work with.
struct service_pack {
    std::shared_ptr<Eusign::api_like> eusign; // never null while handlers run
};

// Carries out one command form. Throws not_found_error, before it does anything else, when the
// request is not of its form; calls one operation of the signature service otherwise and lets its
// errors through.
using handler = cli_response (*)(const cli_request& request, const service_pack& services);

// velmora's engine. Offers a request to the handlers of its group word, in a fixed order, until one
// takes it.
class cli_engine : public cli_engine_like {
public:
    explicit cli_engine(service_pack pack);

    std::string usage() override;
    cli_response activate(const cli_request& request) override;

private:
    service_pack services;
};

} // namespace Orlek::Support::Velmora
