// The standard streams of the process: they belong to the answer.
#pragma once

#include <orlek/cli.h>

namespace Orlek::Support::Velmora {

// From here on standard output and standard error lead to a file in memory, for whatever runs in
// this process or is started by it; only the answer goes to where they led before. That file takes
// a mebibyte, then writing to it fails. Where there can be none, what is said is lost; without
// descriptors to spare the streams stay as they are. Streams closed at the start lead nowhere.
// A write that cannot be, to a reader gone away or beyond a limit, no longer ends the process.
void divertStreams();

// What modules, their children and libraries say while an object of this class lives becomes
// records of the log when it goes: level 2, one for a line, the first 32 lines with up to 500 bytes
// each, and "***" where the request's password stood, in hexadecimal, too. The log has to be open,
// and the request to last.
class module_output {
public:
    explicit module_output(const cli_request& request);
    ~module_output();
    module_output(const module_output&) = delete;
    module_output& operator=(const module_output&) = delete;
};

// Writes those records now, for a process that ends while such an object lives.
void logModuleOutput() noexcept;

// Writes the response to the streams as they were at the start and returns its exit status. The
// streams stay led away: what a module leaves in a buffer is written when the process ends.
int answer(const cli_response& response);

// Writes "FAIL\n" in its place; in a signal handler, too.
void answerFailure() noexcept;

} // namespace Orlek::Support::Velmora
