#include "signature.h"

#include "certificate.h"

#include <algorithm>
#include <array>

namespace eu {

namespace {

void addAttribute(CMS_SignerInfo* signer, int attribute, int type, const void* value, int size) {
    succeed(CMS_signed_add1_attr_by_NID(signer, attribute, type, value, size));
}

// The signed attributes as they are signed: a SET OF in DER (RFC 5652, 5.4).
bytes signedAttributes(const CMS_SignerInfo* signer) {
    const auto set = taken<owned<STACK_OF(X509_ATTRIBUTE), [](STACK_OF(X509_ATTRIBUTE) * list) {
        sk_X509_ATTRIBUTE_free(list);
    }>>(sk_X509_ATTRIBUTE_new_null());
    for (int i = 0; i < CMS_signed_get_attr_count(signer); ++i) {
        succeed(sk_X509_ATTRIBUTE_push(set.get(), CMS_signed_get_attr(signer, i)));
    }
    return encoded(
        reinterpret_cast<const ASN1_VALUE*>(set.get()),
        [](const ASN1_VALUE* value, unsigned char** out) {
            return ASN1_item_i2d(value, out, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN));
        });
}

// ---- what is asked of a signature before it is verified

void releaseTypes(STACK_OF(ASN1_TYPE) * list) {
    sk_ASN1_TYPE_pop_free(list, ASN1_TYPE_free);
}

using elements = owned<STACK_OF(ASN1_TYPE), releaseTypes>;

view der(const ASN1_TYPE* element) {
    return content(element->value.asn1_string);
}

elements sequence(view encoding) {
    return decoded<elements>(encoding, d2i_ASN1_SEQUENCE_ANY, EU_ERROR_SIGN_FORMAT);
}

elements set(view encoding) {
    return decoded<elements>(encoding, d2i_ASN1_SET_ANY, EU_ERROR_SIGN_FORMAT);
}

bool hasContextTag(const ASN1_TYPE* element, int tag) {
    constexpr int context_constructed = 0xA0;
    return element->type == V_ASN1_OTHER && der(element).front() == context_constructed + tag;
}

// What an explicit tag wraps.
view unwrapped(const ASN1_TYPE* element) {
    const view whole = der(element);
    const unsigned char* inner = whole.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    ASN1_get_object(&inner, &length, &tag, &tagClass, static_cast<long>(whole.size()));
    return {inner, static_cast<std::size_t>(length)};
}

long version(const elements& fields) {
    const ASN1_TYPE* first = sk_ASN1_TYPE_value(fields.get(), 0);
    return first && first->type == V_ASN1_INTEGER ? ASN1_INTEGER_get(first->value.integer) : -1;
}

bool isPlain(const X509_ALGOR* algorithm) {
    int parameter = V_ASN1_UNDEF;
    X509_ALGOR_get0(nullptr, &parameter, nullptr, algorithm);
    return parameter == V_ASN1_UNDEF || parameter == V_ASN1_NULL;
}

bool isPlainDigest(const X509_ALGOR* algorithm, int digestId) {
    return algorithm != nullptr && OBJ_obj2nid(algorithm->algorithm) == digestId &&
           isPlain(algorithm);
}

// The fields that OpenSSL reads over: versions, the list of digests, the kinds of certificates and
// revocation lists. A change in one of them would otherwise go unnoticed. The message has been
// parsed before, so each element is of the kind that its place says.
void checkOutline(view message, CMS_SignerInfo* signer, int certificateCount) {
    const auto info = sequence(message);
    require(sk_ASN1_TYPE_num(info.get()) == 2, EU_ERROR_SIGN_FORMAT);
    const auto fields = sequence(unwrapped(sk_ASN1_TYPE_value(info.get(), 1)));
    const int count = sk_ASN1_TYPE_num(fields.get());
    require(count == 4 || count == 5, EU_ERROR_SIGN_UNCHECKED);

    if (count == 5) {
        const ASN1_TYPE* certificates = sk_ASN1_TYPE_value(fields.get(), 3);
        require(hasContextTag(certificates, 0), EU_ERROR_SIGN_UNCHECKED);
        bytes asSet(der(certificates).begin(), der(certificates).end());
        asSet.front() = V_ASN1_SET | V_ASN1_CONSTRUCTED;
        require(sk_ASN1_TYPE_num(set(asSet).get()) == certificateCount, EU_ERROR_SIGN_UNCHECKED);
    }

    const auto digests = set(der(sk_ASN1_TYPE_value(fields.get(), 1)));
    require(sk_ASN1_TYPE_num(digests.get()) == 1, EU_ERROR_SIGN_ALGORITHM);
    const auto digest = decoded<owned<X509_ALGOR, X509_ALGOR_free>>(
        der(sk_ASN1_TYPE_value(digests.get(), 0)),
        d2i_X509_ALGOR,
        EU_ERROR_SIGN_FORMAT);
    X509_ALGOR* signersDigest = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &signersDigest, nullptr);
    require(
        isPlainDigest(digest.get(), OBJ_obj2nid(signersDigest->algorithm)),
        EU_ERROR_SIGN_ALGORITHM);

    ASN1_OCTET_STRING* keyIdentifier = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, &keyIdentifier, nullptr, nullptr);
    const long expected = keyIdentifier != nullptr ? 3 : 1; // RFC 5652, 5.1 and 5.3
    const auto signers = set(der(sk_ASN1_TYPE_value(fields.get(), count - 1)));
    const auto signerFields = sequence(der(sk_ASN1_TYPE_value(signers.get(), 0)));
    require(version(fields) == expected && version(signerFields) == expected, EU_ERROR_SIGN_FORMAT);
}

// RSASSA-PSS (RFC 8017) with the digest throughout.
bool isPlainPss(const X509_ALGOR* algorithm, int digestId) {
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    if (type != V_ASN1_SEQUENCE) {
        return false;
    }
    const auto parameters = decodedStrictly<owned<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free>>(
        content(static_cast<const ASN1_STRING*>(value)),
        d2i_RSA_PSS_PARAMS,
        i2d_RSA_PSS_PARAMS,
        EU_ERROR_SIGN_ALGORITHM);
    const X509_ALGOR* mask = parameters->maskGenAlgorithm;
    if (mask == nullptr || OBJ_obj2nid(mask->algorithm) != NID_mgf1 || mask->parameter == nullptr ||
        mask->parameter->type != V_ASN1_SEQUENCE) {
        return false;
    }
    const auto maskDigest = decodedStrictly<owned<X509_ALGOR, X509_ALGOR_free>>(
        content(mask->parameter->value.sequence),
        d2i_X509_ALGOR,
        i2d_X509_ALGOR,
        EU_ERROR_SIGN_ALGORITHM);
    return isPlainDigest(parameters->hashAlgorithm, digestId) &&
           isPlainDigest(maskDigest.get(), digestId);
}

void checkAlgorithms(CMS_SignerInfo* signer, const EVP_PKEY* key) {
    X509_ALGOR* digest = nullptr;
    X509_ALGOR* signature = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, &signature);
    const int digestId = OBJ_obj2nid(digest->algorithm);
    constexpr std::array<int, 3> accepted{NID_sha256, NID_sha384, NID_sha512};
    require(
        isPlain(digest) && std::ranges::find(accepted, digestId) != accepted.end(),
        EU_ERROR_SIGN_ALGORITHM);

    // Of two names for one algorithm only one is taken: a change of name would go unnoticed.
    if (EVP_PKEY_is_a(key, "RSA") == 1) {
        const bool pss = OBJ_obj2nid(signature->algorithm) == NID_rsassaPss;
        require(
            pss || OBJ_obj2nid(signature->algorithm) == NID_rsaEncryption,
            EU_ERROR_SIGN_ALGORITHM);
        require(
            pss ? isPlainPss(signature, digestId) : isPlain(signature),
            EU_ERROR_SIGN_ALGORITHM);
        return;
    }
    int impliedDigest = NID_undef;
    int impliedKey = NID_undef;
    require(
        OBJ_find_sigid_algs(OBJ_obj2nid(signature->algorithm), &impliedDigest, &impliedKey) == 1 &&
            impliedDigest == digestId && impliedKey == NID_X9_62_id_ecPublicKey &&
            isPlain(signature),
        EU_ERROR_SIGN_ALGORITHM);
}

void releaseCertificates(STACK_OF(X509) * list) {
    sk_X509_pop_free(list, X509_free);
}

void releaseList(STACK_OF(X509) * list) {
    sk_X509_free(list);
}

using certificate_list = owned<STACK_OF(X509), releaseCertificates>;
using borrowed_list = owned<STACK_OF(X509), releaseList>; // of certificates that others own

bool isIssuedBy(X509* certificate, X509* issuer) {
    return X509_NAME_cmp(X509_get_issuer_name(certificate), X509_get_subject_name(issuer)) == 0 &&
           X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
}

// Certificates in the signature are never trusted, but they must not be what they are not: each is
// the signer's own, or one on the path up from it, which ends in one that signed itself.
void checkCertificates(const certificate_list& inside, X509* signer) {
    constexpr int longest_path = 8;
    std::vector<X509*> left;
    for (int i = 0; i < sk_X509_num(inside.get()); ++i) {
        X509* certificate = sk_X509_value(inside.get(), i);
        if (X509_cmp(certificate, signer) != 0) {
            left.push_back(certificate);
        }
    }
    require(left.size() <= longest_path, EU_ERROR_SIGN_UNCHECKED);
    X509* top = signer;
    const bool alone = left.empty();
    while (!left.empty()) {
        const auto issuer =
            std::ranges::find_if(left, [top](X509* each) { return isIssuedBy(top, each); });
        require(issuer != left.end(), EU_ERROR_SIGN_UNCHECKED);
        top = *issuer;
        left.erase(issuer);
    }
    require(alone || isIssuedBy(top, top), EU_ERROR_SIGN_UNCHECKED);
}

// The value of a signed attribute that may stand only once, with one value; null if it is absent.
const void* attributeValue(CMS_SignerInfo* signer, int attribute, int type) {
    if (CMS_signed_get_attr_by_NID(signer, attribute, -1) < 0) {
        return nullptr;
    }
    constexpr int only_one = -3;
    const void* value = CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(attribute), only_one, type);
    require(value != nullptr, EU_ERROR_SIGN_FORMAT);
    return value;
}

// A signing-certificate attribute (RFC 5035) must name the signer's certificate by its hash; others
// that it names as well must be inside.
void checkSigningCertificate(
    CMS_SignerInfo* signer,
    X509* certificate,
    const certificate_list& inside) {
    const auto attribute = [signer](int type) {
        return static_cast<const ASN1_STRING*>(attributeValue(signer, type, V_ASN1_SEQUENCE));
    };
    owned<ESS_SIGNING_CERT, ESS_SIGNING_CERT_free> first;
    owned<ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free> second;
    if (const ASN1_STRING* value = attribute(NID_id_smime_aa_signingCertificate)) {
        first =
            decoded<decltype(first)>(content(value), d2i_ESS_SIGNING_CERT, EU_ERROR_SIGN_FORMAT);
    }
    if (const ASN1_STRING* value = attribute(NID_id_smime_aa_signingCertificateV2)) {
        second = decoded<decltype(second)>(
            content(value),
            d2i_ESS_SIGNING_CERT_V2,
            EU_ERROR_SIGN_FORMAT);
    }
    const auto chain = taken<borrowed_list>(sk_X509_new_null());
    succeed(sk_X509_push(chain.get(), certificate));
    for (int i = 0; i < sk_X509_num(inside.get()); ++i) {
        succeed(sk_X509_push(chain.get(), sk_X509_value(inside.get(), i)));
    }
    require(
        OSSL_ESS_check_signing_certs(first.get(), second.get(), chain.get(), 0) == 1,
        EU_ERROR_SIGN_SIGNER);
}

const ASN1_TIME* checkSigningTime(CMS_SignerInfo* signer, const X509* certificate) {
    const int index = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
    if (index < 0) {
        return nullptr;
    }
    const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer, index), 0);
    const int type = value != nullptr ? value->type : V_ASN1_UNDEF;
    require(type == V_ASN1_UTCTIME || type == V_ASN1_GENERALIZEDTIME, EU_ERROR_SIGN_FORMAT);
    const auto* time =
        static_cast<const ASN1_TIME*>(attributeValue(signer, NID_pkcs9_signingTime, type));
    constexpr int unreadable = -2;
    const int sinceBegin = ASN1_TIME_compare(time, X509_get0_notBefore(certificate));
    const int sinceEnd = ASN1_TIME_compare(time, X509_get0_notAfter(certificate));
    require(sinceBegin >= 0 && sinceEnd != unreadable && sinceEnd <= 0, EU_ERROR_SIGN_TIME);
    return time;
}

// Hashing and comparing is OpenSSL's, against the given certificate and no other. The data goes
// through the chain of digests from where it lies, not through copies of its pieces.
void verifyContent(CMS_ContentInfo* message, CMS_SignerInfo* signer, X509* certificate, view data) {
    CMS_SignerInfo_set1_signer_cert(signer, certificate);
    if (CMS_signed_get_attr_count(signer) > 0) {
        succeed(CMS_SignerInfo_verify(signer), EU_ERROR_SIGN_INVALID);
    }
    auto sink = taken<bio_ptr>(BIO_new(BIO_s_null()), EU_ERROR_MEMORY);
    const auto digests = taken<bio_ptr>(CMS_dataInit(message, sink.get()));
    static_cast<void>(sink.release());                  // the end of the chain now
    constexpr std::size_t most = std::size_t{1} << 30U; // a length is an int
    while (!data.empty()) {
        const view piece = data.first(std::min(data.size(), most));
        const int size = static_cast<int>(piece.size());
        require(BIO_write(digests.get(), piece.data(), size) == size, EU_ERROR_CRYPTO);
        data = data.subspan(piece.size());
    }
    succeed(CMS_SignerInfo_verify_content(signer, digests.get()), EU_ERROR_SIGN_INVALID);
}

// Names the certificate exactly: the comparison that OpenSSL makes overlooks case and blanks.
bool isNamedBy(CMS_SignerInfo* signer, X509* certificate) {
    X509_NAME* issuer = nullptr;
    CMS_SignerInfo_get0_signer_id(signer, nullptr, &issuer, nullptr);
    return CMS_SignerInfo_cert_cmp(signer, certificate) == 0 &&
           (issuer == nullptr || encoded(issuer, i2d_X509_NAME) ==
                                     encoded(X509_get_issuer_name(certificate), i2d_X509_NAME));
}

CMS_SignerInfo* onlySigner(CMS_ContentInfo* message) {
    require(
        OBJ_obj2nid(CMS_get0_type(message)) == NID_pkcs7_signed && CMS_is_detached(message) == 1 &&
            OBJ_obj2nid(CMS_get0_eContentType(message)) == NID_pkcs7_data,
        EU_ERROR_SIGN_FORMAT);
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(message);
    require(sk_CMS_SignerInfo_num(signers) == 1, EU_ERROR_SIGN_FORMAT);
    return sk_CMS_SignerInfo_value(signers, 0);
}

bool looksLikeAttributes(view data) {
    constexpr unsigned char set_tag = V_ASN1_SET | V_ASN1_CONSTRUCTED;
    if (data.size() <= 2 || data.front() != set_tag) { // an empty set is none
        return false;
    }
    const unsigned char* end = data.data();
    ASN1_VALUE* parsed = ASN1_item_d2i(
        nullptr,
        &end,
        static_cast<long>(data.size()),
        ASN1_ITEM_rptr(PKCS7_ATTR_SIGN));
    ASN1_item_free(parsed, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN));
    return parsed != nullptr && end == data.data() + data.size();
}

// Signed attributes are absent as a whole, or one of them is the content type. Where they are
// absent, the data must not be attributes itself: the signature could be one of those (RFC 5652,
// 5.4 tells the two apart by nothing but their form).
void checkContentType(CMS_SignerInfo* signer, view data) {
    if (CMS_signed_get_attr_count(signer) <= 0) {
        require(!looksLikeAttributes(data), EU_ERROR_SIGN_FORMAT);
    } else {
        const auto* type = static_cast<const ASN1_OBJECT*>(
            attributeValue(signer, NID_pkcs9_contentType, V_ASN1_OBJECT));
        require(type != nullptr && OBJ_obj2nid(type) == NID_pkcs7_data, EU_ERROR_SIGN_FORMAT);
    }
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

verified verify(view data, view signature, view certificate) {
    auto signerCertificate = parseCertificate(certificate);
    const EVP_PKEY* key = X509_get0_pubkey(signerCertificate.get());
    require(key != nullptr && isServed(key), EU_ERROR_SIGN_ALGORITHM);
    require(allowsSigning(signerCertificate.get()), EU_ERROR_CERT_USAGE);

    auto message = decodedStrictly<cms_ptr>(
        signature,
        d2i_CMS_ContentInfo,
        i2d_CMS_ContentInfo,
        EU_ERROR_SIGN_FORMAT);
    CMS_SignerInfo* signer = onlySigner(message.get());
    require(isNamedBy(signer, signerCertificate.get()), EU_ERROR_SIGN_SIGNER);
    checkAlgorithms(signer, key);
    require(CMS_unsigned_get_attr_count(signer) <= 0, EU_ERROR_SIGN_UNCHECKED);
    const certificate_list inside(CMS_get1_certs(message.get()));
    checkCertificates(inside, signerCertificate.get());
    checkOutline(signature, signer, inside ? sk_X509_num(inside.get()) : 0);
    checkContentType(signer, data);
    checkSigningCertificate(signer, signerCertificate.get(), inside);
    const ASN1_TIME* time = checkSigningTime(signer, signerCertificate.get());
    verifyContent(message.get(), signer, signerCertificate.get(), data);
    return {std::move(signerCertificate), time, std::move(message)};
}

} // namespace eu
