// Hostile triples of data, signature and certificate. An input says which good one to start from
// and how to edit it.
#include "../token/certificates.h"

#include <algorithm>
#include <array>
#include <fuzzer/FuzzedDataProvider.h>
#include <numeric>

namespace {

using namespace std::literals;
using text = std::string;
using texts = std::vector<text>;

std::vector<std::array<text, 3>> seeds; // data, signature, certificate

text asText(const made::bytes& all) { return {all.begin(), all.end()}; }

text joined(const texts& all) { return std::accumulate(all.begin(), all.end(), text()); }

// The elements in an element of BER, whatever its tag; primitive ones come in DER. May be none.
texts inside(text whole) {
    using release = made::freed<[](auto* list) { sk_ASN1_TYPE_pop_free(list, ASN1_TYPE_free); }>;
    if ((whole[0] & V_ASN1_CONSTRUCTED) == 0) { return {}; }
    whole[0] = V_ASN1_CONSTRUCTED | V_ASN1_SEQUENCE;
    const auto* start = reinterpret_cast<const unsigned char*>(whole.data());
    const std::unique_ptr<ASN1_SEQUENCE_ANY, release> list(
        d2i_ASN1_SEQUENCE_ANY(nullptr, &start, std::ssize(whole)));
    texts all;
    for (int i = 0; i < sk_ASN1_TYPE_num(list.get()); ++i) {
        all.push_back(asText(made::der(sk_ASN1_TYPE_value(list.get(), i), i2d_ASN1_TYPE)));
    }
    return all;
}

text element(char tag, const text& contents) {
    std::array<unsigned char, 16> header{};
    auto* end = header.data();
    ASN1_put_object(&end, 0, static_cast<int>(contents.size()), 0, 0);
    header[0] = static_cast<unsigned char>(tag);
    return text(header.data(), end) + contents;
}

// An element after a change of it and, before that, of those inside it down to a depth.
text changed(const text& whole, std::size_t deepest, const auto& change) {
    const auto before = deepest > 0 ? inside(whole) : texts();
    auto all = before;
    for (auto& each : all) { each = changed(each, deepest - 1, change); }
    return change(all == before ? whole : element(whole[0], joined(all)));
}

// What an element says, however it is encoded.
text told(const text& whole) {
    text all;
    for (const auto& each : inside(whole)) { all += told(each); }
    return all.empty() ? whole : all;
}

// What the signed attributes of the signers say.
texts signedIn(const text& message) {
    texts all;
    for (const auto& signer : inside(inside(inside(inside(message).at(1)).at(0)).back())) {
        for (const auto& field : inside(signer)) {
            if (field[0] == '\xA0') { all.push_back(told(field)); }
        }
    }
    return all;
}

text withoutBlanks(text all) {
    std::erase_if(all, [](char each) { return " \t\r\n"s.find(each) != text::npos; });
    return all;
}

// What passes has the data, the signed attributes and the certificate of a good one.
bool passes(const std::array<text, 3>& parts) {
    if (made::verify(parts[0], parts[1], parts[2]) != 0) { return false; }
    const auto attributes = signedIn(parts[1]);
    const auto characters = withoutBlanks(parts[2]);
    for (const auto& [data, signature, certificate] : seeds) {
        const bool found = characters.find(withoutBlanks(certificate)) != text::npos;
        if (data == parts[0] && (certificate == parts[2] || (certificate[0] == '-' && found)) &&
            std::ranges::count(attributes, signedIn(signature)[0]) > 0) {
            return true;
        }
    }
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const auto& [key, certificate, signature] : made::kinds()) {
        const auto der = made::der(certificate);
        made::bytes base64(der.size() * 2);
        EVP_EncodeBlock(base64.data(), der.data(), static_cast<int>(der.size()));
        const auto pem = "-----BEGIN CERTIFICATE-----\n" + text(asText(base64).c_str()) +
                         "\n-----END CERTIFICATE-----\n";
        for (const auto& form : {asText(der), pem}) {
            seeds.push_back({asText(made::data), asText(signature), form});
            if (!passes(seeds.back())) { std::abort(); }
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    const auto roll = [&](std::size_t n) { return input.ConsumeIntegralInRange(0UL, n - 1); };
    auto parts = seeds[roll(seeds.size())];
    const auto other = roll(2) == 0 ? parts : seeds[roll(seeds.size())];
    for (int edits = 0; edits < 8 && input.remaining_bytes() > 0; ++edits) {
        const auto part = roll(3), deepest = roll(17); // near the top most is unsigned
        if (parts[part].empty()) { continue; }
        texts all, donors;
        changed(parts[part], deepest, [&](const text& each) { return all.emplace_back(each); });
        changed(other[part], deepest, [&](const text& each) { return donors.emplace_back(each); });
        auto at = roll(all.size());
        parts[part] = changed(parts[part], deepest, [&](text whole) {
            if (at-- != 0) { return whole; }
            switch (roll(10)) {
            case 0: whole[0] ^= static_cast<char>(1U << roll(8)); return whole;
            case 1: return whole[0] + "\x80"s + joined(inside(whole)) + "\0\0"s; // its end marked
            case 2: return element(whole[0], input.ConsumeRandomLengthString(127));
            case 3: return input.ConsumeRandomLengthString(127);
            case 4: return donors[roll(donors.size())];
            case 5: return donors[roll(donors.size())] + whole;
            case 6: return text();
            case 7: return whole.insert(1, "\x81"); // the length as no DER has it
            case 8: return whole.insert(roll(whole.size() + 1), input.ConsumeRandomLengthString());
            default: whole[roll(whole.size())] ^= static_cast<char>(1U << roll(8)); return whole;
            }
        });
    }
    passes(parts);
    return 0;
}
