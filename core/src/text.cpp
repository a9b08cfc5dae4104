#include <orlek/text.h>

#include <orlek/errors.h>
#include <orlek/log.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <map>
#include <utility>

namespace Orlek::Support {

namespace {

constexpr const char* blanks = "\t ";

// An iconv converter between two encodings, closed with its scope.
class converter {
public:
    converter(const char* target, const char* source) : handle(iconv_open(target, source)) {}
    converter(const converter&) = delete;
    converter& operator=(const converter&) = delete;
    ~converter() {
        if (isOpen()) {
            iconv_close(handle);
        }
    }

    // NOLINTNEXTLINE(performance-no-int-to-ptr): iconv_open tells a failure this way.
    bool isOpen() const { return handle != reinterpret_cast<iconv_t>(-1); }

    // Converts until the input ends, does not convert or does not fit; moves all four on. What they
    // show afterwards tells more than iconv's own result, which is not handed out.
    void convert(char*& in, std::size_t& inLeft, char*& out, std::size_t& outLeft) {
        iconv(handle, &in, &inLeft, &out, &outLeft);
    }

private:
    iconv_t handle;
};

} // namespace

void TextSplit(const std::string& text, char delim, std::vector<std::string>& out) {
    TextSplit(text, std::string(1, delim), out);
}

void TextSplit(const std::string& text, const std::string& delim, std::vector<std::string>& out) {
    auto start = text.find_first_not_of(delim);
    while (start != std::string::npos) {
        const auto end = delim.empty() ? std::string::npos : text.find(delim, start);
        out.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(delim, end);
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface takes the set by value.
std::string TextTrimL(const std::string& text, std::string chars, unsigned long pos) {
    const auto first = text.find_first_not_of(chars, pos);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string TextTrimR(const std::string& text, const std::string& chars, unsigned long pos) {
    // Without such a character the last index is npos, and npos + 1 is 0: nothing is left.
    return text.substr(0, text.find_last_not_of(chars, pos) + 1);
}

std::string TextTrim(const std::string& text, const std::string& chars, unsigned long pos) {
    return TextTrimR(TextTrimL(text, chars, pos), chars, std::string::npos);
}

void TextDecodeParamValue(
    const std::string& text,
    std::string& key,
    std::string& value,
    char delim) {
    const auto at = text.find(delim);
    if (at == std::string::npos) {
        key = text;
        value.clear();
        return;
    }
    auto name = TextTrimR(text.substr(0, at), blanks, std::string::npos);
    value = TextTrimL(text, blanks, at + 1);
    key = std::move(name);
}

std::string TextDecodeValue(const std::string& text, char delim) {
    const auto at = text.find(delim);
    if (at == std::string::npos) {
        LogWrite(
            ORLEK_HERE,
            log_failure,
            "fail: find (text:<%s>, delim:<%c>)",
            text.c_str(),
            delim);
        throw params_error();
    }
    auto value = TextTrimL(text, blanks, at + 1);
    if (value.empty()) {
        LogWrite(
            ORLEK_HERE,
            log_failure,
            "fail: value absent (text:<%s>, delim:<%c>)",
            text.c_str(),
            delim);
        throw params_error();
    }
    return value;
}

std::string TextToUpper(const std::string& text) {
    auto result = text;
    for (auto& byte : result) {
        byte = static_cast<char>(std::toupper(static_cast<unsigned char>(byte)));
    }
    return result;
}

std::string TextToLower(const std::string& text) {
    auto result = text;
    for (auto& byte : result) {
        byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
    }
    return result;
}

std::string TextJoin(char sep, const std::vector<std::string>& parts) {
    std::string result;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            result += sep;
        }
        result += parts[i];
    }
    return result;
}

std::string TextEncodeUtf8(const wchar_t* text) {
    const auto length = std::wcslen(text);
    std::string result(4 * length + 1, '\0');
    converter toUtf8("UTF-8", "WCHAR_T");
    if (toUtf8.isOpen()) {
        auto* in = reinterpret_cast<char*>(const_cast<wchar_t*>(text)); // iconv only reads it
        auto inLeft = (length + 1) * sizeof(wchar_t);
        auto* out = result.data();
        auto outLeft = result.size();
        toUtf8.convert(in, inLeft, out, outLeft);
    }
    result.resize(std::strlen(result.c_str()));
    return result;
}

int TextDecodeUtf8(wchar_t* out, unsigned long outSize, char* in, unsigned long inLen) {
    converter toWide("WCHAR_T", "UTF-8");
    if (!toWide.isOpen()) {
        LogWrite(
            ORLEK_HERE,
            log_tolerated,
            "fail: iconv_open (source:<UTF-8>, target:<WCHAR_T>, errno:<%s>)",
            std::strerror(errno));
        throw internal_error();
    }
    // One byte less than there is: a text that would fill the buffer leaves 3 bytes, and the NUL
    // still has its place.
    std::size_t inLeft = inLen == 0 ? std::strlen(in) : inLen;
    auto* end = reinterpret_cast<char*>(out);
    std::size_t outLeft = outSize - 1;
    toWide.convert(in, inLeft, end, outLeft);
    if (inLeft > 0) {
        LogWrite(ORLEK_HERE, log_failure, "fail: iconv (source-left:%zu)", inLeft);
        throw internal_error();
    }
    if (outLeft == 0) {
        LogWrite(ORLEK_HERE, log_failure, "fail: iconv (target-left:%zu)", outLeft);
        throw internal_error();
    }
    std::memset(end, 0, sizeof(wchar_t));
    return 1;
}

std::wstring TextTransPlate(const std::wstring& text) {
    static const std::map<wchar_t, wchar_t> _S_ucode_to_ascii_map = {
        {L'\u0410', L'A'},
        {L'\u0412', L'B'},
        {L'\u0421', L'C'},
        {L'\u0415', L'E'},
        {L'\u041D', L'H'},
        {L'\u0406', L'I'},
        {L'\u041A', L'K'},
        {L'\u041C', L'M'},
        {L'\u041E', L'O'},
        {L'\u0420', L'P'},
        {L'\u0422', L'T'},
        {L'\u0425', L'X'}};
    auto result = text;
    for (auto& character : result) {
        const auto found = _S_ucode_to_ascii_map.find(character);
        if (found != _S_ucode_to_ascii_map.end()) {
            character = found->second;
        }
    }
    return result;
}

} // namespace Orlek::Support
