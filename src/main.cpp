// The entry: one process, one command.
#include "ending.h"
#include "engine.h"
#include "eusign/api.h"
#include "fs/api.h"
#include "secrets.h"

#include <orlek/cli.h>
#include <orlek/errors.h>
#include <orlek/log.h>

#include <csignal>
#include <exception>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

using Orlek::Support::cli_request;
using Orlek::Support::cli_response;

namespace Velmora = Orlek::Support::Velmora;

// A start with a standard stream closed would hand its number to the next file opened, and the
// answer would be written there.
static void occupyStandardStreams() {
    int opened = 0;
    do {
        opened = open("/dev/null", O_RDWR);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    if (opened >= 0) {
        close(opened);
    }
}

int main(int argc, char** argv) {
    Velmora::forbidDumps();
    occupyStandardStreams();
    auto response = cli_response::fail_internal("FAIL\n", "");
    bool logOpen = false;
    try {
        const auto request = cli_request::create(argc, argv, nullptr);
        Velmora::wipeParameters(argc, argv);
        const int logLevel = request.getLogLevel();
        LogOpen2(request.getLogName().c_str(), logLevel, 0);
        logOpen = true;
        Velmora::guardEnding();

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

    // A reader that has gone away does not change the exit status.
    (void)std::signal(SIGPIPE, SIG_IGN);
    int exitCode = 0;
    Velmora::settleEnding([&] {
        exitCode = response.render(std::cout, std::cerr);
        std::cout.flush();
        return exitCode;
    });
    LogClose();
    return exitCode;
}
