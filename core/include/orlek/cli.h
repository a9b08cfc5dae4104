// The command-line frame: one command line as a value, and the whole visible result of a command.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace Orlek::Support {

// A command line: the name the tool was started under, its positional arguments, an environment.
// Everything is copied and kept byte for byte: nothing is trimmed, decoded or case-folded.
class cli_request {
public:
    std::string program;                    // argv[0], with its path
    std::vector<std::string> args;          // argv[1] and on
    std::map<std::string, std::string> env; // name -> value

    cli_request(
        std::string startName,
        std::vector<std::string> arguments,
        std::map<std::string, std::string> environment);

    // Makes a request from what main was given. With an argc of 0 (or less) the program name and
    // the arguments are empty.
    // envp: 'name=value' entries up to a null pointer, or null for no environment; the process's
    // own environment is never looked at. An entry is cut at each '=' as TextSplit does: the first
    // piece is the name, the second the value, and one of fewer pieces is passed over. The first
    // entry of a name wins.
    static cli_request create(int argc, char** argv, char** envp);

    // The start name without its directory ('/' and '\' both separate) and without its last
    // extension. May be empty.
    std::string getLogName() const;

    // The level the log is opened with: always 4, the highest in use.
    int getLogLevel() const;

    // The checks return when they hold and throw not_found_error when they do not. Counts are of
    // `args`, so the program name is not counted.

    // There are exactly n arguments.
    void assert_args(std::size_t n) const;
    // There are n arguments or more.
    void assert_min_args(std::size_t n) const;
    // There are n arguments or fewer.
    void assert_max_args(std::size_t n) const;
    // The argument at the index, counted from 0, is exactly the word. An index past the last
    // argument does not hold.
    void assert_arg(std::size_t index, const std::string& word) const;
    // The environment holds the name.
    void assert_env(const std::string& name) const;
};

// What a command shows: its texts and the process's exit status. Made by the factories alone, so
// the status is always one of theirs.
class cli_response {
public:
    std::string outText; // for standard output, written as it is
    std::string errText; // for standard error, written as it is
    int exitCode;

    // The command has an answer: exit status 0.
    static cli_response done(std::string outText, std::string errText);
    // What the caller handed in does not stand up: exit status 64.
    static cli_response fail_external(std::string outText, std::string errText);
    // The command could not be carried out: exit status 70.
    static cli_response fail_internal(std::string outText, std::string errText);

    // Writes the error text, then the output text, neither of them if empty, and returns the exit
    // status. Adds nothing, flushes nothing and does not look at the state of the streams.
    int render(std::ostream& outStream, std::ostream& errStream) const;

private:
    cli_response(std::string out, std::string err, int code);
};

// Collects the 'name=value' arguments of [first, last) into lists of values by name, in their
// order, after what the map already holds. An argument without '=' is a name with an empty value;
// blanks around the '=' are dropped as TextDecodeParamValue does.
void Cli__DecodeParams(
    std::map<std::string, std::list<std::string>>& params,
    const std::vector<std::string>::const_iterator& first,
    const std::vector<std::string>::const_iterator& last);

} // namespace Orlek::Support
