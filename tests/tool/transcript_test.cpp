// The built program, with every call that it makes and every record that it writes, against the
// transcripts in golden/, under faults, and with files that misbehave.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

std::string contents(const fs::path& path) {
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream{text};
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part == "''" ? "" : part);
    }
    return parts;
}

auto count(const std::string& text, const std::string& expression) {
    const std::regex regex{expression};
    return std::distance(std::sregex_iterator{text.begin(), text.end(), regex}, {});
}

std::string verdicts(const char* access, const char* valid, const char* sign, const char* all) {
    return std::string{R"({"test-key-access":")"} + access + R"(","test-key-valid":")" + valid +
           R"(","test-key-sign":")" + sign + R"(","test-all":")" + all + "\"}\n";
}

const std::string usage = contents(SOURCES "/usage.txt");
const std::string fail = "FAIL\n", done = "DONE\n", passed = "PASSED\n", failed = "FAILED\n";
const std::string period =
    "{\"min-time\":\"2024-01-31T09:05:00\",\"max-time\":\"2026-12-31T23:59:58\"}\n";

// What a command prints when all goes well, when there is no such medium, when there is no access
// to the medium, when the key does not open, and when the certificate or the signature fails.
struct command {
    std::string line, success, no_medium, no_access, not_opened, not_signed;
};
const std::vector<command> commands{{"media list", "S1\n", "", fail, fail, fail},
    {"media list S1", "S1\n", "", fail, fail, fail},
    {"key create S1 secret ds kep req.zip", done, usage, fail, fail, fail},
    {"key delete S1 secret", done, usage, usage, fail, fail},
    {"key test-access S1 secret", passed, failed, failed, fail, fail},
    {"key test-valid S1 secret", passed, failed, failed, failed, fail},
    {"key test-sign S1 secret", passed, usage, usage, fail, failed},
    {"key test-all S1 secret", verdicts("passed", "passed", "passed", "passed"), usage,
        verdicts("failed", "failed", "failed", "failed"),
        verdicts("passed", "failed", "failed", "failed"),
        verdicts("passed", "passed", "failed", "failed")},
    {"sign crt-info S1 secret", period, usage, usage, fail, fail},
    {"sign export-crt S1 secret new.crt", done, usage, usage, fail, fail},
    {"sign create-ext S1 secret blob new.p7s", done, usage, usage, fail, fail},
    {"sign verify blob sign crt", passed, fail, fail, fail, failed}};

bool isFailure(const std::string& out) { return out == usage || out == fail; }

// One medium, whose key is there until it is deleted.
std::string scene(const command& command) {
    const bool deletes = command.line.starts_with("key delete");
    return std::string{"EU_MEDIA=@+,S1 EU_KEY="} + (deletes ? "10" : "1") + " velmora ";
}

// A call that returns this code for its natural one, after the key was deleted or not.
struct fault {
    std::string function, natural, code;
    bool deleted;
};
bool ends(const fault& fault) { return fault.function.starts_with("EUEnum") && fault.code == "7"; }
bool bars(const fault& fault) {
    return fault.function == "EUIsPrivateKeyExists" && fault.code == "18";
}

const std::string& answerTo(const command& command, const fault& fault) {
    if (bars(fault)) { return fault.deleted ? command.success : command.no_access; }
    if (ends(fault)) { return fault.natural == "7" ? command.success : command.no_medium; }
    if (fault.function == "EUCtxCreate" || fault.function == "EUCtxReadPrivateKey") {
        return command.not_opened;
    }
    return count(fault.function, "Certificate|SignData|Verify") > 0 ? command.not_signed : fail;
}

struct outcome {
    int status;
    std::string out, transcript;
};

// Every test works in a folder of its own that holds the files of a verification.
class tool : public testing::Test {
protected:
    tool() : folder(::mkdtemp((fs::temp_directory_path() / "tool.XXXXXX").string().data())) {
        fs::current_path(folder);
        std::ofstream{"blob"} << "some data";
        std::ofstream{"sign"} << "a signature";
        std::ofstream{"crt"} << "a certificate";
    }
    ~tool() override {
        fs::current_path("/");
        fs::remove_all(folder);
    }

    // Runs the program with an argument vector (argv[0] first), before it settings for the doubles,
    // "NAME=value".
    static outcome run(const std::string& line, rlim_t memory = RLIM_INFINITY) {
        fs::remove("transcript");
        const auto child = ::fork();
        if (child == 0) {
            auto words = split(line, ' ');
            std::vector<char*> argv;
            for (auto& word : words) {
                if (argv.empty() && word.find('=') != std::string::npos) {
                    ::putenv(word.data());
                } else {
                    argv.push_back(word.data());
                }
            }
            argv.push_back(nullptr);
            ::setenv("LD_LIBRARY_PATH", DOUBLES, 1);
            ::setenv("TRANSCRIPT", "transcript", 1);
            ::dup2(::open("out", O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            ::dup2(::open("err", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            const rlimit limit{memory, memory};
            ::setrlimit(RLIMIT_AS, &limit);
            ::alarm(60); // ends a program that hangs
            ::execv(PROGRAM, argv.data());
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        outcome result{WEXITSTATUS(status), contents("out"), contents("transcript")};
        // What holds for every run.
        EXPECT_TRUE(WIFEXITED(status)) << line;
        EXPECT_EQ(contents("err"), "") << line;
        EXPECT_EQ(result.status == 70, isFailure(result.out)) << result.out;
        EXPECT_THAT(result.transcript, Not(HasSubstr("leak: ")));
        EXPECT_EQ(count(result.transcript, "EUFinalize\\(\\)\n"),
            count(result.transcript, "EUInitialize\\(\\) = 0\n"));
        return result;
    }

    // A section of a golden file: "$" and what to run; the transcript; the output, each line behind
    // ">"; the status.
    static std::string section(const std::string& line) {
        const auto result = run(line.substr(2));
        std::ostringstream text;
        text << line << "\n" << result.transcript;
        for (const auto& out : split(result.out == usage ? "(usage)" : result.out, '\n')) {
            text << "> " << out << "\n";
        }
        text << "status " << result.status << "\n";
        return text.str();
    }

    // Lets the k-th call of a command fail.
    static void checkFault(const command& command, const fault& injected, int k) {
        const auto line = scene(command) + command.line;
        const auto result = run("EU_FAIL=" + std::to_string(k) + ":" + injected.code + " " + line);
        SCOPED_TRACE(line + "\n" + result.transcript);
        const auto& expected = answerTo(command, injected);
        const bool unverified = expected == failed && command.line.starts_with("sign verify");
        EXPECT_EQ(result.out, expected);
        EXPECT_EQ(result.status, unverified ? 64 : isFailure(expected) ? 70 : 0);
        // The text of a code is asked once, where the call failed, for its one record.
        const auto& [function, natural, code, deleted] = injected;
        const auto told = count(result.transcript,
            "\\) = " + code + "\nEUGetErrorLangDesc\\(" + code + ", 3\\)\n[12] \\S+ \\S+: fail: " +
                (function == "EUCtxSignData" ? "EUSignData" : function) +
                (unverified ? " \\(" : ".*\\b" + code + "\\b.*") + "why %s\\)\n");
        EXPECT_EQ(told, ends(injected) || bars(injected) ? 0 : 1);
        EXPECT_EQ(told, count(result.transcript, "why %s"));
        EXPECT_EQ(told, count(result.transcript, "EUGetErrorLangDesc"));
    }

    fs::path folder;
};

} // namespace

TEST_F(tool, doesWhatTheTranscriptsSay) {
    for (const auto& file : fs::directory_iterator{SOURCES "/golden"}) {
        const auto golden = contents(file);
        std::string actual;
        for (const auto& line : split(golden, '\n')) {
            if (line.starts_with("$ ")) { actual += (actual.empty() ? "" : "\n") + section(line); }
        }
        EXPECT_EQ(golden, actual) << file;
    }
}

TEST_F(tool, survivesTheFailureOfEveryCall) {
    for (const auto& command : commands) {
        const auto smooth = run(scene(command) + command.line);
        EXPECT_EQ(smooth.out, command.success) << command.line;
        const std::regex call{R"((EU\w+)\(.*\) = (\d+)\n)"};
        std::sregex_iterator at{smooth.transcript.begin(), smooth.transcript.end(), call};
        fault injected{};
        for (int k = 1; at != std::sregex_iterator{}; ++k, ++at) {
            injected.function = at->str(1);
            injected.natural = at->str(2);
            for (const auto* code : {"5", "7", "18"}) {
                injected.code = code;
                checkFault(command, injected, k);
            }
            injected.deleted |= injected.function == "EUDestroyPrivateKey";
        }
    }
}

TEST_F(tool, answersEveryOtherCommandLineWithTheUsageText) {
    const auto idle = run("velmora");
    std::set<std::string> lines{"''", "foo list", "media List", "KEY delete x x"};
    for (const auto& command : commands) {
        for (const std::string group : {"media ", "key ", "sign "}) {
            auto line = group + split(command.line, ' ')[1];
            for (int size = 2; size <= 8; ++size, line += " x") { lines.insert(line); }
        }
    }
    for (const auto& command : commands) { // the forms that are accepted
        const auto arguments = command.line.find(' ', command.line.find(' ') + 1);
        const auto words = command.line.substr(0, arguments);
        const auto rest = command.line.substr(words.size());
        EXPECT_EQ(lines.erase(words + std::regex_replace(rest, std::regex{" \\S+"}, " x")), 1U);
    }
    for (const auto& line : lines) {
        const auto result = run("velmora " + line);
        EXPECT_EQ(result.out, usage) << line;
        EXPECT_EQ(result.transcript, idle.transcript) << line;
    }
    EXPECT_EQ(run("").status, 70) << "without even a program name";
}

TEST_F(tool, refusesAPasswordThatDoesNotFit) {
    const std::string secret(65, 'p');
    for (const auto& command : commands) {
        const auto line = std::regex_replace(command.line, std::regex{"secret"}, secret);
        if (line != command.line) {
            const auto result = run("velmora " + line);
            EXPECT_EQ(result.out, usage) << line;
            EXPECT_EQ(count(result.transcript, "\n4 .*: fail: params_error\n"), 1) << line;
            EXPECT_THAT(result.transcript, Not(HasSubstr("ppp")));
        }
    }
}

TEST_F(tool, readsNothingButWholeFiles) {
    fs::create_directory("folder");
    ASSERT_EQ(::mkfifo("pipe", 0600), 0);
    for (const auto& [name, size] : std::map<std::string, std::uintmax_t>{
             {"empty", 0}, {"large", 1ULL << 32U}, {"larger", (1ULL << 32U) + 1}}) {
        std::ofstream{name}.close();
        fs::resize_file(name, size);
    }
    for (const std::string name : {"empty", "folder", "pipe", "large", "larger", "/dev/null"}) {
        const auto result = run("velmora sign verify blob " + name + " crt");
        EXPECT_EQ(result.out, fail) << name;
        EXPECT_THAT(result.transcript, HasSubstr("\n1 src/"));
        EXPECT_THAT(result.transcript, Not(HasSubstr("EUVerify")));
    }
}

TEST_F(tool, saysSoWhenMemoryRunsOut) {
    if (SANITIZED) { GTEST_SKIP() << "the sanitizer needs more than any limit"; }
    fs::resize_file("blob", 3ULL << 30U);
    const auto result = run("velmora sign verify blob sign crt", 1ULL << 30U);
    EXPECT_EQ(result.out, fail);
    EXPECT_THAT(result.transcript,
        HasSubstr("\n1 src/engine.cpp activate: fail: exception <std::bad_alloc>\n"));
}

TEST_F(tool, exportsTheCertificateByteForByte) {
    std::ofstream{"new.crt"} << std::string(100'000, 'x');
    EXPECT_EQ(run("velmora sign export-crt S1 secret new.crt").out, done);
    EXPECT_EQ(contents("new.crt"), "certificate");
    const auto result = run("velmora sign export-crt S1 secret /dev/full");
    EXPECT_EQ(result.out, fail);
    EXPECT_THAT(
        result.transcript, HasSubstr("\n1 src/fs/api.cpp writeFile: fail: fwrite </dev/full> "
                                     "(expected-size:11, actual-size:0)"));
}

TEST_F(tool, packsExactlyTheTwoRequests) {
    ::umask(022);
    const auto create = [&](const std::string& names) {
        return run(
            "velmora key create S1 secret " + names + " " + (folder / "a/b/req.zip").string());
    };
    EXPECT_EQ(create("old1 old2").out, done);
    const auto again = create("ds.p10 kep.p10");
    EXPECT_EQ(again.out, done);
    EXPECT_THAT(again.transcript, Not(HasSubstr("fail: ")));
    EXPECT_EQ(fs::status("a/b").permissions(), fs::perms{0755});
    // NOLINTNEXTLINE(cert-env33-c): no outside word in it
    EXPECT_EQ(std::system("(unzip -Z1 a/b/req.zip && unzip -p a/b/req.zip) > unzipped"), 0);
    EXPECT_EQ(contents("unzipped"), "ds.p10\nkep.p10\nDS requestKEP request");
    const auto before = contents("a/b/req.zip");
    EXPECT_EQ(create("same same").out, fail);
    EXPECT_EQ(contents("a/b/req.zip"), before);
}
