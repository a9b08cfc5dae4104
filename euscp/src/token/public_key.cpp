#include "token/public_key.h"

#include "cms/certificate.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>

namespace eu {

namespace {

using parameter_build = owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;

pkey_ptr fromParameters(const char* algorithm, OSSL_PARAM_BLD* build) {
    const auto parameters =
        taken<owned<OSSL_PARAM, OSSL_PARAM_free>>(OSSL_PARAM_BLD_to_param(build));
    const auto context = taken<owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>(
        EVP_PKEY_CTX_new_from_name(nullptr, algorithm, nullptr));
    EVP_PKEY* key = nullptr;
    succeed(EVP_PKEY_fromdata_init(context.get()), EU_ERROR_KEY_NOT_SUPPORTED);
    succeed(
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()),
        EU_ERROR_KEY_NOT_SUPPORTED);
    return pkey_ptr(key);
}

pkey_ptr rsaKey(view modulus, view exponent) {
    const auto number = [](view digits) {
        return taken<bignum_ptr>(
            BN_bin2bn(digits.data(), static_cast<int>(digits.size()), nullptr));
    };
    const bignum_ptr n = number(modulus);
    const bignum_ptr e = number(exponent);
    const auto build = taken<parameter_build>(OSSL_PARAM_BLD_new());
    succeed(OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()));
    succeed(OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()));
    return fromParameters("RSA", build.get());
}

pkey_ptr ecKey(const bytes& curve, const bytes& point) {
    const auto oid = decoded<owned<ASN1_OBJECT, ASN1_OBJECT_free>>(
        curve,
        d2i_ASN1_OBJECT,
        EU_ERROR_KEY_NOT_SUPPORTED);
    const char* group = OBJ_nid2sn(OBJ_obj2nid(oid.get()));
    const auto build = taken<parameter_build>(OSSL_PARAM_BLD_new());
    succeed(OSSL_PARAM_BLD_push_utf8_string(build.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0));
    succeed(OSSL_PARAM_BLD_push_octet_string(
        build.get(),
        OSSL_PKEY_PARAM_PUB_KEY,
        point.data(),
        point.size()));
    return fromParameters("EC", build.get());
}

// The point is an OCTET STRING in DER; some modules leave the wrapping out.
bytes unwrappedPoint(bytes point) {
    constexpr unsigned char uncompressed = 0x04; // the tag of an OCTET STRING is the same byte
    const unsigned char* end = point.data();
    const owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> inner(
        d2i_ASN1_OCTET_STRING(nullptr, &end, static_cast<long>(point.size())));
    if (inner && end == point.data() + point.size() && ASN1_STRING_length(inner.get()) > 0 &&
        content(inner.get()).front() == uncompressed) {
        const view unwrapped = content(inner.get());
        return {unwrapped.begin(), unwrapped.end()};
    }
    return point;
}

} // namespace

public_numbers numbersOf(const session& on, CK_OBJECT_HANDLE object, CK_KEY_TYPE type) {
    const bool rsa = type == CKK_RSA;
    const CK_ATTRIBUTE_TYPE domain = rsa ? CKA_PUBLIC_EXPONENT : CKA_EC_PARAMS;
    const CK_ATTRIBUTE_TYPE number = rsa ? CKA_MODULUS : CKA_EC_POINT;
    const auto told = on.values(object, {domain, number});
    const auto part = [&told](CK_ATTRIBUTE_TYPE which) {
        const bytes* value = told.find(which);
        return value != nullptr ? *value : bytes{};
    };
    return {type, part(domain), rsa ? part(number) : unwrappedPoint(part(number))};
}

pkey_ptr publicKey(const public_numbers& numbers) {
    require(!numbers.domain.empty() && !numbers.number.empty(), EU_ERROR_KEY_NOT_SUPPORTED);
    pkey_ptr key = numbers.type == CKK_RSA ? rsaKey(numbers.number, numbers.domain)
                                           : ecKey(numbers.domain, numbers.number);
    require(isServed(key.get()), EU_ERROR_KEY_NOT_SUPPORTED);
    return key;
}

pkey_ptr servedKey(const public_numbers& numbers) {
    try {
        return publicKey(numbers);
    } catch (const failure& e) {
        require(e.code == EU_ERROR_KEY_NOT_SUPPORTED, e.code);
        requireMemory();
        return nullptr;
    }
}

pkey_ptr publicKeyOf(const session& on, CK_OBJECT_HANDLE object) {
    const auto type = on.number(object, CKA_KEY_TYPE);
    return publicKey(numbersOf(on, object, type.value_or(CKK_EC)));
}

pkey_ptr servedKeyOf(const session& on, CK_OBJECT_HANDLE object) {
    const auto type = on.number(object, CKA_KEY_TYPE);
    return servedKey(numbersOf(on, object, type.value_or(CKK_EC)));
}

} // namespace eu
