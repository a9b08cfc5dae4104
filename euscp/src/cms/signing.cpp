#include "cms/signing.h"

#include "cms/certificate.h"
#include "cms/message.h"

namespace eu {

namespace {

void addAttribute(CMS_SignerInfo* signer, int attribute, int type, const void* value, int size) {
    succeed(CMS_signed_add1_attr_by_NID(signer, attribute, type, value, size));
}

bytes signedAttributes(const CMS_SignerInfo* signer) {
    const auto set = taken<owned<STACK_OF(X509_ATTRIBUTE), [](STACK_OF(X509_ATTRIBUTE) * list) {
        sk_X509_ATTRIBUTE_free(list);
    }>>(sk_X509_ATTRIBUTE_new_null());
    for (int i = 0; i < CMS_signed_get_attr_count(signer); ++i) {
        succeed(sk_X509_ATTRIBUTE_push(set.get(), CMS_signed_get_attr(signer, i)));
    }
    return signedEncoding(set.get());
}

} // namespace

bytes signDigest(private_key& key, view digest, bool appendCertificate) {
    X509* const certificate = key.certificate();
    const std::time_t now = std::time(nullptr);
    require(validAt(certificate, now), EU_ERROR_CERT_PERIOD);
    require(allowsSigning(certificate), EU_ERROR_CERT_USAGE);

    const auto message =
        taken<cms_ptr>(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_DETACHED));
    const unsigned certificates = appendCertificate ? 0 : CMS_NOCERTS;
    CMS_SignerInfo* signer = CMS_add1_signer(
        message.get(),
        certificate,
        key.publicKey(),
        EVP_sha256(),
        CMS_PARTIAL | CMS_CADES | CMS_NOSMIMECAP | certificates);
    require(signer != nullptr, EU_ERROR_CRYPTO);

    const auto time = taken<owned<ASN1_TIME, ASN1_TIME_free>>(ASN1_TIME_adj(nullptr, now, 0, 0));
    addAttribute(signer, NID_pkcs9_contentType, V_ASN1_OBJECT, OBJ_nid2obj(NID_pkcs7_data), -1);
    addAttribute(signer, NID_pkcs9_signingTime, time->type, time.get(), -1);
    addAttribute(
        signer,
        NID_pkcs9_messageDigest,
        V_ASN1_OCTET_STRING,
        digest.data(),
        static_cast<int>(digest.size()));

    const bytes signature = key.sign(signedAttributes(signer));
    succeed(ASN1_OCTET_STRING_set(
        CMS_SignerInfo_get0_signature(signer),
        signature.data(),
        static_cast<int>(signature.size())));
    return encoded(message.get(), i2d_CMS_ContentInfo);
}

} // namespace eu
