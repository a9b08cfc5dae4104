// Hostile triples of data, signature and certificate. An input says which good one to start from,
// how to edit it, and whether its key is to sign the result anew, so that changed attributes get
// past the arithmetic.
#include "../token/certificates.h"

#include <EUSignCP.h>

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

// What becomes of an edited triple.
enum class what { as_it_stands, signed_anew, attributes_as_data };

struct seed {
    triple parts;
    text der, pem; // both forms of the certificate
    EVP_PKEY* key;
};
std::vector<seed> seeds;

void require(bool promise) {
    if (!promise) { std::abort(); }
}

const auto* raw(view bytes) { return reinterpret_cast<const unsigned char*>(bytes.data()); }

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
        const auto* start = raw(encoding);
        long size = 0;
        int tag = 0;
        int kind = 0;
        const int form = ASN1_get_object(&start, &size, &tag, &kind, std::ssize(encoding));
        const auto* content = encoding.begin() + (start - raw(encoding));
        const bool whole = form == 0 || form == V_ASN1_CONSTRUCTED;
        const view element(encoding.begin(), whole ? content + size : encoding.end());
        if (const auto result = each(depth, element)) {
            out += *result;
        } else if (form == V_ASN1_CONSTRUCTED) {
            const auto inside = changed({content, element.end()}, each, depth + 1);
            out += wrapped(form, tag, kind, inside);
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

bool areAttributes(int depth, view each) { return depth == 5 && each[0] == '\xA0'; }

// A message without what CMS lets anybody change: the signer's certificate in it, and the NULL that
// an algorithm without parameters may have.
text essence(view message, view own) {
    const auto bare = changed(message, [&](int depth, view each) -> replacement {
        if (areAttributes(depth, each)) { return text(each); }
        const bool free = each == "\5\0"sv || (depth == 4 && each == own);
        return free ? replacement("") : std::nullopt;
    });
    return changed(bare, [](int depth, view each) -> replacement {
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

text signatureOf(view content, EVP_PKEY* key) {
    using freed = made::freed<EVP_MD_CTX, EVP_MD_CTX_free>;
    const std::unique_ptr<EVP_MD_CTX, freed> context(EVP_MD_CTX_new());
    std::array<unsigned char, 512> signature{};
    auto length = signature.size();
    EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key);
    EVP_DigestSign(context.get(), signature.data(), &length, raw(content), content.size());
    return {signature.data(), signature.data() + length};
}

bool verifies(const triple& parts) {
    const auto& [data, message, certificate] = parts;
    EU_SIGN_INFO info{};
    const auto result = EUVerifyDataWithParams(raw(data), data.size(), nullptr, 0, raw(message),
        message.size(), 0, nullptr, 0, raw(certificate), certificate.size(), nullptr, &info);
    require((result == 0) == (info.bFilled != 0));
    EUFreeSignInfo(&info);
    return result == 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    EUInitialize();
    static auto kinds = made::kinds();
    kinds.pop_back(); // tied to its certificate by nothing but the copy inside, which may go
    const auto textOf = [](const made::bytes& bytes) { return text(bytes.begin(), bytes.end()); };
    for (const auto& [by, signature] : kinds) {
        const auto der = textOf(made::der(by.certificate));
        auto pem = textOf(made::pem(by.certificate));
        pem.pop_back(); // the last line feed, which may be missing
        for (const auto& certificate : {der, pem}) {
            seeds.push_back(
                {{textOf(made::data), textOf(signature), certificate}, der, pem, by.key.get()});
            require(verifies(seeds.back().parts));
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    const auto roll = [&](std::size_t n) { return input.ConsumeIntegralInRange(0UL, n - 1); };
    const auto& from = seeds[roll(seeds.size())];
    const auto& other = roll(2) == 0 ? from : seeds[roll(seeds.size())];
    const auto act = static_cast<what>(roll(3));
    const auto flipped = roll(8192);
    auto parts = from.parts;
    for (int edits = 0; edits < 8 && input.remaining_bytes() > 0; ++edits) {
        auto& part = parts[roll(3)];
        const auto deepest = static_cast<int>(roll(17)); // near the top most is unsigned
        const auto donors = elements(other.parts[roll(3)], deepest);
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
    auto& [data, message, certificate] = parts;
    auto content = data; // that is signed, unless there are attributes
    const change finish = [&](int depth, view each) -> replacement {
        if (areAttributes(depth, each)) {
            content = "\x31"s.append(each.substr(1));
            return act == what::attributes_as_data ? replacement("") : std::nullopt;
        }
        if (act == what::attributes_as_data || depth != 5 || each[0] != V_ASN1_OCTET_STRING) {
            return std::nullopt;
        }
        return wrapped(0, V_ASN1_OCTET_STRING, 0, signatureOf(content, from.key));
    };
    if (act != what::as_it_stands) { message = changed(message, finish); }
    if (act == what::attributes_as_data) { data = content; }
    if (act != what::signed_anew) {
        require(!verifies(parts) || isGood(parts));
        return 0;
    }
    certificate = other.der;
    if (verifies(parts)) {
        require(other.key == from.key && (content == data || data == from.parts[0]));
        message[flipped / 8 % message.size()] ^= static_cast<char>(1 << flipped % 8);
        require(!verifies(parts)); // no changed bit goes unnoticed
    }
    return 0;
}
