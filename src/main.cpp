// The entry: one process, one command.
#include "engine.h"
#include "eusign/api.h"
#include "fs/api.h"
#include "process/ending.h"
#include "process/secrets.h"
#include "process/streams.h"

#include <orlek/cli.h>
#include <orlek/errors.h>
#include <orlek/log.h>

#include <exception>

using Orlek::Support::cli_request;
using Orlek::Support::cli_response;

namespace Velmora = Orlek::Support::Velmora;

int main(int argc, char** argv) {
    Velmora::divertStreams();
    Velmora::guardEnding();
    Velmora::forbidDumps();
    auto response = cli_response::fail_internal("FAIL\n", "");
    bool logOpen = false;
    try {
        const auto request = cli_request::create(argc, argv, nullptr);
        Velmora::wipeParameters(argc, argv);
        const int logLevel = request.getLogLevel();
        LogOpen2(request.getLogName().c_str(), logLevel, 0);
        logOpen = true;

        const Velmora::module_output output{request};
        const auto fs = Velmora::Fs::Api__Create();
        const auto eusign = Velmora::Eusign::Api__Create(fs);
        Velmora::cli_engine engine({eusign});
        response = engine.activate(request);
    } catch (const Orlek::generic_error&) {
        // Whoever threw it has logged the cause; the response made above stands.
    } catch (const std::exception& error) {
        if (logOpen) {
            LogWrite(ORLEK_HERE, Orlek::log_failure, "fail: exception <%s>", error.what());
        }
    }
    Velmora::wipeStack();

    const int exitCode = Velmora::answerAndEnd(response);
    LogClose();
    return exitCode;
}
