// Hostile triples of data, signature and certificate. An input says which good one to start from
// and how to edit it.
#include "../token/certificates.h"

#include <algorithm>
#include <array>
#include <fuzzer/FuzzedDataProvider.h>
#include <string_view>
#include <utility>

namespace {

using namespace std::literals;
using text = std::string;
using view = std::string_view;

// An element of BER holds bytes or elements. What is none has no tag, and its bytes are all of it.
struct element {
    char tag;
    text bytes;
    std::vector<element> inside{};
    bool marked = false; // at its end, instead of a length
};
using elements = std::vector<element>;

// Takes the elements off an encoding, up to its end or to the mark of it.
elements parsed(view& encoding, bool marked) {
    elements all;
    while (!encoding.empty()) {
        const auto* start = reinterpret_cast<const unsigned char*>(encoding.data());
        const auto* content = start;
        long size = 0;
        int tag = 0, kind = 0;
        const int form = ASN1_get_object(&content, &size, &tag, &kind, std::ssize(encoding));
        if ((form & 0x80) != 0 || tag > 30) {
            all.push_back({0, text(std::exchange(encoding, {}))});
            break;
        }
        element next{encoding[0], {}, {}, (form & 1) != 0};
        encoding.remove_prefix(static_cast<std::size_t>(content - start));
        if (marked && next.tag == 0) { break; }
        const auto length = next.marked ? encoding.size() : static_cast<std::size_t>(size);
        view inside = encoding.substr(0, length);
        encoding.remove_prefix(length);
        if ((form & V_ASN1_CONSTRUCTED) == 0) {
            next.bytes = inside;
        } else {
            next.inside = parsed(inside, next.marked);
            encoding = next.marked ? inside : encoding;
        }
        all.push_back(std::move(next));
    }
    return all;
}

elements parsed(view encoding) { return parsed(encoding, false); }

text built(const elements& all) {
    text out;
    for (const auto& [tag, bytes, inside, marked] : all) {
        const text contents = bytes + built(inside);
        std::array<unsigned char, 16> header{};
        auto* end = header.data();
        ASN1_put_object(&end, marked ? 2 : 0, static_cast<int>(contents.size()), 0, 0);
        header[0] = static_cast<unsigned char>(tag);
        if (tag != 0) { out.append(header.data(), end); }
        out += marked ? contents + "\0\0"s : contents;
    }
    return out;
}

// Where there are elements, down to a depth.
using place = std::pair<elements*, std::size_t>;
std::vector<place> places(elements& in, std::size_t deepest) {
    std::vector<place> all;
    for (std::size_t at = 0; at < in.size(); ++at) {
        all.emplace_back(&in, at);
        const auto more = deepest > 0 ? places(in[at].inside, deepest - 1) : std::vector<place>{};
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

// What stands in elements, however it is encoded.
text bytesIn(const elements& outer) {
    text all;
    for (const auto& each : outer) { all += each.bytes + bytesIn(each.inside); }
    return all;
}

void require(bool promise) {
    if (!promise) { std::abort(); }
}

using triple = std::array<elements, 3>; // data, signature, certificate
struct seed {
    triple parts;
    text attributes;  // what the signed ones tell
    text der, base64; // both forms of the certificate
};
std::vector<seed> seeds;
const text data(made::data.begin(), made::data.end());

// What passes has the data, the certificate and the signed attributes of a good one.
void check(const triple& parts, bool good = false) {
    const auto of = built(parts[0]), signature = built(parts[1]), with = built(parts[2]);
    if (made::verify(of, signature, with) != 0) { return require(!good); }
    auto characters = with;
    std::erase_if(characters, [](char each) { return " \t\r\n"sv.find(each) != view::npos; });
    const auto told = bytesIn(parsed(signature));
    require(of == data && std::ranges::any_of(seeds, [&](const seed& each) {
        return told.find(each.attributes) != text::npos &&
               (with == each.der || characters.find(each.base64) != text::npos);
    }));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const auto& [key, certificate, signature] : made::kinds()) {
        const auto bytes = made::der(certificate);
        made::bytes encoded(bytes.size() * 2);
        const auto length =
            EVP_EncodeBlock(encoded.data(), bytes.data(), static_cast<int>(bytes.size()));
        const text der(bytes.begin(), bytes.end()),
            base64(encoded.begin(), encoded.begin() + length);
        const auto pem = "-----BEGIN CERTIFICATE-----\n" + base64 + "\n-----END CERTIFICATE-----\n";
        const auto message = parsed(text(signature.begin(), signature.end()));
        const auto signer = message[0].inside[1].inside[0].inside.back().inside[0];
        for (const auto& form : {der, pem}) {
            seeds.push_back({{parsed(data), message, parsed(form)},
                bytesIn(signer.inside[3].inside), der, base64});
            check(seeds.back().parts, true);
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    const auto roll = [&](std::size_t n) { return input.ConsumeIntegralInRange(0UL, n - 1); };
    auto parts = seeds[roll(seeds.size())].parts;
    auto other = roll(2) == 0 ? parts : seeds[roll(seeds.size())].parts;
    for (int edits = 0; edits < 8 && input.remaining_bytes() > 0; ++edits) {
        const auto part = roll(3), deepest = roll(17); // near the top most is unsigned
        const auto all = places(parts[part], deepest), donors = places(other[part], deepest);
        if (all.empty()) { continue; }
        const auto [among, at] = all[roll(all.size())];
        const auto [lent, which] = donors[roll(donors.size())];
        const auto here = among->begin() + static_cast<std::ptrdiff_t>(at);
        text whole = built({*here});
        if (whole.empty()) { continue; }
        switch (roll(9)) {
        case 0: here->tag ^= static_cast<char>(1U << roll(8)); break;
        case 1: here->marked = !here->marked; break;
        case 2: *here = {here->tag, input.ConsumeRandomLengthString(127)}; break;
        case 3: *here = (*lent)[which]; break;
        case 4: among->insert(here, (*lent)[which]); break;
        case 5: among->erase(here); break;
        case 6:
            *here = {0, whole.insert(roll(whole.size()), input.ConsumeRandomLengthString())};
            break;
        case 7: *here = {0, whole.insert(1, "\x81")}; break; // the length as no DER has it
        default: whole[roll(whole.size())] ^= static_cast<char>(1U << roll(8)); *here = {0, whole};
        }
    }
    check(parts);
    return 0;
}
