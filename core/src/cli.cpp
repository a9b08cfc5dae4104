#include <orlek/cli.h>

#include <orlek/errors.h>
#include <orlek/log.h>
#include <orlek/text.h>

#include <ostream>
#include <utility>

namespace Orlek::Support {

namespace {

constexpr int exit_done = 0;
constexpr int exit_fail_external = 64;
constexpr int exit_fail_internal = 70;

void require(bool holds) {
    if (!holds) {
        throw not_found_error();
    }
}

std::map<std::string, std::string> decodeEnvironment(char** envp) {
    std::map<std::string, std::string> env;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        std::vector<std::string> pieces;
        TextSplit(*entry, '=', pieces);
        if (pieces.size() >= 2) {
            env.emplace(std::move(pieces[0]), std::move(pieces[1]));
        }
    }
    return env;
}

void write(std::ostream& stream, const std::string& text) {
    if (!text.empty()) {
        stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    }
}

} // namespace

cli_request::cli_request(
    std::string startName,
    std::vector<std::string> arguments,
    std::map<std::string, std::string> environment)
    : program(std::move(startName)), args(std::move(arguments)), env(std::move(environment)) {}

cli_request cli_request::create(int argc, char** argv, char** envp) {
    if (argc < 1) {
        return {"", {}, decodeEnvironment(envp)};
    }
    return {argv[0], {argv + 1, argv + argc}, decodeEnvironment(envp)};
}

std::string cli_request::getLogName() const {
    const auto separator = program.find_last_of("/\\");
    const auto file = separator == std::string::npos ? program : program.substr(separator + 1);
    return file.substr(0, file.rfind('.'));
}

int cli_request::getLogLevel() const {
    return log_progress;
}

void cli_request::assert_args(std::size_t n) const {
    require(args.size() == n);
}

void cli_request::assert_min_args(std::size_t n) const {
    require(args.size() >= n);
}

void cli_request::assert_max_args(std::size_t n) const {
    require(args.size() <= n);
}

void cli_request::assert_arg(std::size_t index, const std::string& word) const {
    require(index < args.size() && args[index] == word);
}

void cli_request::assert_env(const std::string& name) const {
    require(env.contains(name));
}

cli_response::cli_response(std::string out, std::string err, int code)
    : outText(std::move(out)), errText(std::move(err)), exitCode(code) {}

cli_response cli_response::done(std::string outText, std::string errText) {
    return {std::move(outText), std::move(errText), exit_done};
}

cli_response cli_response::fail_external(std::string outText, std::string errText) {
    return {std::move(outText), std::move(errText), exit_fail_external};
}

cli_response cli_response::fail_internal(std::string outText, std::string errText) {
    return {std::move(outText), std::move(errText), exit_fail_internal};
}

int cli_response::render(std::ostream& outStream, std::ostream& errStream) const {
    write(errStream, errText);
    write(outStream, outText);
    return exitCode;
}

void Cli__DecodeParams(
    std::map<std::string, std::list<std::string>>& params,
    const std::vector<std::string>::const_iterator& first,
    const std::vector<std::string>::const_iterator& last) {
    for (auto argument = first; argument != last; ++argument) {
        std::string key;
        std::string value;
        TextDecodeParamValue(*argument, key, value, '=');
        params[key].push_back(std::move(value));
    }
}

} // namespace Orlek::Support
