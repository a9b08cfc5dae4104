#include "cms/request.h"

namespace eu {

namespace {

using string_ptr = owned<ASN1_STRING, ASN1_STRING_free>;
using request_ptr = owned<X509_REQ, X509_REQ_free>;

// A text as UTF-8; what is none counts as Latin-1.
string_ptr utf8Of(const std::string& text) {
    ASN1_STRING* utf8 = nullptr;
    const auto convert = [&](int from) {
        const auto* start = reinterpret_cast<const unsigned char*>(text.data());
        const int length = static_cast<int>(text.size());
        return ASN1_mbstring_copy(&utf8, start, length, from, B_ASN1_UTF8STRING) > 0;
    };
    succeed(convert(MBSTRING_UTF8) || convert(MBSTRING_ASC));
    return string_ptr(utf8);
}

// A text that the attribute's own string type cannot hold stands there as UTF-8.
void addName(X509_NAME* name, int attribute, const std::string& text) {
    if (text.empty()) {
        return;
    }
    const auto utf8 = utf8Of(text);
    const view encoding = content(utf8.get());
    const auto add = [&](int type) {
        const int length = static_cast<int>(encoding.size());
        return X509_NAME_add_entry_by_NID(name, attribute, type, encoding.data(), length, -1, 0);
    };
    succeed(add(MBSTRING_UTF8) == 1 || add(V_ASN1_UTF8STRING) == 1);
}

void releaseExtensions(STACK_OF(X509_EXTENSION) * list) {
    sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
}

void addKeyUsage(X509_REQ* request, const char* keyUsage) {
    auto extension = taken<owned<X509_EXTENSION, X509_EXTENSION_free>>(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_key_usage, keyUsage));
    const auto list =
        taken<owned<STACK_OF(X509_EXTENSION), releaseExtensions>>(sk_X509_EXTENSION_new_null());
    succeed(sk_X509_EXTENSION_push(list.get(), extension.get()));
    static_cast<void>(extension.release()); // the list has it now
    succeed(X509_REQ_add_extensions(request, list.get()));
}

algorithm_ptr signatureAlgorithm(const EVP_PKEY* key) {
    auto algorithm = taken<algorithm_ptr>(X509_ALGOR_new());
    const bool ec = isOnCurve(key);
    succeed(X509_ALGOR_set0(
        algorithm.get(),
        OBJ_nid2obj(ec ? NID_ecdsa_with_SHA256 : NID_sha256WithRSAEncryption),
        ec ? V_ASN1_UNDEF : V_ASN1_NULL,
        nullptr));
    return algorithm;
}

void setSignature(X509_REQ* request, view signature) {
    auto bits = taken<owned<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>(ASN1_BIT_STRING_new());
    succeed(ASN1_STRING_set(bits.get(), signature.data(), static_cast<int>(signature.size())));
    bits->flags |= ASN1_STRING_FLAG_BITS_LEFT; // every bit counts, trailing zeros too
    X509_REQ_set0_signature(request, bits.release());
}

} // namespace

bytes makeRequest(
    EVP_PKEY* publicKey,
    const request_subject& subject,
    const char* keyUsage,
    const message_signer& sign) {
    const auto request = taken<request_ptr>(X509_REQ_new());
    succeed(X509_REQ_set_version(request.get(), X509_REQ_VERSION_1));
    addName(X509_REQ_get_subject_name(request.get()), NID_commonName, subject.commonName);
    addName(X509_REQ_get_subject_name(request.get()), NID_serialNumber, subject.serialNumber);
    succeed(X509_REQ_set_pubkey(request.get(), publicKey));
    addKeyUsage(request.get(), keyUsage);
    succeed(X509_REQ_set1_signature_algo(request.get(), signatureAlgorithm(publicKey).get()));
    setSignature(request.get(), sign(encoded(request.get(), i2d_re_X509_REQ_tbs)));
    return encoded(request.get(), i2d_X509_REQ);
}

} // namespace eu
