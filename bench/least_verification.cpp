// What every program pays that verifies with OpenSSL, before CMS comes into it: libcrypto loaded
// and one certificate decoded, its key with it. Argument: a certificate in PEM.
#include <openssl/pem.h>
#include <openssl/x509.h>

int main(int /*argc*/, char** argv) {
    constexpr auto options =
        OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_NO_ATEXIT;
    OPENSSL_init_crypto(options, nullptr);
    BIO* const file = BIO_new_file(argv[1], "r");
    X509* const certificate = PEM_read_bio_X509(file, nullptr, nullptr, nullptr);
    return certificate != nullptr && X509_get0_pubkey(certificate) != nullptr ? 0 : 1;
}
