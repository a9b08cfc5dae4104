// Hostile triples of data, signature and certificate. An input says which good one to start from
// and how to edit it.
#include "../token/certificates.h"

#include <algorithm>
#include <array>
#include <fuzzer/FuzzedDataProvider.h>
#include <optional>
#include <string_view>

namespace {

using namespace std::literals;
using text = std::string;
using view = std::string_view;
using replacement = std::optional<text>;
using triple = std::array<text, 3>; // data, signature, certificate

struct seed {
    triple parts;
    text der, pem; // both forms of the certificate
};
std::vector<seed> seeds;

void require(bool promise) {
    if (!promise) { std::abort(); }
}

text wrapped(int form, int tag, int kind, view content) {
    std::array<unsigned char, 16> header{};
    auto* end = header.data();
    ASN1_put_object(&end, form, static_cast<int>(content.size()), tag, kind);
    return text(header.data(), end).append(content);
}

// DER with its elements changed, and the lengths around them put right. A replacement takes an
// element's place; where there is none, what is in the element is gone through.
using change = std::function<replacement(int depth, view element)>;

text changed(view encoding, const change& each, int depth = 0) {
    text out;
    while (!encoding.empty()) {
        const auto* start = reinterpret_cast<const unsigned char*>(encoding.data());
        const auto* content = start;
        long size = 0;
        int tag = 0, kind = 0;
        const int form = ASN1_get_object(&content, &size, &tag, &kind, std::ssize(encoding));
        const bool whole = form == 0 || form == V_ASN1_CONSTRUCTED;
        const auto header = static_cast<std::size_t>(content - start);
        const auto length = header + static_cast<std::size_t>(size);
        const view element = encoding.substr(0, whole ? length : encoding.npos);
        if (const auto result = each(depth, element)) {
            out += *result;
        } else if (form == V_ASN1_CONSTRUCTED) {
            out += wrapped(form, tag, kind, changed(element.substr(header), each, depth + 1));
        } else {
            out += element;
        }
        encoding.remove_prefix(element.size());
    }
    return out;
}

// The elements of an encoding, down to a depth.
std::vector<view> elements(view encoding, int deepest) {
    std::vector<view> all;
    changed(encoding, [&](int depth, view each) {
        all.push_back(each);
        return depth == deepest ? replacement(each) : std::nullopt;
    });
    return all;
}

// A message without what CMS lets anybody change: the signer's certificate in it, and the NULL that
// an algorithm without parameters may have. All of the signed attributes stays.
text essence(view message, view own) {
    const auto bare = changed(message, [&](int depth, view each) -> replacement {
        const bool free = each == "\5\0"sv || (depth == 4 && each == own);
        const bool attributes = depth == 5 && each[0] == '\xA0';
        return free || attributes ? replacement(free ? "" : each) : std::nullopt;
    });
    return changed(bare, [](int depth, view each) {
        return depth == 3 && each == "\xA0\0"sv ? replacement("") : std::nullopt;
    });
}

// A certificate in PEM may have text around it, and CR LF.
bool isGood(const triple& parts) {
    auto lines = parts[2];
    for (auto at = text::npos; (at = lines.find("\r\n")) != text::npos;) { lines.erase(at, 1); }
    return std::ranges::any_of(seeds, [&](const seed& good) {
        return parts[0] == good.parts[0] &&
               (parts[2] == good.der || lines.find(good.pem) != text::npos) &&
               essence(parts[1], good.der) == essence(good.parts[1], good.der);
    });
}

bool verifies(const triple& parts) { return made::verify(parts[0], parts[1], parts[2]) == 0; }

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    auto kinds = made::kinds();
    kinds.pop_back(); // tied to its certificate by nothing but the copy inside, which may go
    const auto textOf = [](const made::bytes& bytes) { return text(bytes.begin(), bytes.end()); };
    for (const auto& [by, signature] : kinds) {
        const auto der = textOf(made::der(by.certificate));
        auto pem = textOf(made::pem(by.certificate));
        pem.pop_back(); // the last line feed, which may be missing
        for (const auto& certificate : {der, pem}) {
            seeds.push_back({{textOf(made::data), textOf(signature), certificate}, der, pem});
            require(verifies(seeds.back().parts));
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    const auto roll = [&](std::size_t n) { return input.ConsumeIntegralInRange(0UL, n - 1); };
    auto parts = seeds[roll(seeds.size())].parts;
    const auto other = roll(2) == 0 ? parts : seeds[roll(seeds.size())].parts;
    for (int edits = 0; edits < 8 && input.remaining_bytes() > 0; ++edits) {
        auto& part = parts[roll(3)];
        const auto deepest = static_cast<int>(roll(17)); // near the top most is unsigned
        const auto donors = elements(other[roll(3)], deepest);
        const auto& donor = donors[roll(donors.size())];
        auto left = roll(elements(part, deepest).size() + 1);
        part = changed(part, [&](int depth, view element) -> replacement {
            if (left-- != 0) { return depth == deepest ? replacement(element) : std::nullopt; }
            text each(element);
            switch (roll(7)) {
            case 0:
                each[roll(2) * roll(each.size())] ^= static_cast<char>(1U << roll(8));
                return each;
            case 1: return each[0] + wrapped(0, 0, 0, input.ConsumeRandomLengthString()).substr(1);
            case 2: return each.insert(1, "\x81"); // the length as no DER has it
            case 3: return each.insert(roll(each.size()), input.ConsumeRandomLengthString(8));
            case 4: return text(donor);
            case 5:
                each.append(donor)[element.size()] ^= static_cast<char>(roll(2)); // tag
                return each;
            default: return "";
            }
        });
    }
    require(!verifies(parts) || isGood(parts));
    return 0;
}
