// The ASN.1 of CMS messages (RFC 5652) and of the signing-certificate attribute (RFC 5035), as far
// as a verdict rests on it. OpenSSL decodes them, from DER or BER. What nobody signed stays
// undecoded, so that it can neither harm nor cost more than its bytes.
#pragma once

#include "openssl.h"

#include <openssl/pkcs7.h>

namespace eu {

// An element that is kept as it is encoded, with its header.
using undecoded = ASN1_STRING;

struct signer_info {
    ASN1_INTEGER* version;
    PKCS7_ISSUER_AND_SERIAL* issuerAndSerial; // either this
    ASN1_OCTET_STRING* keyIdentifier;         // or this names the certificate
    X509_ALGOR* digest;
    undecoded* signedAttributes; // null if there are none
    X509_ALGOR* algorithm;
    ASN1_OCTET_STRING* signature;
    undecoded* unsignedAttributes; // null if there are none
};

struct signed_content {
    ASN1_OBJECT* type;
    ASN1_TYPE* content; // null in a detached signature
};

struct signed_data {
    ASN1_INTEGER* version;
    undecoded* digests;
    signed_content* content;
    undecoded* certificates;    // null if there are none
    undecoded* revocationLists; // null if there are none
    undecoded* signers;
};

struct signed_message {
    ASN1_OBJECT* type;
    signed_data* data;
};

struct issuer_serial {
    GENERAL_NAMES* issuer;
    ASN1_INTEGER* serial;
};

// A certificate by its hash.
struct certificate_identifier {
    X509_ALGOR* algorithm; // null where version 1 of the attribute has none, or 2 means SHA-256
    ASN1_OCTET_STRING* hash;
    issuer_serial* issuerSerial; // null if there is none
};

void releaseMessage(signed_message* message) noexcept;
void releaseSigner(signer_info* signer) noexcept;
void releaseIdentifier(certificate_identifier* identifier) noexcept;
void releaseAttributes(STACK_OF(X509_ATTRIBUTE) * list) noexcept;

using message_ptr = owned<signed_message, releaseMessage>;
using signer_ptr = owned<signer_info, releaseSigner>;
using identifier_ptr = owned<certificate_identifier, releaseIdentifier>;
using attribute_list = owned<STACK_OF(X509_ATTRIBUTE), releaseAttributes>;

// A signed message in DER or BER. Throws EU_ERROR_SIGN_FORMAT.
message_ptr parseMessage(view encoding);

// The contents of an element: what follows its header, up to its end.
view contentsOf(const undecoded* element);

// Takes the next signer off the contents of a set of them. Throws EU_ERROR_SIGN_FORMAT.
signer_ptr nextSigner(view& signers);

// The attributes that a set's contents hold, in their order. Throws EU_ERROR_SIGN_ATTRIBUTE_ codes
// for attributes that are malformed, too many or of the same type.
attribute_list parseAttributes(view contents);

// The attributes as they are signed: a SET OF in DER (RFC 5652, 5.4), which sorts them.
bytes signedEncoding(const STACK_OF(X509_ATTRIBUTE) * attributes);

// The same for attributes that stand in this order already.
// Throws EU_ERROR_SIGN_ATTRIBUTE_ORDER for attributes in another.
bytes orderedEncoding(const STACK_OF(X509_ATTRIBUTE) * attributes);

// The first certificate that a signing-certificate attribute names.
// Throws EU_ERROR_SIGN_ATTRIBUTE_FORMAT.
identifier_ptr firstIdentifier(view attributeValue);

} // namespace eu
