#include "cms/verifying.h"

#include "cms/algorithms.h"
#include "cms/certificate.h"
#include "cms/message.h"
#include "cms/pem.h"

#include <algorithm>
#include <array>
#include <map>

namespace eu {

namespace {

constexpr std::size_t largest_signature = std::size_t{64} << 20U;

// What is signed, hashed once with each digest that is asked for.
class hashed {
public:
    explicit hashed(view data) : contents(data) {}

    const bytes& with(const EVP_MD* digest) {
        bytes& found = digests[digest];
        if (found.empty()) {
            found = hash(contents, digest);
        }
        return found;
    }

    const view contents;

private:
    std::map<const EVP_MD*, bytes> digests;
};

// The value of a signed attribute that is to have one; null if the attribute is absent.
const void* valueOf(const attribute_list& attributes, int name, int type) {
    const int index = X509at_get_attr_by_NID(attributes.get(), name, -1);
    if (index < 0) {
        return nullptr;
    }
    X509_ATTRIBUTE* attribute = X509at_get_attr(attributes.get(), index);
    require(X509_ATTRIBUTE_count(attribute) == 1, EU_ERROR_SIGN_ATTRIBUTE_REPEATED);
    const void* value = X509_ATTRIBUTE_get0_data(attribute, 0, type, nullptr);
    require(value != nullptr, EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
    return value;
}

const ASN1_STRING* stringIn(const attribute_list& attributes, int name, int type) {
    return static_cast<const ASN1_STRING*>(valueOf(attributes, name, type));
}

void checkContent(const attribute_list& attributes, view digest) {
    const auto* type =
        static_cast<const ASN1_OBJECT*>(valueOf(attributes, NID_pkcs9_contentType, V_ASN1_OBJECT));
    const auto* signedDigest = stringIn(attributes, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING);
    require(type != nullptr && signedDigest != nullptr, EU_ERROR_SIGN_ATTRIBUTE_MISSING);
    require(OBJ_obj2nid(type) == NID_pkcs7_data, EU_ERROR_SIGN_CONTENT);
    require(std::ranges::equal(content(signedDigest), digest), EU_ERROR_SIGN_OTHER_DATA);
}

bool isNameOf(const issuer_serial& names, const X509* certificate) {
    const GENERAL_NAME* issuer =
        sk_GENERAL_NAME_num(names.issuer) == 1 ? sk_GENERAL_NAME_value(names.issuer, 0) : nullptr;
    return issuer != nullptr && issuer->type == GEN_DIRNAME &&
           X509_NAME_cmp(issuer->d.directoryName, X509_get_issuer_name(certificate)) == 0 &&
           ASN1_INTEGER_cmp(names.serial, X509_get0_serialNumber(certificate)) == 0;
}

// A signing-certificate attribute (RFC 5035) names the signer's certificate first, by its hash.
// Version 1 of it knows SHA-1 alone, which serves: nobody can make a second certificate to a hash.
void checkSigningCertificate(const attribute_list& attributes, int version, X509* certificate) {
    const ASN1_STRING* value = stringIn(attributes, version, V_ASN1_SEQUENCE);
    if (value == nullptr) {
        return;
    }
    const auto first = firstIdentifier(content(value));
    const X509_ALGOR* algorithm = first->algorithm;
    const bool sha1 = algorithm == nullptr ? version == NID_id_smime_aa_signingCertificate
                                           : isPlainDigest(algorithm, EVP_sha1());
    const EVP_MD* digest = sha1 ? EVP_sha1() : algorithm ? digestNamed(algorithm) : EVP_sha256();
    require(
        std::ranges::equal(content(first->hash), hash(encoded(certificate, i2d_X509), digest)) &&
            (first->issuerSerial == nullptr || isNameOf(*first->issuerSerial, certificate)),
        EU_ERROR_SIGN_OTHER_CERTIFICATE);
}

std::optional<SYSTEMTIME>
checkedSigningTime(const attribute_list& attributes, const X509* certificate) {
    const int index = X509at_get_attr_by_NID(attributes.get(), NID_pkcs9_signingTime, -1);
    if (index < 0) {
        return std::nullopt;
    }
    X509_ATTRIBUTE* attribute = X509at_get_attr(attributes.get(), index);
    const ASN1_TYPE* first = X509_ATTRIBUTE_get0_type(attribute, 0);
    const int type = first != nullptr ? first->type : V_ASN1_UNDEF;
    require(
        type == V_ASN1_UTCTIME || type == V_ASN1_GENERALIZEDTIME,
        EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
    const ASN1_TIME* time = stringIn(attributes, NID_pkcs9_signingTime, type);
    require(ASN1_TIME_check(time) == 1, EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
    constexpr int unreadable = -2;
    const int sinceBegin = ASN1_TIME_compare(time, X509_get0_notBefore(certificate));
    const int sinceEnd = ASN1_TIME_compare(time, X509_get0_notAfter(certificate));
    require(sinceBegin >= 0 && sinceEnd != unreadable && sinceEnd <= 0, EU_ERROR_SIGN_TIME);
    return systemTime(time);
}

// Whether the data are attributes as they are signed: then a signature without attributes could be
// one of those, made for other data (RFC 5652, 5.4 tells the two apart by nothing but their form).
bool areAttributes(view data) {
    constexpr unsigned char set_tag = V_ASN1_SET | V_ASN1_CONSTRUCTED;
    if (data.size() <= 2 || data.front() != set_tag || data.size() > largest_signature) {
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

// In a message such as this library makes all is signed, or follows from what is: the versions, the
// list of digests, the issuer's encoding, of two names for an algorithm the plain one. So no
// changed byte goes unnoticed there. Where others put in what nobody signs, such fields say no more
// than the rest of it.
void checkUnsignedFields(
    const signed_data& message,
    const signer_info& signer,
    const attribute_list& attributes,
    const EVP_MD* digest,
    const X509* certificate) {
    constexpr std::array ours{
        NID_pkcs9_contentType,
        NID_pkcs9_signingTime,
        NID_pkcs9_messageDigest,
        NID_id_smime_aa_signingCertificateV2};
    const bool likeOurs = message.certificates == nullptr && message.revocationLists == nullptr &&
                          signer.unsignedAttributes == nullptr &&
                          signer.issuerAndSerial != nullptr &&
                          sk_X509_ATTRIBUTE_num(attributes.get()) == std::ssize(ours) &&
                          std::ranges::all_of(ours, [&attributes](int name) {
                              return X509at_get_attr_by_NID(attributes.get(), name, -1) >= 0;
                          });
    if (!likeOurs) {
        return;
    }
    view digests = contentsOf(message.digests);
    const auto listed = decodedNext<algorithm_ptr>(digests, d2i_X509_ALGOR, EU_ERROR_SIGN_FORMAT);
    int namedKind = NID_undef;
    OBJ_find_sigid_algs(OBJ_obj2nid(signer.algorithm->algorithm), nullptr, &namedKind);
    require(
        ASN1_INTEGER_get(message.version) == 1 && ASN1_INTEGER_get(signer.version) == 1 &&
            isPlainDigest(listed.get(), digest) && digests.empty() &&
            encoded(signer.issuerAndSerial->issuer, i2d_X509_NAME) ==
                encoded(X509_get_issuer_name(certificate), i2d_X509_NAME) &&
            namedKind != NID_rsaEncryption,
        EU_ERROR_SIGN_FORMAT);
}

// Exactly the name: the comparison that OpenSSL makes overlooks case, blanks and kinds of text.
bool isSameName(const X509_NAME* one, const X509_NAME* other) {
    const int count = X509_NAME_entry_count(one);
    bool same = count == X509_NAME_entry_count(other);
    for (int i = 0; same && i < count; ++i) {
        const X509_NAME_ENTRY* left = X509_NAME_get_entry(one, i);
        const X509_NAME_ENTRY* right = X509_NAME_get_entry(other, i);
        same =
            X509_NAME_ENTRY_set(left) == X509_NAME_ENTRY_set(right) &&
            OBJ_cmp(X509_NAME_ENTRY_get_object(left), X509_NAME_ENTRY_get_object(right)) == 0 &&
            ASN1_STRING_cmp(X509_NAME_ENTRY_get_data(left), X509_NAME_ENTRY_get_data(right)) == 0;
    }
    return same;
}

// The owner of the given certificate.
struct owner {
    x509_ptr certificate;
    EVP_PKEY* key;
    owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> keyIdentifier; // null if there is none
};

owner ownerOf(view certificate) {
    auto parsed = parseCertificate(certificate);
    EVP_PKEY* key = soundKey(parsed.get());
    require(allowsSigning(parsed.get()), EU_ERROR_CERT_USAGE);
    auto* keyIdentifier = static_cast<ASN1_OCTET_STRING*>(
        X509_get_ext_d2i(parsed.get(), NID_subject_key_identifier, nullptr, nullptr));
    return {std::move(parsed), key, decltype(owner::keyIdentifier)(keyIdentifier)};
}

bool isSigner(const signer_info& signer, const owner& by) {
    if (signer.issuerAndSerial != nullptr) {
        const X509* certificate = by.certificate.get();
        return ASN1_INTEGER_cmp(
                   signer.issuerAndSerial->serial,
                   X509_get0_serialNumber(certificate)) == 0 &&
               isSameName(signer.issuerAndSerial->issuer, X509_get_issuer_name(certificate));
    }
    return signer.keyIdentifier != nullptr && by.keyIdentifier != nullptr &&
           ASN1_OCTET_STRING_cmp(signer.keyIdentifier, by.keyIdentifier.get()) == 0;
}

message_ptr detachedMessage(view signature) {
    require(signature.size() <= largest_signature, EU_ERROR_SIGN_SIZE);
    const auto unarmoured =
        looksLikeDer(signature)
            ? std::nullopt
            : pemContents(signature, {"CMS", "PKCS7", "PKCS #7 SIGNED DATA", "SIGNED MESSAGE"});
    auto message = parseMessage(unarmoured ? view(*unarmoured) : signature);
    const signed_content& content = *message->data->content;
    require(OBJ_obj2nid(content.type) == NID_pkcs7_data, EU_ERROR_SIGN_CONTENT);
    require(content.content == nullptr, EU_ERROR_SIGN_ATTACHED);
    return message;
}

// The signature's own check comes before what it protects.
std::optional<SYSTEMTIME> verifiedSigningTime(
    const signed_data& message,
    const signer_info& signer,
    const owner& by,
    hashed& data) {
    const signature_scheme scheme = schemeOf(signer.digest, signer.algorithm, by.key);
    if (signer.signedAttributes == nullptr) {
        checkSignature(data.with(scheme.digest), content(signer.signature), scheme, by.key);
        require(!areAttributes(data.contents), EU_ERROR_SIGN_AMBIGUOUS);
        return std::nullopt;
    }
    const attribute_list attributes = parseAttributes(contentsOf(signer.signedAttributes));
    const bytes digest = hash(orderedEncoding(attributes.get()), scheme.digest);
    checkSignature(digest, content(signer.signature), scheme, by.key);
    checkSigningCertificate(attributes, NID_id_smime_aa_signingCertificate, by.certificate.get());
    checkSigningCertificate(attributes, NID_id_smime_aa_signingCertificateV2, by.certificate.get());
    checkUnsignedFields(message, signer, attributes, scheme.digest, by.certificate.get());
    const auto time = checkedSigningTime(attributes, by.certificate.get());
    checkContent(attributes, data.with(scheme.digest));
    return time;
}

} // namespace

verified verify(view data, view signature, view certificate) {
    owner by = ownerOf(certificate);
    const message_ptr message = detachedMessage(signature);
    view signers = contentsOf(message->data->signers);
    require(!signers.empty(), EU_ERROR_SIGN_UNSIGNED);

    hashed contents(data);
    constexpr int most_signatures = 16; // of one owner
    int found = 0;
    std::optional<SYSTEMTIME> time;
    while (!signers.empty()) {
        const signer_ptr signer = nextSigner(signers);
        if (isSigner(*signer, by)) {
            require(++found <= most_signatures, EU_ERROR_SIGN_SIZE);
            const auto each = verifiedSigningTime(*message->data, *signer, by, contents);
            time = time ? time : each;
        }
    }
    require(found > 0, EU_ERROR_SIGN_SIGNER);
    return {std::move(by.certificate), time};
}

} // namespace eu
