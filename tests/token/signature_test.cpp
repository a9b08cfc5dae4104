// Verification of signatures made by OpenSSL, by the library, and by nobody.

#include "certificates.h"

#include <array>
#include <gtest/gtest.h>

namespace {

using namespace made;

void signingTime(CMS_SignerInfo* signer, long fromNow) {
    ASN1_TIME* time = X509_gmtime_adj(nullptr, fromNow);
    CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_signingTime, time->type, time, -1);
    ASN1_TIME_free(time);
}

TEST(Verification, AcceptsWhatOthersSign) {
    const signer plain;
    const signer rsa(EVP_RSA_gen(2048));
    const signer p521(EVP_EC_gen("P-521"));
    const signer unrestricted(p256(), {.usage = nullptr});
    const std::vector<std::pair<const signer*, how>> accepted{{&plain, {}},
        {&plain, {.flags = CMS_NOCERTS}}, {&plain, {.flags = CMS_CADES | CMS_NOCERTS}},
        {&plain, {.flags = CMS_USE_KEYID}}, {&plain, {.flags = CMS_NOATTR}},
        {&plain, {.flags = CMS_NOSMIMECAP, .digest = EVP_sha384()}},
        {&rsa, {.flags = CMS_CADES, .digest = EVP_sha512()}}, {&rsa, {.pss = true}},
        {&p521, {.digest = EVP_sha512()}}, {&unrestricted, {}}};
    for (const auto& [by, with] : accepted) {
        bool timed = false;
        EXPECT_EQ(verify(data, sign(*by, with), der(by->certificate), &timed), 0U)
            << &with - &accepted.front().second;
        EXPECT_EQ(timed, with.flags != CMS_NOATTR);
    }
}

TEST(Verification, RefusesEachForItsOwnReason) {
    const signer plain;
    const signer other;
    const signer expired(p256(), {.begin = -7200, .end = -3600});
    const signer agreement(p256(), {.usage = "critical,keyAgreement"});
    const signer curve(EVP_EC_gen("secp256k1"));
    EVP_PKEY_up_ref(plain.key.get());
    const signer renewed(plain.key.get()); // the same key and name in another certificate
    const bytes good = sign(plain);
    const auto changed = [&](auto change) { return sign(plain, {.change = change}); };

    const bytes attached =
        changed([](CMS_ContentInfo* m, CMS_SignerInfo*) { CMS_set_detached(m, 0); });
    const bytes twoSigners = changed([&](CMS_ContentInfo* m, CMS_SignerInfo*) {
        CMS_add1_signer(m, other.certificate.get(), other.key.get(), nullptr, 0);
    });
    const bytes unsignedAttribute = changed([](CMS_ContentInfo*, CMS_SignerInfo* s) {
        CMS_unsigned_add1_attr_by_txt(s, "1.2.3.4", V_ASN1_OCTET_STRING, "x", 1);
    });
    const bytes foreignCertificate = changed(
        [&](CMS_ContentInfo* m, CMS_SignerInfo*) { CMS_add1_cert(m, other.certificate.get()); });
    const bytes late = changed([](CMS_ContentInfo*, CMS_SignerInfo* s) { signingTime(s, 7200); });
    const bytes early = changed([](CMS_ContentInfo*, CMS_SignerInfo* s) { signingTime(s, -7200); });
    bytes longer = good;
    longer.push_back(0);

    const struct {
        bytes signature;
        const signer& by;
        DWORD expected;
    } refused[] = {{attached, plain, EU_ERROR_SIGN_FORMAT},
        {twoSigners, plain, EU_ERROR_SIGN_FORMAT}, {longer, plain, EU_ERROR_SIGN_FORMAT},
        {{0x30, 0x00}, plain, EU_ERROR_SIGN_FORMAT},
        {unsignedAttribute, plain, EU_ERROR_SIGN_UNCHECKED},
        {foreignCertificate, plain, EU_ERROR_SIGN_UNCHECKED}, {late, plain, EU_ERROR_SIGN_TIME},
        {early, plain, EU_ERROR_SIGN_TIME}, {sign(expired), expired, EU_ERROR_SIGN_TIME},
        {sign(plain, {.digest = EVP_sha1()}), plain, EU_ERROR_SIGN_ALGORITHM},
        {sign(curve), curve, EU_ERROR_SIGN_ALGORITHM},
        {sign(agreement), agreement, EU_ERROR_CERT_USAGE}, {good, other, EU_ERROR_SIGN_SIGNER},
        {good, renewed, EU_ERROR_SIGN_SIGNER},
        {sign(plain, {.flags = CMS_CADES | CMS_NOCERTS | CMS_USE_KEYID}), renewed,
            EU_ERROR_SIGN_SIGNER}};
    for (const auto& row : refused) {
        EXPECT_EQ(verify(data, row.signature, der(row.by.certificate)), row.expected)
            << &row - refused;
    }
    EXPECT_EQ(verify(data, good, {0x30}), EU_ERROR_CERT_FORMAT);
    EXPECT_EQ(verify({'c'}, good, der(plain.certificate)), EU_ERROR_SIGN_INVALID);
    // Attributes that were signed elsewhere, given out for the data.
    const bytes attributes{0x31, 9, 0x30, 7, 6, 1, 0x2A, 0x31, 2, 5, 0};
    const bytes apart = sign(plain, {.flags = CMS_NOATTR, .of = attributes});
    EXPECT_EQ(verify(attributes, apart, der(plain.certificate)), EU_ERROR_SIGN_FORMAT);
}

// No changed byte goes unnoticed, wherever it stands.
TEST(Verification, NoticesEveryChangedByte) {
    std::vector<std::array<bytes, 3>> triples;
    for (const auto& [by, signature] : kinds()) {
        triples.push_back({data, signature, der(by.certificate)});
        if (triples.size() == 1) { triples.push_back({data, signature, pem(by.certificate)}); }
    }
    for (auto parts : triples) {
        ASSERT_EQ(verify(parts[0], parts[1], parts[2]), 0U);
        for (bytes& part : parts) {
            for (unsigned char& byte : part) {
                for (const int mask : {0x01, 0x07, 0x0A, 0x20, 0xFF}) {
                    byte = static_cast<unsigned char>(byte ^ mask);
                    EXPECT_NE(verify(parts[0], parts[1], parts[2]), 0U)
                        << &part - parts.data() << " at " << &byte - part.data() << ' ' << mask;
                    byte = static_cast<unsigned char>(byte ^ mask);
                }
            }
        }
    }
}

} // namespace
