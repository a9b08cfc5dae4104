// Changed bytes of signatures: in the library's own kind everywhere, in others' where they are
// signed.

#include "certificates.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

namespace {

using namespace made;

// Where the signed attributes begin, of which the content type is the first.
std::size_t attributesIn(const bytes& signature) {
    const bytes type{6, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 9, 3};
    const auto found = std::search(signature.begin(), signature.end(), type.begin(), type.end());
    return static_cast<std::size_t>(found - signature.begin());
}

// A good triple of data, signature and certificate, changed from there on in each.
void sweep(std::array<bytes, 3> parts, const std::array<std::size_t, 3>& from) {
    ASSERT_EQ(verify(parts[0], parts[1], parts[2]), 0U);
    for (std::size_t part = 0; part < parts.size(); ++part) {
        for (std::size_t at = from[part]; at < parts[part].size(); ++at) {
            const auto byte = parts[part][at];
            for (const int mask : {0x01, 0x07, 0x0A, 0x20, 0xFF}) {
                parts[part][at] = static_cast<unsigned char>(byte ^ mask);
                EXPECT_NE(verify(parts[0], parts[1], parts[2]), 0U)
                    << part << " at " << at << ' ' << mask;
            }
            parts[part][at] = byte;
        }
    }
}

TEST(Verification, NoticesEveryChangedByte) {
    const auto all = kinds();
    for (const auto& [key, certificate, signature, own] : all) {
        const bytes with = der(certificate);
        sweep(
            {data, signature, with}, {0, own ? 0 : attributesIn(signature), own ? 0 : with.size()});
    }
    sweep({data, all[0].signature, pem(all[0].certificate)}, {0, all[0].signature.size(), 0});
}

} // namespace
