// X.509 certificates: reading them, asking them, telling what they say.
#pragma once

#include "openssl.h"
#include "token.h"

#include <ctime>
#include <string>

namespace eu {

// A certificate from DER or from PEM (RFC 7468, lines of 64 characters, text around it allowed).
// Only the one canonical encoding is taken, so that no changed byte goes unnoticed.
// Throws EU_ERROR_CERT_FORMAT.
x509_ptr parseCertificate(view encoding);

// The certificate that an object on a token holds; null if it cannot be parsed.
x509_ptr certificateIn(const session& on, CK_OBJECT_HANDLE object);

// The token's certificates that hold the public key.
std::vector<x509_ptr> certificatesOf(const session& on, const EVP_PKEY* publicKey);

// Of those the one valid now, then the one that ends last; null if there is none.
x509_ptr ownCertificate(const session& on, const EVP_PKEY* publicKey);

bool isAuthority(X509* certificate);

// Whether the key usage, if the certificate has one, allows signing.
bool allowsSigning(X509* certificate);

bool validAt(const X509* certificate, std::time_t moment);

// Whether the key is one that this library works with: RSA, P-256, P-384 or P-521.
bool isServed(const EVP_PKEY* key);

SYSTEMTIME systemTime(const ASN1_TIME* time);

std::string nameText(const X509_NAME* name);
std::string serialText(const X509* certificate);

} // namespace eu
