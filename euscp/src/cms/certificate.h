// X.509 certificates: reading them, asking them, telling what they say.
#pragma once

#include "openssl.h"

#include <ctime>
#include <string>

namespace eu {

// A certificate from DER, or the first one of PEM (see pemContents). Of its encodings only the one
// in DER is taken, so that no changed byte goes unnoticed.
// Throws EU_ERROR_CERT_FORMAT, or EU_ERROR_CERT_SIZE for more than 64 KiB.
x509_ptr parseCertificate(view encoding);

// What a certificate's extensions say. Each of the four throws EU_ERROR_MEMORY where one
// cannot be read for lack of memory, which is no answer.

// Whether the basic constraints, if the certificate has any, make it an authority's.
bool isAuthority(const X509* certificate);

// Whether the key usage, if the certificate has one, allows signing, in whatever sense.
bool allowsSigning(const X509* certificate);

// The same for signatures that bind their maker.
bool allowsNonRepudiation(const X509* certificate);

// Whether a card lets anybody use the certificate's key, to tell the card itself (FIPS 201-3).
bool isOfCardItself(const X509* certificate);

bool validAt(const X509* certificate, std::time_t moment);

// Whether the key is one that this library works with: RSA, P-256, P-384 or P-521.
bool isServed(const EVP_PKEY* key);

// The certificate's key, which lives as long; one that signatures can rest on.
// Throws EU_ERROR_CERT_KEY for a kind that isServed does not tell, an RSA key for PSS alone apart,
// or for a curve that is not given by its name; EU_ERROR_CERT_KEY_SHORT or _UNSOUND.
EVP_PKEY* soundKey(const X509* certificate);

SYSTEMTIME systemTime(const ASN1_TIME* time);

std::string nameText(const X509_NAME* name);
std::string serialText(const X509* certificate);

} // namespace eu
