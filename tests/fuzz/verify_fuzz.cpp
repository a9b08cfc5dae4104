// Hostile triples of data, signature and certificate. An input says which good one to start from
// and how to edit it.
#include "../token/certificates.h"

#include <algorithm>
#include <array>
#include <functional>
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
    text der, base64;       // both forms of the certificate
    std::vector<text> told; // by the signed attributes, one after the other
};
std::vector<seed> seeds;

void require(bool promise) {
    if (!promise) { std::abort(); }
}

// DER with its elements changed, and the lengths around them put right. A replacement takes an
// element's place; where there is none, what is in the element is gone through.
using change = std::function<replacement(int depth, view element, view inside)>;

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
        if (const auto result = each(depth, element, element.substr(header))) {
            out += *result;
        } else if (form == V_ASN1_CONSTRUCTED) {
            const text inside = changed(element.substr(header), each, depth + 1);
            std::array<unsigned char, 16> put{};
            auto* end = put.data();
            ASN1_put_object(&end, form, static_cast<int>(inside.size()), tag, kind);
            out.append(put.data(), end).append(inside);
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
    changed(encoding, [&](int depth, view each, view) {
        all.push_back(each);
        return depth == deepest ? replacement(each) : std::nullopt;
    });
    return all;
}

// What the attributes of the last signer tell, in the elements that hold no others.
std::vector<text> toldIn(view message) {
    std::vector<text> all;
    changed(message, [&](int depth, view each, view inside) -> replacement {
        if (depth == 5 && each[0] == '\xA0') { all.clear(); }
        if (depth == 5 && each[0] != '\xA0') { return text(each); }
        if (depth > 5 && (each[0] & V_ASN1_CONSTRUCTED) == 0) { all.emplace_back(inside); }
        return std::nullopt;
    });
    return all;
}

// What passes has the data, the certificate and the signed attributes of a good one.
bool isGood(const triple& parts) {
    auto characters = parts[2];
    std::erase_if(characters, [](char each) { return " \t\r\n"sv.find(each) != view::npos; });
    return std::ranges::any_of(seeds, [&](const seed& good) {
        std::size_t at = 0;
        const bool signs = std::ranges::all_of(good.told, [&](const text& each) {
            at = parts[1].find(each, at);
            return at != text::npos;
        });
        return signs && parts[0] == good.parts[0] &&
               (parts[2] == good.der || characters.find(good.base64) != text::npos);
    });
}

bool verifies(const triple& parts) { return made::verify(parts[0], parts[1], parts[2]) == 0; }

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    auto kinds = made::kinds();
    kinds.pop_back(); // tied to its certificate by nothing
    const auto textOf = [](const made::bytes& bytes) { return text(bytes.begin(), bytes.end()); };
    for (const auto& [key, certificate, signature, own] : kinds) {
        const auto der = textOf(made::der(certificate)), pem = textOf(made::pem(certificate));
        auto base64 = pem.substr(27, pem.size() - 53); // between its labels
        std::erase(base64, '\n');
        const auto message = textOf(signature);
        for (const auto& form : {der, pem}) {
            seeds.push_back({{textOf(made::data), message, form}, der, base64, toldIn(message)});
            require(seeds.back().told.size() > 8 && verifies(seeds.back().parts));
            require(isGood(seeds.back().parts));
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
        part = changed(part, [&](int depth, view whole, view inside) -> replacement {
            if (left-- != 0) { return depth == deepest ? replacement(whole) : std::nullopt; }
            text each(whole);
            switch (roll(8)) {
            case 0:
                each[roll(2) * roll(each.size())] ^= static_cast<char>(1U << roll(8));
                return each;
            case 1: return each.insert(1, "\x81"); // the length as no DER has it
            case 2: return each.insert(roll(each.size()), input.ConsumeRandomLengthString());
            case 3: return each[0] + "\x80"s.append(inside) + "\0\0"s; // no length at all
            case 4: {
                const auto random = input.ConsumeRandomLengthString(127);
                return each[0] + text(1, static_cast<char>(random.size())) + random;
            }
            case 5: return text(donor);
            case 6:
                each.append(donor)[whole.size()] ^= static_cast<char>(roll(2)); // tag
                return each;
            default: return "";
            }
        });
    }
    require(!verifies(parts) || isGood(parts));
    return 0;
}
