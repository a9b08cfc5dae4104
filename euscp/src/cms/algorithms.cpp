#include "cms/algorithms.h"

namespace eu {

namespace {

bool isPlain(const X509_ALGOR* algorithm) {
    int parameter = V_ASN1_UNDEF;
    X509_ALGOR_get0(nullptr, &parameter, nullptr, algorithm);
    return parameter == V_ASN1_UNDEF || parameter == V_ASN1_NULL;
}

// The parameters of RSASSA-PSS (RFC 4055), which must name the one digest throughout.
int pssSaltLength(const X509_ALGOR* algorithm, const EVP_MD* digest) {
    const auto sequence = [](const ASN1_TYPE* parameter) {
        if (parameter == nullptr || parameter->type != V_ASN1_SEQUENCE) {
            throw failure(EU_ERROR_SIGN_PSS);
        }
        return content(parameter->value.sequence);
    };
    const auto parameters = decoded<owned<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free>>(
        sequence(algorithm->parameter),
        d2i_RSA_PSS_PARAMS,
        EU_ERROR_SIGN_PSS);
    const X509_ALGOR* mask = parameters->maskGenAlgorithm;
    require(mask && OBJ_obj2nid(mask->algorithm) == NID_mgf1, EU_ERROR_SIGN_PSS);
    const auto maskDigest =
        decoded<algorithm_ptr>(sequence(mask->parameter), d2i_X509_ALGOR, EU_ERROR_SIGN_PSS);
    require(
        isPlainDigest(parameters->hashAlgorithm, digest) && isPlainDigest(maskDigest.get(), digest),
        EU_ERROR_SIGN_PSS);
    const auto number = [](const ASN1_INTEGER* field, long otherwise) {
        return field != nullptr ? ASN1_INTEGER_get(field) : otherwise;
    };
    constexpr long longest_salt = 2048; // as long as the largest key
    const long salt = number(parameters->saltLength, 20);
    require(
        salt >= 0 && salt <= longest_salt && number(parameters->trailerField, 1) == 1,
        EU_ERROR_SIGN_PSS);
    return static_cast<int>(salt);
}

// The kind of key by the name that its algorithm has in certificates.
int kindOf(const EVP_PKEY* key) {
    return EVP_PKEY_is_a(key, "RSA") == 1 ? NID_rsaEncryption
           : isOnCurve(key)               ? NID_X9_62_id_ecPublicKey
                                          : NID_rsassaPss;
}

struct algorithm_parts {
    int kind;
    int digest; // NID_undef where the name tells none
};

// What the name of a signature algorithm says. Three of them OpenSSL 3.0 does not take apart.
algorithm_parts partsOf(int name) {
    switch (name) {
    case NID_ecdsa_with_SHA3_256:
        return {NID_X9_62_id_ecPublicKey, NID_sha3_256};
    case NID_ecdsa_with_SHA3_384:
        return {NID_X9_62_id_ecPublicKey, NID_sha3_384};
    case NID_ecdsa_with_SHA3_512:
        return {NID_X9_62_id_ecPublicKey, NID_sha3_512};
    default:
        algorithm_parts parts{name, NID_undef};
        OBJ_find_sigid_algs(name, &parts.digest, &parts.kind);
        return parts;
    }
}

} // namespace

bool isPlainDigest(const X509_ALGOR* algorithm, const EVP_MD* digest) {
    return algorithm != nullptr && isPlain(algorithm) &&
           OBJ_obj2nid(algorithm->algorithm) == EVP_MD_get_type(digest);
}

const EVP_MD* digestNamed(const X509_ALGOR* algorithm) {
    const int name = OBJ_obj2nid(algorithm->algorithm);
    require(name != NID_sha1, EU_ERROR_SIGN_SHA1);
    require(name != NID_md5, EU_ERROR_SIGN_MD5);
    for (const EVP_MD* digest :
         {EVP_sha256(),
          EVP_sha384(),
          EVP_sha512(),
          EVP_sha3_256(),
          EVP_sha3_384(),
          EVP_sha3_512()}) {
        if (isPlainDigest(algorithm, digest)) {
            return digest;
        }
    }
    throw failure(EU_ERROR_SIGN_DIGEST);
}

signature_scheme
schemeOf(const X509_ALGOR* digestAlgorithm, const X509_ALGOR* algorithm, const EVP_PKEY* key) {
    const EVP_MD* digest = digestNamed(digestAlgorithm);
    const int name = OBJ_obj2nid(algorithm->algorithm);
    const int kind = kindOf(key);
    if (name == NID_rsassaPss && kind != NID_X9_62_id_ecPublicKey) {
        return {digest, pssSaltLength(algorithm, digest)};
    }
    const algorithm_parts named = partsOf(name);
    require(named.kind == kind && isPlain(algorithm), EU_ERROR_SIGN_ALGORITHM);
    require(
        named.digest == NID_undef || named.digest == EVP_MD_get_type(digest),
        EU_ERROR_SIGN_CONTRADICTION);
    return {digest, std::nullopt};
}

void checkSignature(view digest, view signature, const signature_scheme& scheme, EVP_PKEY* key) {
    const auto context =
        taken<owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>(EVP_PKEY_CTX_new(key, nullptr));
    EVP_PKEY_CTX* with = context.get();
    succeed(EVP_PKEY_verify_init(with));
    if (scheme.pssSaltLength) {
        succeed(EVP_PKEY_CTX_set_rsa_padding(with, RSA_PKCS1_PSS_PADDING));
        succeed(EVP_PKEY_CTX_set_signature_md(with, scheme.digest), EU_ERROR_SIGN_PSS);
        succeed(EVP_PKEY_CTX_set_rsa_mgf1_md(with, scheme.digest), EU_ERROR_SIGN_PSS);
        succeed(EVP_PKEY_CTX_set_rsa_pss_saltlen(with, *scheme.pssSaltLength), EU_ERROR_SIGN_PSS);
    } else {
        succeed(EVP_PKEY_CTX_set_signature_md(with, scheme.digest)); // RSA: PKCS#1 by default
    }
    succeed(
        EVP_PKEY_verify(with, signature.data(), signature.size(), digest.data(), digest.size()),
        EU_ERROR_SIGN_INVALID);
}

} // namespace eu
