#include "cms/certificate.h"

#include "cms/pem.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <openssl/core_names.h>
#include <string_view>

namespace eu {

namespace {

std::string textIn(BIO* memory) {
    char* start = nullptr;
    const long size = BIO_get_mem_data(memory, &start);
    return {start, static_cast<std::size_t>(size)};
}

// One extension, and whether it is there at all: it is null where it is malformed or stands twice.
// OpenSSL's own questions read all extensions, at a cost beyond all measure for hostile ones.
template <class Owner>
std::pair<Owner, bool> extension(const X509* certificate, int name) {
    constexpr int absent = -1;
    int found = absent;
    auto* value =
        static_cast<typename Owner::pointer>(X509_get_ext_d2i(certificate, name, &found, nullptr));
    if (value == nullptr) {
        requireMemory();
    }
    return {Owner(value), found != absent};
}

// The bits of a key usage, as RFC 5280 numbers them.
constexpr int digital_signature = 0;
constexpr int non_repudiation = 1;

bool allowsAny(const X509* certificate, std::initializer_list<int> uses) {
    const auto [usage, present] =
        extension<owned<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>(certificate, NID_key_usage);
    const auto isAllowed = [bits = usage.get()](int use) {
        return ASN1_BIT_STRING_get_bit(bits, use) == 1;
    };
    return usage ? std::ranges::any_of(uses, isAllowed) : !present;
}

bignum_ptr number(const EVP_PKEY* key, const char* name) {
    BIGNUM* value = nullptr;
    succeed(EVP_PKEY_get_bn_param(key, name, &value));
    return bignum_ptr(value);
}

void checkRsa(const EVP_PKEY* key) {
    constexpr int shortest = 2048;
    require(EVP_PKEY_get_bits(key) >= shortest, EU_ERROR_CERT_KEY_SHORT);
    const bignum_ptr exponent = number(key, OSSL_PKEY_PARAM_RSA_E);
    require(
        BN_is_odd(number(key, OSSL_PKEY_PARAM_RSA_N).get()) == 1 &&
            BN_is_odd(exponent.get()) == 1 && BN_is_one(exponent.get()) == 0,
        EU_ERROR_CERT_KEY_UNSOUND);
}

} // namespace

x509_ptr parseCertificate(view encoding) {
    constexpr std::size_t largest = std::size_t{64} << 10U;
    require(encoding.size() <= largest, EU_ERROR_CERT_SIZE);
    const auto unarmoured = looksLikeDer(encoding)
                                ? std::nullopt
                                : pemContents(encoding, {"CERTIFICATE", "X509 CERTIFICATE"});
    return decodedStrictly<x509_ptr>(
        unarmoured ? view(*unarmoured) : encoding,
        d2i_X509,
        i2d_X509,
        EU_ERROR_CERT_FORMAT);
}

bool isAuthority(const X509* certificate) {
    const auto [constraints, present] = extension<owned<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>>(
        certificate,
        NID_basic_constraints);
    return constraints ? constraints->ca != 0 : present;
}

bool allowsSigning(const X509* certificate) {
    return allowsAny(certificate, {digital_signature, non_repudiation});
}

bool allowsNonRepudiation(const X509* certificate) {
    return allowsAny(certificate, {non_repudiation});
}

bool isOfCardItself(const X509* certificate) {
    const auto [usages, present] = extension<owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>>(
        certificate,
        NID_ext_key_usage);
    for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
        std::array<char, 32> text{};
        OBJ_obj2txt(text.data(), text.size(), sk_ASN1_OBJECT_value(usages.get(), i), 1);
        if (std::strcmp(text.data(), "2.16.840.1.101.3.6.8") == 0) {
            return true;
        }
    }
    return false;
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
    if (!isOnCurve(key) || EVP_PKEY_get_group_name(key, group.data(), group.size(), &length) != 1) {
        return false;
    }
    constexpr std::array<std::string_view, 3> curves{"prime256v1", "secp384r1", "secp521r1"};
    return std::ranges::find(curves, group.data()) != curves.end();
}

EVP_PKEY* soundKey(const X509* certificate) {
    X509_ALGOR* algorithm = nullptr;
    X509_PUBKEY_get0_param(
        nullptr,
        nullptr,
        nullptr,
        &algorithm,
        X509_get_X509_PUBKEY(certificate));
    const bool onCurve = OBJ_obj2nid(algorithm->algorithm) == NID_X9_62_id_ecPublicKey;
    const bool named = algorithm->parameter && algorithm->parameter->type == V_ASN1_OBJECT;
    require(!onCurve || named, EU_ERROR_CERT_KEY);
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key == nullptr) {
        requireMemory();
        throw failure(onCurve ? EU_ERROR_CERT_KEY_UNSOUND : EU_ERROR_CERT_KEY);
    }
    require(isServed(key) || EVP_PKEY_is_a(key, "RSA-PSS") == 1, EU_ERROR_CERT_KEY);
    if (!onCurve) {
        checkRsa(key);
        return key;
    }
    const auto context =
        taken<owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>(EVP_PKEY_CTX_new(key, nullptr));
    succeed(EVP_PKEY_public_check(context.get()), EU_ERROR_CERT_KEY_UNSOUND);
    return key;
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
    const auto number =
        taken<bignum_ptr>(ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr));
    const auto digits =
        taken<owned<char, [](char* text) { OPENSSL_free(text); }>>(BN_bn2hex(number.get()));
    return digits.get();
}

} // namespace eu
