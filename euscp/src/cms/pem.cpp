#include "cms/pem.h"

#include <algorithm>
#include <openssl/evp.h>
#include <string>

namespace eu {

namespace {

// The next line of the text, taken off it; without its end, and blanks before that.
std::string_view nextLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (end == std::string_view::npos) {
        text = {};
        return line;
    }
    text.remove_prefix(end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line.substr(0, line.find_last_not_of(" \t") + 1);
}

// Base64 in its one form: neither characters of other kinds nor bits that say nothing.
std::optional<bytes> fromBase64(const std::string& text) {
    const auto* characters = reinterpret_cast<const unsigned char*>(text.data());
    bytes decoded(text.size() / 4 * 3);
    if (EVP_DecodeBlock(decoded.data(), characters, static_cast<int>(text.size())) < 0) {
        return std::nullopt;
    }
    decoded.resize(decoded.size() - (text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0));
    std::string again(text.size() + 1, '\0');
    EVP_EncodeBlock(
        reinterpret_cast<unsigned char*>(again.data()),
        decoded.data(),
        static_cast<int>(decoded.size()));
    again.pop_back(); // the terminator
    return again == text ? std::optional(std::move(decoded)) : std::nullopt;
}

} // namespace

std::optional<bytes> pemContents(view text, std::initializer_list<std::string_view> labels) {
    constexpr std::string_view begin = "-----BEGIN ";
    constexpr std::string_view dashes = "-----";
    std::string_view rest(reinterpret_cast<const char*>(text.data()), text.size());
    std::string_view label;
    do {
        if (rest.empty()) {
            return std::nullopt;
        }
        const std::string_view line = nextLine(rest);
        const bool opens = line.starts_with(begin) && line.ends_with(dashes); // they cannot overlap
        label = opens ? line.substr(begin.size(), line.size() - begin.size() - dashes.size()) : "";
    } while (std::ranges::find(labels, label) == labels.end());

    const std::string last = "-----END " + std::string(label) + "-----";
    std::string base64;
    while (!rest.empty()) {
        const std::string_view line = nextLine(rest);
        if (line == last) {
            return fromBase64(base64);
        }
        base64 += line;
    }
    return std::nullopt;
}

bool looksLikeDer(view encoding) {
    return encoding.size() > 1 && encoding[0] == 0x30 && encoding[1] >= 0x80;
}

} // namespace eu
