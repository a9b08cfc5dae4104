#include "cms/message.h"

#include <openssl/asn1t.h>

namespace eu {

namespace {

// A signed attribute, whose values are to be a constructed element: OpenSSL's own decoder of
// attributes does not ask, and would let the changed bit pass.
struct attribute_form {
    ASN1_OBJECT* type;
    undecoded* values;
};

struct signing_certificate {
    undecoded* certificates;
    undecoded* policies;
};

constexpr unsigned long universal_tag = ASN1_TFLG_IMPTAG | ASN1_TFLG_UNIVERSAL;

template <class T>
void releaseItem(T* object, const ASN1_ITEM* item) noexcept {
    ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(object), item);
}

// A d2i function of a type that is declared here.
template <class T>
auto decoding(const ASN1_ITEM* item) {
    return [item](T** /*reused*/, const unsigned char** in, long length) {
        return reinterpret_cast<T*>(ASN1_item_d2i(nullptr, in, length, item));
    };
}

bytes encodedAttributes(const STACK_OF(X509_ATTRIBUTE) * attributes, const ASN1_ITEM* item) {
    return encoded(
        reinterpret_cast<const ASN1_VALUE*>(attributes),
        [item](const ASN1_VALUE* value, unsigned char** out) {
            return ASN1_item_i2d(value, out, item);
        });
}

// clang-format off
ASN1_SEQUENCE(signer_info) = {
    ASN1_SIMPLE(signer_info, version, ASN1_INTEGER),
    ASN1_OPT(signer_info, issuerAndSerial, PKCS7_ISSUER_AND_SERIAL),
    ASN1_IMP_OPT(signer_info, keyIdentifier, ASN1_OCTET_STRING, 0),
    ASN1_SIMPLE(signer_info, digest, X509_ALGOR),
    ASN1_IMP_OPT(signer_info, signedAttributes, ASN1_SEQUENCE, 0),
    ASN1_SIMPLE(signer_info, algorithm, X509_ALGOR),
    ASN1_SIMPLE(signer_info, signature, ASN1_OCTET_STRING),
    ASN1_IMP_OPT(signer_info, unsignedAttributes, ASN1_SEQUENCE, 1),
} static_ASN1_SEQUENCE_END(signer_info)

ASN1_SEQUENCE(attribute_form) = {
    ASN1_SIMPLE(attribute_form, type, ASN1_OBJECT),
    ASN1_EX_TYPE(universal_tag, V_ASN1_SET, attribute_form, values, ASN1_SEQUENCE),
} static_ASN1_SEQUENCE_END(attribute_form)

ASN1_SEQUENCE(signed_content) = {
    ASN1_SIMPLE(signed_content, type, ASN1_OBJECT),
    ASN1_EXP_OPT(signed_content, content, ASN1_ANY, 0),
} static_ASN1_SEQUENCE_END(signed_content)

ASN1_SEQUENCE(signed_data) = {
    ASN1_SIMPLE(signed_data, version, ASN1_INTEGER),
    ASN1_EX_TYPE(universal_tag, V_ASN1_SET, signed_data, digests, ASN1_SEQUENCE),
    ASN1_SIMPLE(signed_data, content, signed_content),
    ASN1_IMP_OPT(signed_data, certificates, ASN1_SEQUENCE, 0),
    ASN1_IMP_OPT(signed_data, revocationLists, ASN1_SEQUENCE, 1),
    ASN1_EX_TYPE(universal_tag, V_ASN1_SET, signed_data, signers, ASN1_SEQUENCE),
} static_ASN1_SEQUENCE_END(signed_data)

ASN1_SEQUENCE(signed_message) = {
    ASN1_SIMPLE(signed_message, type, ASN1_OBJECT),
    ASN1_EXP(signed_message, data, signed_data, 0),
} static_ASN1_SEQUENCE_END(signed_message)

ASN1_SEQUENCE(issuer_serial) = {
    ASN1_SIMPLE(issuer_serial, issuer, GENERAL_NAMES),
    ASN1_SIMPLE(issuer_serial, serial, ASN1_INTEGER),
} static_ASN1_SEQUENCE_END(issuer_serial)

ASN1_SEQUENCE(certificate_identifier) = {
    ASN1_OPT(certificate_identifier, algorithm, X509_ALGOR),
    ASN1_SIMPLE(certificate_identifier, hash, ASN1_OCTET_STRING),
    ASN1_OPT(certificate_identifier, issuerSerial, issuer_serial),
} static_ASN1_SEQUENCE_END(certificate_identifier)

ASN1_SEQUENCE(signing_certificate) = {
    ASN1_SIMPLE(signing_certificate, certificates, ASN1_SEQUENCE),
    ASN1_OPT(signing_certificate, policies, ASN1_SEQUENCE),
} static_ASN1_SEQUENCE_END(signing_certificate)
// clang-format on

} // namespace

void releaseMessage(signed_message* message) noexcept {
    releaseItem(message, ASN1_ITEM_rptr(signed_message));
}

void releaseSigner(signer_info* signer) noexcept {
    releaseItem(signer, ASN1_ITEM_rptr(signer_info));
}

void releaseIdentifier(certificate_identifier* identifier) noexcept {
    releaseItem(identifier, ASN1_ITEM_rptr(certificate_identifier));
}

void releaseAttributes(STACK_OF(X509_ATTRIBUTE) * list) noexcept {
    sk_X509_ATTRIBUTE_pop_free(list, X509_ATTRIBUTE_free);
}

message_ptr parseMessage(view encoding) {
    auto message = decoded<message_ptr>(
        encoding,
        decoding<signed_message>(ASN1_ITEM_rptr(signed_message)),
        EU_ERROR_SIGN_FORMAT);
    require(OBJ_obj2nid(message->type) == NID_pkcs7_signed, EU_ERROR_SIGN_FORMAT);
    return message;
}

view contentsOf(const undecoded* element) {
    const view whole = content(element);
    const unsigned char* start = whole.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    constexpr int indefinite = 1;
    const int form =
        ASN1_get_object(&start, &length, &tag, &tagClass, static_cast<long>(whole.size()));
    const view contents = whole.subspan(static_cast<std::size_t>(start - whole.data()));
    constexpr std::size_t end_mark = 2;
    return (form & indefinite) != 0 ? contents.first(contents.size() - end_mark) : contents;
}

signer_ptr nextSigner(view& signers) {
    return decodedNext<signer_ptr>(
        signers,
        decoding<signer_info>(ASN1_ITEM_rptr(signer_info)),
        EU_ERROR_SIGN_FORMAT);
}

namespace {

owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> nextAttribute(view& contents) {
    view again = contents;
    static_cast<void>(
        decodedNext<owned<
            attribute_form,
            [](attribute_form* object) { releaseItem(object, ASN1_ITEM_rptr(attribute_form)); }>>(
            again,
            decoding<attribute_form>(ASN1_ITEM_rptr(attribute_form)),
            EU_ERROR_SIGN_ATTRIBUTE_FORMAT));
    return decodedNext<owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free>>(
        contents,
        d2i_X509_ATTRIBUTE,
        EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
}

} // namespace

attribute_list parseAttributes(view contents) {
    constexpr int most_attributes = 64;
    auto list = taken<attribute_list>(sk_X509_ATTRIBUTE_new_null());
    while (!contents.empty()) {
        auto attribute = nextAttribute(contents);
        const ASN1_OBJECT* type = X509_ATTRIBUTE_get0_object(attribute.get());
        require(X509at_get_attr_by_OBJ(list.get(), type, -1) < 0, EU_ERROR_SIGN_ATTRIBUTE_REPEATED);
        succeed(sk_X509_ATTRIBUTE_push(list.get(), attribute.get()));
        static_cast<void>(attribute.release()); // the list has it now
        require(
            sk_X509_ATTRIBUTE_num(list.get()) <= most_attributes,
            EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
    }
    return list;
}

bytes signedEncoding(const STACK_OF(X509_ATTRIBUTE) * attributes) {
    return encodedAttributes(attributes, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN)); // sorts
}

bytes orderedEncoding(const STACK_OF(X509_ATTRIBUTE) * attributes) {
    bytes encoding =
        encodedAttributes(attributes, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY)); // as they stand
    require(encoding == signedEncoding(attributes), EU_ERROR_SIGN_ATTRIBUTE_ORDER);
    return encoding;
}

identifier_ptr firstIdentifier(view attributeValue) {
    const auto attribute = decoded<owned<
        signing_certificate,
        [](signing_certificate* object) {
            releaseItem(object, ASN1_ITEM_rptr(signing_certificate));
        }>>(
        attributeValue,
        decoding<signing_certificate>(ASN1_ITEM_rptr(signing_certificate)),
        EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
    view identifiers = contentsOf(attribute->certificates);
    return decodedNext<identifier_ptr>(
        identifiers,
        decoding<certificate_identifier>(ASN1_ITEM_rptr(certificate_identifier)),
        EU_ERROR_SIGN_ATTRIBUTE_FORMAT);
}

} // namespace eu
