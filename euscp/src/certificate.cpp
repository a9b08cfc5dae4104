#include "certificate.h"

#include <algorithm>
#include <array>
#include <limits>
#include <openssl/core_names.h>
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

// A SEQUENCE of more than 127 bytes, which every certificate is. No text begins so.
bool looksLikeDer(view encoding) {
    return encoding.size() > 1 && encoding[0] == 0x30 && encoding[1] >= 0x80;
}

int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return -1;
}

// The text with its line ends as PEM_write makes them; the last line may end without one.
std::string plainLines(view text) {
    std::string lines;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool carriageReturn =
            text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n';
        if (!carriageReturn) {
            lines += static_cast<char>(text[at]);
        }
    }
    if (lines.ends_with('-')) {
        lines += '\n';
    }
    return lines;
}

x509_ptr parsePem(view encoding) {
    auto certificate = taken<x509_ptr>(
        PEM_read_bio_X509(reading(encoding).get(), nullptr, noPassPhrase, nullptr),
        EU_ERROR_CERT_FORMAT);
    auto written = taken<bio_ptr>(BIO_new(BIO_s_mem()));
    succeed(PEM_write_bio_X509(written.get(), certificate.get()));

    const std::string lines = plainLines(encoding);
    require(lines.find(textIn(written.get())) != std::string::npos, EU_ERROR_CERT_FORMAT);
    return certificate;
}

// Whether to prefer the first certificate to the second.
bool better(const x509_ptr& one, const x509_ptr& other) {
    const std::time_t now = std::time(nullptr);
    const bool oneValid = validAt(one.get(), now);
    if (oneValid != validAt(other.get(), now)) {
        return oneValid;
    }
    return ASN1_TIME_compare(X509_get0_notAfter(one.get()), X509_get0_notAfter(other.get())) > 0;
}

x509_ptr lenientlyParsed(view der) {
    const unsigned char* end = der.data();
    x509_ptr certificate(d2i_X509(nullptr, &end, static_cast<long>(der.size())));
    if (!certificate) {
        requireMemory();
    }
    return certificate;
}

// What every encoding of the public key holds as it is: the modulus, or the point's x-coordinate.
// To look for it spares the decoding of other keys' certificates, which takes longer than reading
// them.
bytes hallmark(const EVP_PKEY* publicKey) {
    const bool rsa = EVP_PKEY_is_a(publicKey, "RSA") == 1;
    BIGNUM* number = nullptr;
    succeed(EVP_PKEY_get_bn_param(
        publicKey,
        rsa ? OSSL_PKEY_PARAM_RSA_N : OSSL_PKEY_PARAM_EC_PUB_X,
        &number));
    const owned<BIGNUM, BN_free> owner(number);
    bytes digits(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, digits.data());
    return digits;
}

} // namespace

x509_ptr parseCertificate(view encoding) {
    return looksLikeDer(encoding)
               ? decodedStrictly<x509_ptr>(encoding, d2i_X509, i2d_X509, EU_ERROR_CERT_FORMAT)
               : parsePem(encoding);
}

x509_ptr certificateIn(const session& on, CK_OBJECT_HANDLE object) {
    const auto value = on.value(object, CKA_VALUE);
    return value ? lenientlyParsed(*value) : nullptr;
}

std::vector<x509_ptr> certificatesOf(const session& on, const EVP_PKEY* publicKey) {
    const bytes mark = hallmark(publicKey);
    std::vector<x509_ptr> certificates;
    for (const CK_OBJECT_HANDLE object : on.find(CKO_CERTIFICATE)) {
        const bytes value = on.value(object, CKA_VALUE).value_or(bytes{});
        if (std::search(value.begin(), value.end(), mark.begin(), mark.end()) == value.end()) {
            continue;
        }
        auto certificate = lenientlyParsed(value);
        if (certificate && isSameKey(X509_get0_pubkey(certificate.get()), publicKey)) {
            certificates.push_back(std::move(certificate));
        }
    }
    return certificates;
}

x509_ptr ownCertificate(const session& on, const EVP_PKEY* publicKey) {
    auto certificates = certificatesOf(on, publicKey);
    const auto best = std::ranges::min_element(certificates, better);
    return best != certificates.end() ? std::move(*best) : nullptr;
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
    const auto number = taken<owned<BIGNUM, BN_free>>(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr));
    const auto digits =
        taken<owned<char, [](char* text) { OPENSSL_free(text); }>>(BN_bn2hex(number.get()));
    return digits.get();
}

} // namespace eu
