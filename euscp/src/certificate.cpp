#include "certificate.h"

#include <algorithm>
#include <array>
#include <limits>
#include <openssl/pem.h>
#include <string_view>

namespace eu {

namespace {

bio_ptr reading(view contents) {
    require(contents.size() <= std::numeric_limits<int>::max(), EU_ERROR_CERT_FORMAT);
    return taken<bio_ptr>(BIO_new_mem_buf(contents.data(), static_cast<int>(contents.size())));
}

std::string textIn(BIO* memory) {
    char* start = nullptr;
    const long size = BIO_get_mem_data(memory, &start);
    return {start, static_cast<std::size_t>(size)};
}

bool looksLikeDer(view encoding) {
    return !encoding.empty() && encoding.front() == 0x30;
}

x509_ptr parsePem(view encoding) {
    auto certificate = taken<x509_ptr>(
        PEM_read_bio_X509(reading(encoding).get(), nullptr, nullptr, nullptr),
        EU_ERROR_CERT_FORMAT);
    auto written = taken<bio_ptr>(BIO_new(BIO_s_mem()));
    succeed(PEM_write_bio_X509(written.get(), certificate.get()));

    std::string lines(encoding.begin(), encoding.end());
    std::erase(lines, '\r');
    require(lines.find(textIn(written.get())) != std::string::npos, EU_ERROR_CERT_FORMAT);
    return certificate;
}

// Whether to prefer the first certificate to the second.
bool better(const X509* one, const X509* other) {
    const std::time_t now = std::time(nullptr);
    const bool oneValid = validAt(one, now);
    if (oneValid != validAt(other, now)) {
        return oneValid;
    }
    return ASN1_TIME_compare(X509_get0_notAfter(one), X509_get0_notAfter(other)) > 0;
}

} // namespace

x509_ptr parseCertificate(view encoding) {
    return looksLikeDer(encoding)
               ? decodedStrictly<x509_ptr>(encoding, d2i_X509, i2d_X509, EU_ERROR_CERT_FORMAT)
               : parsePem(encoding);
}

x509_ptr certificateIn(const session& on, CK_OBJECT_HANDLE object) {
    const auto value = on.value(object, CKA_VALUE);
    const unsigned char* end = value ? value->data() : nullptr;
    return x509_ptr(value ? d2i_X509(nullptr, &end, static_cast<long>(value->size())) : nullptr);
}

x509_ptr ownCertificate(const session& on, const EVP_PKEY* publicKey) {
    x509_ptr best;
    for (const CK_OBJECT_HANDLE object : on.find(CKO_CERTIFICATE)) {
        auto certificate = certificateIn(on, object);
        if (certificate && EVP_PKEY_eq(X509_get0_pubkey(certificate.get()), publicKey) == 1 &&
            (!best || better(certificate.get(), best.get()))) {
            best = std::move(certificate);
        }
    }
    require(best != nullptr, EU_ERROR_CERT_NOT_FOUND);
    return best;
}

bool isAuthority(X509* certificate) {
    return X509_check_ca(certificate) != 0;
}

bool allowsSigning(X509* certificate) {
    constexpr std::uint32_t signing = KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION;
    return (X509_get_key_usage(certificate) & signing) != 0; // all bits where there is none
}

bool validAt(const X509* certificate, std::time_t moment) {
    constexpr int unreadable = -2;
    const int begin = ASN1_TIME_cmp_time_t(X509_get0_notBefore(certificate), moment);
    const int end = ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate), moment);
    return begin != unreadable && begin <= 0 && end >= 0;
}

bool isServed(const EVP_PKEY* key) {
    if (EVP_PKEY_is_a(key, "RSA") == 1) {
        return true;
    }
    std::array<char, 32> group{};
    std::size_t length = 0;
    if (EVP_PKEY_is_a(key, "EC") != 1 ||
        EVP_PKEY_get_group_name(key, group.data(), group.size(), &length) != 1) {
        return false;
    }
    constexpr std::array<std::string_view, 3> curves{"prime256v1", "secp384r1", "secp521r1"};
    return std::ranges::find(curves, group.data()) != curves.end();
}

SYSTEMTIME systemTime(const ASN1_TIME* time) {
    std::tm utc{};
    succeed(ASN1_TIME_to_tm(time, &utc), EU_ERROR_CERT_FORMAT);
    const auto word = [](int value) { return static_cast<WORD>(value); };
    return {
        .wYear = word(utc.tm_year + 1900),
        .wMonth = word(utc.tm_mon + 1),
        .wDayOfWeek = word(utc.tm_wday),
        .wDay = word(utc.tm_mday),
        .wHour = word(utc.tm_hour),
        .wMinute = word(utc.tm_min),
        .wSecond = word(utc.tm_sec),
        .wMilliseconds = 0};
}

std::string nameText(const X509_NAME* name) {
    auto memory = taken<bio_ptr>(BIO_new(BIO_s_mem()));
    constexpr unsigned long style = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;
    require(X509_NAME_print_ex(memory.get(), name, 0, style) >= 0, EU_ERROR_CRYPTO);
    return textIn(memory.get());
}

std::string serialText(const X509* certificate) {
    auto memory = taken<bio_ptr>(BIO_new(BIO_s_mem()));
    require(
        i2a_ASN1_INTEGER(memory.get(), X509_get0_serialNumber(certificate)) > 0,
        EU_ERROR_CRYPTO);
    return textIn(memory.get());
}

} // namespace eu
