// Verification of signatures made by OpenSSL, by the library, and by nobody.

#include "calls.h"

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
    const signer unrestricted(made::terms{.usage = nullptr});
    const std::vector<std::pair<const signer*, how>> accepted{{&plain, {}},
        {&plain, {.flags = CMS_NOCERTS}}, {&plain, {.flags = CMS_CADES | CMS_NOCERTS}},
        {&plain, {.flags = CMS_USE_KEYID}},
        {&plain, {.flags = CMS_NOSMIMECAP, .digest = EVP_sha384()}},
        {&rsa, {.flags = CMS_CADES, .digest = EVP_sha512()}}, {&rsa, {.pss = true}},
        {&p521, {.digest = EVP_sha512()}}, {&unrestricted, {}}};
    for (const auto& [by, with] : accepted) {
        bool timed = false;
        EXPECT_EQ(verify(data, sign(*by, with), made::der(by->certificate), &timed), 0U)
            << &with - &accepted.front().second;
        EXPECT_TRUE(timed);
    }
    bool timed = true;
    EXPECT_EQ(
        verify(data, sign(plain, {.flags = CMS_NOATTR}), made::der(plain.certificate), &timed), 0U);
    EXPECT_FALSE(timed);
}

TEST(Verification, RefusesEachForItsOwnReason) {
    const signer plain;
    const signer other;
    const signer expired(made::terms{.begin = -7200, .end = -3600});
    const signer agreement(made::terms{.usage = "critical,keyAgreement"});
    const signer curve(EVP_EC_gen("secp256k1"));
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
    const bytes weak = sign(plain, {.digest = EVP_sha1()});
    bytes longer = good;
    longer.push_back(0);

    // The same key and name in another certificate: named by neither serial number nor hash.
    const made::certificate renewed = made::issue(plain.key.get(), authority().get());
    const bytes bound = sign(plain, {.flags = CMS_CADES | CMS_NOCERTS | CMS_USE_KEYID});

    const struct {
        bytes signature;
        X509* certificate;
        DWORD expected;
    } refused[] = {{attached, plain.certificate.get(), EU_ERROR_SIGN_FORMAT},
        {twoSigners, plain.certificate.get(), EU_ERROR_SIGN_FORMAT},
        {longer, plain.certificate.get(), EU_ERROR_SIGN_FORMAT},
        {{0x30, 0x00}, plain.certificate.get(), EU_ERROR_SIGN_FORMAT},
        {unsignedAttribute, plain.certificate.get(), EU_ERROR_SIGN_UNCHECKED},
        {foreignCertificate, plain.certificate.get(), EU_ERROR_SIGN_UNCHECKED},
        {late, plain.certificate.get(), EU_ERROR_SIGN_TIME},
        {early, plain.certificate.get(), EU_ERROR_SIGN_TIME},
        {sign(expired), expired.certificate.get(), EU_ERROR_SIGN_TIME},
        {weak, plain.certificate.get(), EU_ERROR_SIGN_ALGORITHM},
        {sign(curve), curve.certificate.get(), EU_ERROR_SIGN_ALGORITHM},
        {sign(agreement), agreement.certificate.get(), EU_ERROR_CERT_USAGE},
        {good, other.certificate.get(), EU_ERROR_SIGN_SIGNER},
        {good, renewed.get(), EU_ERROR_SIGN_SIGNER}, {bound, renewed.get(), EU_ERROR_SIGN_SIGNER}};
    for (const auto& row : refused) {
        EXPECT_EQ(verify(data, row.signature, made::der(row.certificate, i2d_X509)), row.expected)
            << &row - refused;
    }
    EXPECT_EQ(verify(data, good, {0x30}), EU_ERROR_CERT_FORMAT);
    EXPECT_EQ(verify({'c'}, good, made::der(plain.certificate)), EU_ERROR_SIGN_INVALID);
}

// No changed byte goes unnoticed, wherever it stands.
TEST(Verification, NoticesEveryChangedByte) {
    auto all = kinds();
    std::vector<std::array<bytes, 3>> triples{{data, all[0].signature, pem(all[0].by.certificate)}};
    for (const auto& [by, signature] : all) {
        triples.push_back({data, signature, made::der(by.certificate)});
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
