// EUSignCP as a recorder: every call becomes a line of the transcript, with its arguments and its
// result. What is handed out gets a name ("key2") under which it is seen again. Left alone, it
// plays two media with a key that works; environment variables make it play something else:
//   EU_MEDIA     the types, split by '|', each "description,serial,serial"; '@' stands for the
//                supported one up to its last letter, '+' for that letter
//   EU_KEY       the answers of EUIsPrivateKeyExists in turn, "1" or "0", the last one for good
//   EU_TIME      the verified signature has "1" a signing time, "2" a time stamp
//   EU_INFO      "none": the own certificate comes without what is in it
//   EU_FAIL      "k:code": the k-th call that returns a result returns this code; 4242 has no text
//   EU_END       "k:how": what the library does in the k-th such call beside it, see misbehave()
//   EU_SOON      ten minutes are 0.3 seconds, and half a minute more is a second more
//   <function>   the result of every call of the function of this name
#include <EUSignCP.h>

#include <algorithm>
#include <concepts>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "double.h"

namespace {

// All that was handed out, and whether it came back. Memory is kept until the end, so that a second
// release is known as one. Every misuse becomes a "leak" in the transcript.
class ledger {
public:
    ~ledger() {
        for (const auto& [place, name] : names) {
            if (!name.starts_with("leak")) { transcribe("leak: " + name); }
            delete[] static_cast<const char*>(place);
        }
    }
    template <class type>
    type* give(const std::string& kind, const std::string& content = "") {
        auto* place = new char[content.size() + 1];
        content.copy(place, content.size());
        names[place] = kind + std::to_string(names.size() + 1);
        return reinterpret_cast<type*>(place);
    }
    std::string look(const void* place) const {
        const auto found = names.find(place);
        return found != names.end() ? found->second : place ? "leak: not from here" : "null";
    }
    std::string take(const std::string& kind, const void* place) {
        const auto name = look(place);
        if (names.contains(place)) { names[place] = "leak: back already"; }
        return name.starts_with(kind) ? name : "leak: no " + kind + " but " + name;
    }

private:
    std::map<const void*, std::string> names;
};

ledger given;
int calls = 0;         // that return a result
std::size_t asked = 0; // whether there is a key

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream{text};
    for (std::string part; std::getline(stream, part, separator);) { parts.push_back(part); }
    return parts;
}

// The description of a media type, then the serials of its devices; nothing past the last type. The
// supported one is "е.ключ ІІТ Алмаз-1К" in Windows-1251.
std::vector<std::string> mediaType(DWORD index) {
    const auto types = split(setting("EU_MEDIA", "@+,S1,S2"), '|');
    std::string type = index < types.size() ? types[index] : "";
    std::replace(type.begin(), type.end(), '+', '\xCA');
    if (const auto at = type.find('@'); at != type.npos) {
        type.replace(at, 1, "\xE5.\xEA\xEB\xFE\xF7 \xB2\xB2\xD2 \xC0\xEB\xEC\xE0\xE7-1");
    }
    return split(type, ',');
}

std::string show(std::integral auto value) { return std::to_string(value); }
std::string show(const std::string& shown) { return shown; }
std::string show(const char* text) { return text ? "\"" + std::string{text} + "\"" : "null"; }
std::string show(const void* place) { return given.look(place); }
std::string show(const EU_KEY_MEDIA* media) {
    const std::string field(media->szPassword, EU_PASSWORD_SIZE);
    const auto end = std::min(field.find('\0'), field.size());
    const bool clean = field.find_first_not_of('\0', end) == field.npos;
    return show(media->dwTypeIndex) + "/" + show(media->dwDevIndex) + "/" + field.substr(0, end) +
           (clean ? "" : " and more");
}
std::string bytes(const BYTE* data, DWORD size) {
    return "\"" + std::string{data, data + size} + "\"";
}

template <class... values>
std::string call(const std::string& function, const values&... arguments) {
    std::string list;
    ((list += (list.empty() ? "" : ", ") + show(arguments)), ...);
    return function + "(" + list + ")";
}

// Through stdio's buffer, by a child that stays, and without end when the process ends.
void talk() {
    std::printf("the PIN is secret, 73 65 63 72 65 74\n\nprinted");
    if (::fork() == 0) { ::_exit(static_cast<int>(::sleep(20))); }
    std::atexit([] {
        const std::string line(600, 'x');
        for (int count = 0; ::write(STDOUT_FILENO, line.data(), line.size()) > 0;) {
            if (++count > 10000) { ::_exit(1); }
        }
        std::abort();
    });
}

// One of these, or what the shell makes of it.
void misbehave(const std::string& how) {
    sigset_t all;
    ::sigfillset(&all);
    if (how == "abort") { std::abort(); }
    if (how == "exit") { std::exit(-1); }
    if (how == "child" && ::fork() == 0) { std::exit(0); }
    if (how == "child") { ::wait(nullptr); }
    if (how == "talk") { talk(); }
    if (how == "read") {
        std::ifstream zeros{"/dev/zero"};
        while (std::clock() < CLOCKS_PER_SEC / 2) { zeros.ignore(1 << 20); }
    }
    if (how == "keep") { ::open("kept", O_CREAT | O_WRONLY, 0600); }
    if (how == "deaf") { ::sigprocmask(SIG_BLOCK, &all, nullptr); }
    while (how == "deaf" || how == "hang") { ::pause(); }
    if (how.find(' ') != how.npos) { (void)!std::system(how.c_str()); }
}

// Writes a call down and gives its result: the scripted one, else the natural one. The action hands
// out what a call that succeeds does.
DWORD answer(
    const std::string& call, const std::function<void()>& act = [] {}, DWORD natural = 0) {
    ++calls;
    auto result = setting(call.substr(0, call.find('(')), std::to_string(natural));
    if (const auto code = due("EU_FAIL", calls); !code.empty()) { result = code; }
    misbehave(due("EU_END", calls));
    if (result == "0") { act(); }
    transcribe(call + " = " + result);
    return std::stoul(result);
}

// The answer of an enumeration.
DWORD answer(const std::string& call, const std::vector<std::string>& texts, DWORD at, char* text) {
    const auto describe = [&] { std::strncpy(text, texts.at(at).c_str(), EU_DESCRIPTION_SIZE); };
    return answer(call, describe, at < texts.size() ? EU_ERROR_NONE : EU_WARNING_END_OF_ENUM);
}

void hand(BYTE** place, DWORD* length, const std::string& content) {
    *place = given.give<BYTE>("memory", content);
    *length = content.size();
}

// The release of something handed out.
void release(const char* function, const std::string& kind, const void* place) {
    transcribe(call(function, given.take(kind, place)));
}

constexpr SYSTEMTIME begin_time{2024, 1, 3, 31, 9, 5, 0, 7};

} // namespace

// In place of the C library's.
extern "C" [[gnu::visibility("default")]] int timer_settime(
    timer_t timer, int flags, const itimerspec* time, itimerspec* old) {
    static auto* const set = real(__func__, timer_settime);
    const auto seconds = time->it_value.tv_sec;
    const itimerspec soon{{0, 0}, {(seconds - 600) / 30, 300'000'000}};
    return set(timer, flags, seconds >= 600 && std::getenv("EU_SOON") ? &soon : time, old);
}

// The interface's lists are long, and its functions many: laid out by hand.
// clang-format off

void EUSetUIMode(BOOL mode) { transcribe(call(__func__, mode)); }
DWORD EUInitialize(void) { return answer(call(__func__)); }
void EUFinalize(void) { transcribe(call(__func__)); }
void EUCtxFree(void* context) { release(__func__, "context", context); }
void EUCtxFreePrivateKey(void* key) { release(__func__, "key", key); }
void EUFreeCertificateInfoEx(EU_CERT_INFO_EX* info) { release(__func__, "info", info); }
void EUFreeSignInfo(EU_SIGN_INFO* info) { release(__func__, "signer", info->pszSubject); }
void EUFreeMemory(BYTE* memory) { release(__func__, "memory", memory); }

const char* EUGetErrorLangDesc(DWORD error, DWORD language) {
    transcribe(call(__func__, error, language));
    return error == 4242 ? nullptr : "why %s";
}

DWORD EUEnumKeyMediaTypes(DWORD type, char* text) {
    return answer(call(__func__, type), mediaType(type), 0, text);
}

DWORD EUEnumKeyMediaDevices(DWORD type, DWORD device, char* text) {
    return answer(call(__func__, type, device), mediaType(type), device + 1, text);
}

DWORD EUIsPrivateKeyExists(const EU_KEY_MEDIA* media, BOOL* exists) {
    return answer(call(__func__, media, *exists), [&] {
        const auto keys = setting("EU_KEY", "1");
        *exists = keys[std::min(asked++, keys.size() - 1)] == '1' ? 2 : 0;
    });
}

DWORD EUDestroyPrivateKey(const EU_KEY_MEDIA* media) { return answer(call(__func__, media)); }

DWORD EUCtxCreate(void** context) {
    return answer(call(__func__, *context), [&] { *context = given.give<void>("context"); });
}

DWORD EUCtxReadPrivateKey(
    void* context, const EU_KEY_MEDIA* media, void** key, EU_CERT_OWNER_INFO* info) {
    return answer(call(__func__, context, media, *key), [&] {
        *key = given.give<void>("key");
        info->pszSubject = given.give<char>("owner");
    });
}

void EUCtxFreeCertOwnerInfo(void* context, EU_CERT_OWNER_INFO* info) {
    transcribe(call(__func__, context, given.take("owner", info->pszSubject)));
}

DWORD EUCtxGetOwnCertificate(void* key, DWORD type, DWORD usage, EU_CERT_INFO_EX** info,
                             BYTE** certificate, DWORD* length) {
    return answer(call(__func__, key, type, usage, *info, *certificate, *length), [&] {
        if (setting("EU_INFO") != "none") {
            *info = given.give<EU_CERT_INFO_EX>("info", std::string(sizeof(EU_CERT_INFO_EX), '\0'));
            (*info)->stCertBeginTime = begin_time;
            (*info)->stCertEndTime = {2026, 12, 4, 31, 23, 59, 58, 0};
        }
        hand(certificate, length, "certificate");
    });
}

DWORD EUCtxSignData(void* key, DWORD algorithm, const BYTE* data, DWORD size, BOOL external,
                    BOOL append, BYTE** sign, DWORD* length) {
    return answer(call(__func__, key, algorithm, bytes(data, size), external, append, *sign),
                  [&] { hand(sign, length, "signature"); });
}

DWORD EUCtxSignFile(void* key, DWORD algorithm, const char* file, BOOL external, BOOL append,
                    const char* signature) {
    return answer(call(__func__, key, algorithm, file, external, append, signature));
}

DWORD EUVerifyDataWithParams(
    const BYTE* data, DWORD size, const void* hash, DWORD hash_size, const BYTE* sign,
    DWORD sign_size, DWORD index, const void* params, DWORD params_size,
    const BYTE* certificate, DWORD certificate_size, const void* settings, EU_SIGN_INFO* info) {
    return answer(call(__func__, bytes(data, size), hash, hash_size, bytes(sign, sign_size), index,
                       params, params_size, bytes(certificate, certificate_size), settings), [&] {
        *info = {};
        info->pszSubject = given.give<char>("signer");
        info->bTimeAvail = setting("EU_TIME") == "1" ? 2 : 0;
        info->bTimeStamp = setting("EU_TIME") == "2" ? 2 : 0;
        info->Time = begin_time;
    });
}

DWORD EUGeneratePrivateKeyEx(
    const EU_KEY_MEDIA* media, BOOL set_password, DWORD keys, DWORD ds_spec, DWORD kep_spec,
    const char* path, DWORD type, DWORD strength, const void* p9, BYTE** p10, DWORD* p11,
    BYTE** p12, DWORD* p13, const void* p14, const void* p15, BYTE** ds, DWORD* ds_size,
    char* ds_name, BYTE** kep, DWORD* kep_size, char* kep_name, BYTE** p22, DWORD* p23, char* p24) {
    return answer(call(__func__, media, set_password, keys, ds_spec, kep_spec, path, type,
                       strength, p9, p10, p11, p12, p13, p14, p15, *ds, *kep, p22, p23, p24), [&] {
        hand(ds, ds_size, "DS request");
        hand(kep, kep_size, "KEP request");
        std::fill_n(ds_name, EU_REQUEST_NAME_SIZE, 'n');
        std::fill_n(kep_name, EU_REQUEST_NAME_SIZE, 'n');
    });
}
