// The signature service: the one way to EUSignCP, and with it to key media, keys and signatures.
#pragma once

#include "fs/api.h"

#include <memory>
#include <string>
#include <vector>

namespace Orlek::Support::Velmora::Eusign {

// A key medium is named by its serial, the device text that the library reports for it, compared
// byte for byte. Only media of the type "е.ключ ІІТ Алмаз-1К" are served. Passwords go to the
// library unchanged.
//
// Failures are logged with their cause and then thrown:
//   internal_error  the library, a file or a text conversion failed;
//   params_error    serial and password do not lead to a usable key: no such medium, no key on it,
//                   no access to it, or, in every operation that takes a password, one of more than
//                   64 bytes, the most that the library's record of a medium holds (such a password
//                   is never cut short; it is refused once its medium has been found).
//
// The last key opened stays open in the service, and is used again for the same medium.
class api_like {
public:
    virtual ~api_like() = default;

    // Tells whether the medium is attached. Throws internal_error.
    virtual bool mediaList(std::string mediaSerial) = 0;

    // Appends the serials of the attached media, in the library's order (at most 32 of each of the
    // first 32 types), and tells whether `serials` then holds any. Throws internal_error; what was
    // appended until then stays.
    virtual bool mediaList(std::vector<std::string>& serials) = 0;

    // Generates a key on the medium, protected by the password, and writes its two certificate
    // requests into a new zip archive: the one for signing as csrDsName, the one for key agreement
    // as csrKepName. What becomes of a key that is already there is the library's decision. Throws
    // params_error, internal_error; if the archive cannot be written, the key is on the medium.
    virtual void keyCreate(
        std::string mediaSerial,
        std::string mediaPass,
        std::string csrDsName,
        std::string csrKepName,
        std::string csrZipPath) = 0;

    // Destroys the key on the medium and makes sure that it is gone. Throws params_error,
    // internal_error (also when the key is still there).
    virtual void keyDelete(std::string mediaSerial, std::string mediaPass) = 0;

    // Tells whether the medium is attached, can be accessed and holds a key; the password is not
    // tried. Throws internal_error, and params_error for the length of the password alone.
    virtual bool keyTestAccess(std::string mediaSerial, std::string mediaPass) = 0;

    // Tells whether, besides, the key opens with the password. Throws as keyTestAccess does.
    virtual bool keyTestValid(std::string mediaSerial, std::string mediaPass) = 0;

    // Tells whether the key signs, and the signature verifies against the owner's certificate.
    // Throws params_error, internal_error (also when the key does not open).
    virtual bool keyTestSign(std::string mediaSerial, std::string mediaPass) = 0;

    // The three tests, each only after the one before has passed; one that was not made counts as
    // failed. The verdicts are false from the start, so they are set even when it throws. Returns
    // *sign. Throws params_error, internal_error (not because the key does not open).
    virtual bool keyTestAll(
        std::string mediaSerial,
        std::string mediaPass,
        bool* access,
        bool* valid,
        bool* sign) = 0;

    // Replaces the two texts by the begin and the end of the validity of the owner's certificate,
    // as YYYY-MM-DDThh:mm:ss (ISO 8601, in the certificate's UTC). Throws params_error,
    // internal_error, and leaves the texts alone then.
    virtual void signCrtPeriod(
        std::string mediaSerial,
        std::string mediaPass,
        std::string& minTime,
        std::string& maxTime) = 0;

    // Writes the owner's certificate to a file, as the library encodes it. Throws params_error,
    // internal_error.
    virtual void
    signExporCrt(std::string mediaSerial, std::string mediaPass, std::string crtPath) = 0;

    // Has the library sign the file blobPath into the detached signature signPath, with the
    // signer's certificate in it if appendCert. Throws params_error, internal_error.
    virtual void signCreateExt(
        std::string mediaSerial,
        std::string mediaPass,
        std::string blobPath,
        std::string signPath,
        bool appendCert) = 0;

    // Tells whether the file signPath is a detached signature of the file blobPath that verifies
    // against the certificate file crtPath. Needs no key medium. Throws internal_error when one of
    // the files cannot be read.
    virtual bool signVerify(std::string blobPath, std::string signPath, std::string crtPath) = 0;
};

// Makes the signature service, which keeps the file service for its lifetime. The first call in a
// process makes the library ready, until the process ends; throws internal_error if that fails, and
// a later call tries again. To be used from one thread.
std::shared_ptr<api_like> Api__Create(std::shared_ptr<Fs::api_like> fs);

} // namespace Orlek::Support::Velmora::Eusign
