#include "eusign/api.h"

#include <orlek/errors.h>
#include <orlek/log.h>
#include <orlek/released_with.h>

#include <EUSignCP.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include <iconv.h>

namespace Orlek::Support::Velmora::Eusign {

namespace {

// --- The library's results, values and handles ---------------------------------------------------

constexpr DWORD language = 3;
constexpr DWORD end_of_list = 7;

constexpr DWORD own_certificate_type = 1;
constexpr DWORD signature_key_usage = 1;
constexpr DWORD sign_algorithm = 1;
constexpr BOOL external_signature = 1;

const char* resultText(DWORD result) {
    const char* text = EUGetErrorLangDesc(result, language);
    return text != nullptr ? text : "(null)";
}

unsigned resultNumber(DWORD result) {
    return static_cast<unsigned>(result);
}

// Tells whether a call succeeded. If not, logs the failure, whose format takes the result's number
// and text.
bool succeeded(const place& at, DWORD result, int level, const char* failure) {
    if (result != 0) {
        const char* text = resultText(result);
        LogWrite(at.file, at.line, at.function, level, failure, resultNumber(result), text);
    }
    return result == 0;
}

// The same for a call that the operation cannot do without.
void require(const place& at, DWORD result, const char* failure) {
    if (!succeeded(at, result, log_failure, failure)) {
        throw internal_error();
    }
}

[[noreturn]] void refuse(const place& at) {
    LogWrite(at.file, at.line, at.function, log_progress, "fail: params_error");
    throw params_error();
}

const char* yesNo(bool answer) {
    return answer ? "yes" : "no";
}

using library_bytes = std::unique_ptr<unsigned char, released_with<EUFreeMemory>>;
using certificate_info = std::unique_ptr<EU_CERT_INFO_EX, released_with<EUFreeCertificateInfoEx>>;
using sign_info = std::unique_ptr<EU_SIGN_INFO, released_with<EUFreeSignInfo>>;
using context_handle = std::unique_ptr<void, released_with<EUCtxFree>>;
using private_key_handle = std::unique_ptr<void, released_with<EUCtxFreePrivateKey>>;

// The library's record of a medium, whose password is wiped when the record goes out of use.
struct key_media : EU_KEY_MEDIA {
    key_media() : EU_KEY_MEDIA() {}
    explicit key_media(const EU_KEY_MEDIA& media) : EU_KEY_MEDIA(media) {}
    key_media(const key_media&) = default;
    key_media& operator=(const key_media&) = default;
    ~key_media() { explicit_bzero(szPassword, sizeof szPassword); }
};

// Makes the library ready for as long as it lives.
struct eu_guard {
    eu_guard() {
        EUSetUIMode(0);
        require({ORLEK_HERE}, EUInitialize(), "fail: EUInitialize (error:%u, %s)");
        EUSetUIMode(0);
        LogWrite(ORLEK_HERE, log_progress, "done: EUInitialize");
    }
    eu_guard(const eu_guard&) = delete;
    eu_guard& operator=(const eu_guard&) = delete;
    ~eu_guard() {
        EUFinalize();
        LogWrite(ORLEK_HERE, log_progress, "done: EUFinalize");
    }
};

// --- Key media -----------------------------------------------------------------------------------

constexpr std::string_view supported_type = "е.ключ ІІТ Алмаз-1К";
static_assert(supported_type.size() == 33, "this file is UTF-8");

constexpr int enumeration_limit = 32;

// A description as the library writes it, zero-terminated whatever the library does.
using description = std::array<char, EU_DESCRIPTION_SIZE>;
// The same in UTF-8, where a character takes at most four bytes.
using description_utf8 = std::array<char, description().size() * 4>;

// Converts a zero-terminated text. Returns true; what cannot be converted, or does not fit with its
// terminator, is logged and thrown as internal_error.
bool _T_conv_1251_utf8(char* src, char* dst, unsigned long dstSize) {
    iconv_t opened = iconv_open("UTF-8", "CP1251");
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how POSIX writes the failure
    if (opened == reinterpret_cast<iconv_t>(-1)) {
        const int cause = errno;
        const char* text = std::strerror(cause);
        LogWrite(ORLEK_HERE, log_failure, "fail: iconv_open (errno:%d, %s)", cause, text);
        throw internal_error();
    }
    const std::unique_ptr<void, released_with<iconv_close>> converter(opened);
    std::size_t sourceLeft = std::strlen(src);
    std::size_t targetLeft = dstSize;
    (void)iconv(converter.get(), &src, &sourceLeft, &dst, &targetLeft);
    if (sourceLeft != 0) {
        LogWrite(ORLEK_HERE, log_failure, "fail: iconv (source-left:%zu)", sourceLeft);
        throw internal_error();
    }
    if (targetLeft == 0) {
        LogWrite(ORLEK_HERE, log_failure, "fail: iconv (target-left:%zu)", targetLeft);
        throw internal_error();
    }
    *dst = '\0';
    return true;
}

// A walk along the attached media of the supported type, in the order of the library's table:
//
//   media_walk walk({ORLEK_HERE}, media_walk::skips::logged);
//   while (walk.next()) { ... walk.serial() ... }
class media_walk {
public:
    enum class skips { silent, logged }; // what is done about the types passed over

    media_walk(const place& operation, skips passedOver) : at(operation), skipped(passedOver) {}

    // Goes to the first or next medium; false at the end, and the walk is over then. Throws
    // internal_error.
    bool next() {
        while (insideType || nextType()) {
            insideType = nextDevice();
            if (insideType) {
                return true;
            }
        }
        return false;
    }

    DWORD type() const { return static_cast<DWORD>(typeIndex); }
    DWORD device() const { return static_cast<DWORD>(deviceIndex); }
    const char* serial() const { return deviceText.data(); }

private:
    bool nextType();
    bool nextDevice();
    bool isSupported(description& typeText) const;

    place at;
    skips skipped;
    bool insideType = false;
    int typeIndex = -1;
    int deviceIndex = -1;
    description deviceText{};
};

bool media_walk::nextType() {
    while (++typeIndex < enumeration_limit) {
        description typeText{};
        const DWORD result = EUEnumKeyMediaTypes(type(), typeText.data());
        if (result == end_of_list) {
            return false;
        }
        if (result != 0) {
            LogWrite(
                at.file,
                at.line,
                at.function,
                log_failure,
                "fail: EUEnumKeyMediaTypes (type-index:%d, error:%d, %s)",
                typeIndex,
                static_cast<int>(result),
                resultText(result));
            throw internal_error();
        }
        if (isSupported(typeText)) {
            deviceIndex = -1;
            return true;
        }
    }
    return false;
}

bool media_walk::nextDevice() {
    if (++deviceIndex == enumeration_limit) {
        return false;
    }
    deviceText.fill('\0');
    const DWORD result = EUEnumKeyMediaDevices(type(), device(), deviceText.data());
    if (result == end_of_list) {
        return false;
    }
    if (result != 0) {
        LogWrite(
            at.file,
            at.line,
            at.function,
            log_failure,
            "fail: EUEnumKeyMediaDevices (type-index:%d, dev-index:%d, error:%d, %s)",
            typeIndex,
            deviceIndex,
            static_cast<int>(result),
            resultText(result));
        throw internal_error();
    }
    deviceText.back() = '\0';
    return true;
}

bool media_walk::isSupported(description& typeText) const {
    typeText.back() = '\0';
    description_utf8 text{};
    _T_conv_1251_utf8(typeText.data(), text.data(), text.size());
    const bool supported = text.data() == supported_type;
    if (!supported && skipped == skips::logged) {
        LogWrite(at.file, at.line, at.function, log_progress, "skip: type-desc:<%s>", text.data());
    }
    return supported;
}

// Fills *media for the medium with the serial. False, with *media untouched, if there is none.
// Throws internal_error, and params_error when the medium is there but its record does not hold a
// password of that length.
bool _T_find_private_key_media(
    const std::string& mediaSerial,
    const std::string& mediaPass,
    EU_KEY_MEDIA* media) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    media_walk walk({ORLEK_HERE}, media_walk::skips::silent);
    while (walk.next()) {
        if (std::strcmp(walk.serial(), mediaSerial.c_str()) != 0) {
            continue;
        }
        if (mediaPass.size() >= sizeof media->szPassword) {
            refuse({ORLEK_HERE});
        }
        media->dwTypeIndex = walk.type();
        media->dwDevIndex = walk.device();
        std::memset(media->szPassword, 0, sizeof media->szPassword);
        std::copy(mediaPass.begin(), mediaPass.end(), media->szPassword);
        LogWrite(ORLEK_HERE, log_progress, "done");
        return true;
    }
    LogWrite(ORLEK_HERE, log_failure, "fail: media-serial:%s", mediaSerial.c_str());
    return false;
}

// The medium that an operation needs: refuses when it is not attached.
key_media
attachedMedia(const place& at, const std::string& mediaSerial, const std::string& mediaPass) {
    key_media media;
    if (!_T_find_private_key_media(mediaSerial, mediaPass, &media)) {
        refuse(at);
    }
    return media;
}

// --- Keys, certificates, signatures --------------------------------------------------------------

// A private key opened in the library. The key goes before the context it was read with.
struct key_fixture {
    context_handle context;
    private_key_handle privateKey;
    key_media media;

    explicit key_fixture(const EU_KEY_MEDIA& source) : media(source) {
        LogWrite(ORLEK_HERE, log_progress, "exec");
        void* madeContext = nullptr;
        require({ORLEK_HERE}, EUCtxCreate(&madeContext), "fail: EUCtxCreate (error:%u, %s)");
        context.reset(madeContext);

        void* readKey = nullptr;
        EU_CERT_OWNER_INFO owner{};
        const DWORD result = EUCtxReadPrivateKey(context.get(), &media, &readKey, &owner);
        if (result != 0) {
            LogWrite(
                ORLEK_HERE,
                log_failure,
                "fail: EUCtxReadPrivateKey (media-type:%lu, media-dev:%lu, error:%u, %s)",
                media.dwTypeIndex,
                media.dwDevIndex,
                resultNumber(result),
                resultText(result));
            throw internal_error();
        }
        privateKey.reset(readKey);
        EUCtxFreeCertOwnerInfo(context.get(), &owner);
        LogWrite(ORLEK_HERE, log_progress, "done: EUCtxReadPrivateKey");
        LogWrite(ORLEK_HERE, log_progress, "done");
    }
};

// The certificate of an opened key. The parsed form goes before the encoded one.
struct own_certificate {
    library_bytes encoded;
    DWORD length = 0;
    certificate_info info;
};

// Asks the library for the certificate; none, and the failure logged, if that fails.
std::optional<own_certificate> ownCertificate(const place& at, const key_fixture& key) {
    EU_CERT_INFO_EX* info = nullptr;
    unsigned char* encoded = nullptr;
    DWORD length = 0;
    const DWORD result = EUCtxGetOwnCertificate(
        key.privateKey.get(),
        own_certificate_type,
        signature_key_usage,
        &info,
        &encoded,
        &length);
    if (!succeeded(at, result, log_failure, "fail: EUCtxGetOwnCertificate (error:%u, %s)")) {
        return std::nullopt;
    }
    own_certificate certificate{library_bytes(encoded), length, certificate_info(info)};
    LogWrite(
        at.file,
        at.line,
        at.function,
        log_progress,
        "done: EUCtxGetOwnCertificate (cert-size:%u)",
        static_cast<unsigned>(length));
    return certificate;
}

struct borrowed_bytes {
    unsigned char* data;
    DWORD size;
};

// Verifies a detached signature against a certificate, with none of the library's optional inputs.
// *info is to be released with EUFreeSignInfo after a result of 0.
DWORD verifyDetached(
    borrowed_bytes data,
    borrowed_bytes signature,
    borrowed_bytes certificate,
    EU_SIGN_INFO* info) {
    return EUVerifyDataWithParams(
        data.data,
        data.size,
        nullptr,
        0,
        signature.data,
        signature.size,
        0,
        nullptr,
        0,
        certificate.data,
        certificate.size,
        nullptr,
        info);
}

std::string timeText(const SYSTEMTIME& time) {
    std::array<char, 128> text{};
    (void)std::snprintf(
        text.data(),
        text.size(),
        "%.4d-%.2d-%.2dT%.2d:%.2d:%.2d",
        time.wYear,
        time.wMonth,
        time.wDay,
        time.wHour,
        time.wMinute,
        time.wSecond);
    return text.data();
}

// --- The service ---------------------------------------------------------------------------------

class api : public api_like {
public:
    explicit api(std::shared_ptr<Fs::api_like> files) : fs(std::move(files)) {}

    bool mediaList(std::string mediaSerial) override;
    bool mediaList(std::vector<std::string>& serials) override;
    void keyCreate(
        std::string mediaSerial,
        std::string mediaPass,
        std::string csrDsName,
        std::string csrKepName,
        std::string csrZipPath) override;
    void keyDelete(std::string mediaSerial, std::string mediaPass) override;
    bool keyTestAccess(std::string mediaSerial, std::string mediaPass) override;
    bool keyTestValid(std::string mediaSerial, std::string mediaPass) override;
    bool keyTestSign(std::string mediaSerial, std::string mediaPass) override;
    bool keyTestAll(
        std::string mediaSerial,
        std::string mediaPass,
        bool* access,
        bool* valid,
        bool* sign) override;
    void signCrtPeriod(
        std::string mediaSerial,
        std::string mediaPass,
        std::string& minTime,
        std::string& maxTime) override;
    void signExporCrt(std::string mediaSerial, std::string mediaPass, std::string crtPath) override;
    void signCreateExt(
        std::string mediaSerial,
        std::string mediaPass,
        std::string blobPath,
        std::string signPath,
        bool appendCert) override;
    bool signVerify(std::string blobPath, std::string signPath, std::string crtPath) override;

private:
    key_fixture* keyCreateFixture(const EU_KEY_MEDIA& media);
    bool keyTestAccess(EU_KEY_MEDIA& media);
    bool keyTestOpen(const EU_KEY_MEDIA& media);
    bool keyTestSign(EU_KEY_MEDIA& media);
    key_media
    mediaWithKey(const place& at, const std::string& mediaSerial, const std::string& mediaPass);
    own_certificate
    openCertificate(const place& at, const std::string& mediaSerial, const std::string& mediaPass);

    std::shared_ptr<Fs::api_like> fs;
    std::unique_ptr<key_fixture> fixture; // the key opened last
};

// The opened key of a medium: the one opened last if it is this medium's, whatever the password.
key_fixture* api::keyCreateFixture(const EU_KEY_MEDIA& media) {
    const bool cached = fixture != nullptr && fixture->media.dwTypeIndex == media.dwTypeIndex &&
                        fixture->media.dwDevIndex == media.dwDevIndex;
    if (!cached) {
        fixture = std::make_unique<key_fixture>(media);
    }
    return fixture.get();
}

// Tells whether the medium can be accessed and holds a key.
bool api::keyTestAccess(EU_KEY_MEDIA& media) {
    BOOL exists = 0;
    const DWORD result = EUIsPrivateKeyExists(&media, &exists);
    if (result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED) {
        LogWrite(
            ORLEK_HERE,
            log_failure,
            "fail: EUIsPrivateKeyExists (EU_ERROR_KEY_MEDIAS_ACCESS_FAILED)");
        return false;
    }
    require({ORLEK_HERE}, result, "fail: EUIsPrivateKeyExists %u (%s)");
    return exists != 0;
}

// Tells whether the key opens.
bool api::keyTestOpen(const EU_KEY_MEDIA& media) {
    try {
        keyCreateFixture(media);
        return true;
    } catch (const internal_error&) {
        return false;
    }
}

// Tells whether the key signs and its signature verifies.
bool api::keyTestSign(EU_KEY_MEDIA& media) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    const key_fixture* key = keyCreateFixture(media);
    const auto certificate = ownCertificate({ORLEK_HERE}, *key);
    if (!certificate) {
        return false;
    }

    std::array<unsigned char, 10> data{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    unsigned char* signedBytes = nullptr;
    DWORD signLength = 0;
    DWORD result = EUCtxSignData(
        key->privateKey.get(),
        sign_algorithm,
        data.data(),
        data.size(),
        external_signature,
        0, // without the signer's certificate
        &signedBytes,
        &signLength);
    if (!succeeded({ORLEK_HERE}, result, log_tolerated, "fail: EUSignData (error:%u, %s)")) {
        return false;
    }
    const library_bytes signature(signedBytes);
    LogWrite(
        ORLEK_HERE,
        log_progress,
        "done: EUSignData (sign-size:%u)",
        static_cast<unsigned>(signLength));

    EU_SIGN_INFO info{};
    result = verifyDetached(
        {data.data(), data.size()},
        {signature.get(), signLength},
        {certificate->encoded.get(), certificate->length},
        &info);
    if (!succeeded(
            {ORLEK_HERE},
            result,
            log_tolerated,
            "fail: EUVerifyDataWithParams (error:%u, %s)")) {
        return false;
    }
    const sign_info release(&info);
    LogWrite(
        ORLEK_HERE,
        log_progress,
        "done: EUVerifyDataWithParams (time-avail:%s)",
        yesNo(info.bTimeAvail != 0));
    return true;
}

// The medium that an operation needs with a key on it: refuses otherwise.
key_media
api::mediaWithKey(const place& at, const std::string& mediaSerial, const std::string& mediaPass) {
    auto media = attachedMedia(at, mediaSerial, mediaPass);
    if (!keyTestAccess(media)) {
        refuse(at);
    }
    return media;
}

// Opens the key and takes its certificate. Throws params_error, internal_error.
own_certificate api::openCertificate(
    const place& at,
    const std::string& mediaSerial,
    const std::string& mediaPass) {
    const auto media = mediaWithKey(at, mediaSerial, mediaPass);
    auto certificate = ownCertificate(at, *keyCreateFixture(media));
    if (!certificate) {
        throw internal_error();
    }
    return std::move(*certificate);
}

bool api::mediaList(std::string mediaSerial) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    std::vector<std::string> serials;
    mediaList(serials);
    const bool found = std::find(serials.begin(), serials.end(), mediaSerial) != serials.end();
    LogWrite(ORLEK_HERE, log_progress, "done: (media-found:%s", yesNo(found));
    return found;
}

bool api::mediaList(std::vector<std::string>& serials) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    media_walk walk({ORLEK_HERE}, media_walk::skips::logged);
    while (walk.next()) {
        serials.emplace_back(walk.serial());
        LogWrite(ORLEK_HERE, log_progress, "done: serial:%s", walk.serial());
    }
    LogWrite(ORLEK_HERE, log_progress, "done: serial-count:%zu", serials.size());
    return !serials.empty();
}

void api::keyCreate(
    std::string mediaSerial,
    std::string mediaPass,
    std::string csrDsName,
    std::string csrKepName,
    std::string csrZipPath) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    auto media = attachedMedia({ORLEK_HERE}, mediaSerial, mediaPass);

    unsigned char* dsBytes = nullptr;
    unsigned char* kepBytes = nullptr;
    DWORD dsLength = 0;
    DWORD kepLength = 0;
    std::array<char, EU_REQUEST_NAME_SIZE> dsFileName{}; // suggested by the library, not used
    std::array<char, EU_REQUEST_NAME_SIZE> kepFileName{};
    const DWORD result = EUGeneratePrivateKeyEx(
        &media,
        1,       // protected by the password
        1,       // type of the keys
        2,       // parameters of the key for signing
        2,       // parameters of the key for key agreement
        nullptr, // no folder of parameters
        0,       // no third key, its type ...
        2,       // ... and its parameters
        nullptr,
        nullptr, // the keys stay on the medium: none is handed out
        nullptr,
        nullptr,
        nullptr,
        nullptr, // no owner's details for the requests
        nullptr,
        &dsBytes,
        &dsLength,
        dsFileName.data(),
        &kepBytes,
        &kepLength,
        kepFileName.data(),
        nullptr, // no third request
        nullptr,
        nullptr);
    require({ORLEK_HERE}, result, "fail: EUGeneratePrivateKeyEx (error:%u, %s)");
    const library_bytes dsRequest(dsBytes);
    const library_bytes kepRequest(kepBytes);
    fs->createZip(
        csrZipPath.c_str(),
        csrDsName.c_str(),
        dsRequest.get(),
        dsLength,
        csrKepName.c_str(),
        kepRequest.get(),
        kepLength);
    LogWrite(ORLEK_HERE, log_progress, "done");
}

void api::keyDelete(std::string mediaSerial, std::string mediaPass) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    auto media = mediaWithKey({ORLEK_HERE}, mediaSerial, mediaPass);
    const DWORD result = EUDestroyPrivateKey(&media);
    require({ORLEK_HERE}, result, "fail: EUDestroyPrivateKey (error:%u, %s)");
    if (keyTestAccess(media)) {
        LogWrite(ORLEK_HERE, log_progress, "fail: internal_error (key still exist)");
        throw internal_error();
    }
    LogWrite(ORLEK_HERE, log_progress, "done");
}

bool api::keyTestAccess(std::string mediaSerial, std::string mediaPass) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    key_media media;
    if (!_T_find_private_key_media(mediaSerial, mediaPass, &media)) {
        LogWrite(ORLEK_HERE, log_progress, "fail: invalid key-media");
        return false;
    }
    const bool access = keyTestAccess(media);
    LogWrite(ORLEK_HERE, log_progress, "done: key-access:%s", yesNo(access));
    return access;
}

bool api::keyTestValid(std::string mediaSerial, std::string mediaPass) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    key_media media;
    if (!_T_find_private_key_media(mediaSerial, mediaPass, &media)) {
        LogWrite(ORLEK_HERE, log_progress, "fail: invalid key-media");
        return false;
    }
    if (!keyTestAccess(media)) {
        LogWrite(ORLEK_HERE, log_progress, "fail: invalid key-access");
        return false;
    }
    const bool valid = keyTestOpen(media);
    LogWrite(ORLEK_HERE, log_progress, "done: key-valid:%s", yesNo(valid));
    return valid;
}

bool api::keyTestSign(std::string mediaSerial, std::string mediaPass) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    auto media = mediaWithKey({ORLEK_HERE}, mediaSerial, mediaPass);
    const bool valid = keyTestSign(media);
    LogWrite(ORLEK_HERE, log_progress, "done: sign-valid:%s", yesNo(valid));
    return valid;
}

bool api::keyTestAll(
    std::string mediaSerial,
    std::string mediaPass,
    bool* access,
    bool* valid,
    bool* sign) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    *sign = *valid = *access = false;
    auto media = attachedMedia({ORLEK_HERE}, mediaSerial, mediaPass);
    if (!keyTestAccess(media)) {
        LogWrite(ORLEK_HERE, log_progress, "done: key-access:no, key-valid:no, key-sign:no)");
        return false;
    }
    *access = true;
    if (!keyTestOpen(media)) {
        LogWrite(ORLEK_HERE, log_progress, "done: key-access:yes, key-valid:no, key-sign:no)");
        return false;
    }
    *valid = true;
    if (!keyTestSign(media)) {
        LogWrite(ORLEK_HERE, log_progress, "done: key-access:yes, key-valid:yes, key-sign:no)");
        return false;
    }
    *sign = true;
    LogWrite(ORLEK_HERE, log_progress, "done: key-access:yes, key-valid:yes, key-sign:yes)");
    return true;
}

void api::signCrtPeriod(
    std::string mediaSerial,
    std::string mediaPass,
    std::string& minTime,
    std::string& maxTime) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    const auto certificate = openCertificate({ORLEK_HERE}, mediaSerial, mediaPass);
    if (!certificate.info) {
        LogWrite(ORLEK_HERE, log_failure, "fail: EUCtxGetOwnCertificate (cert-info:no)");
        throw internal_error();
    }
    auto begin = timeText(certificate.info->stCertBeginTime);
    auto end = timeText(certificate.info->stCertEndTime);
    minTime = std::move(begin);
    maxTime = std::move(end);
    LogWrite(ORLEK_HERE, log_progress, "done");
}

void api::signExporCrt(std::string mediaSerial, std::string mediaPass, std::string crtPath) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    auto certificate = openCertificate({ORLEK_HERE}, mediaSerial, mediaPass);
    certificate.info.reset();
    fs->writeFile(crtPath.c_str(), certificate.encoded.get(), certificate.length);
    LogWrite(ORLEK_HERE, log_progress, "done");
}

void api::signCreateExt(
    std::string mediaSerial,
    std::string mediaPass,
    std::string blobPath,
    std::string signPath,
    bool appendCert) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    const auto media = mediaWithKey({ORLEK_HERE}, mediaSerial, mediaPass);
    const key_fixture* key = keyCreateFixture(media);
    const DWORD result = EUCtxSignFile(
        key->privateKey.get(),
        sign_algorithm,
        blobPath.data(),
        external_signature,
        appendCert ? 1 : 0,
        signPath.data());
    require({ORLEK_HERE}, result, "fail: EUCtxSignFile (error:%u, %s)");
    LogWrite(ORLEK_HERE, log_progress, "done");
}

bool api::signVerify(std::string blobPath, std::string signPath, std::string crtPath) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    unsigned long blobSize = 0;
    unsigned long signSize = 0;
    unsigned long certSize = 0;
    const auto blob = fs->readFile(blobPath.c_str(), &blobSize);
    const auto sign = fs->readFile(signPath.c_str(), &signSize);
    const auto cert = fs->readFile(crtPath.c_str(), &certSize);
    LogWrite(
        ORLEK_HERE,
        log_progress,
        "blobSize:%u signSize:%u, certSize:%u",
        static_cast<unsigned>(blobSize),
        static_cast<unsigned>(signSize),
        static_cast<unsigned>(certSize));

    EU_SIGN_INFO info{};
    const DWORD result = verifyDetached(
        {blob.get(), blobSize},
        {sign.get(), signSize},
        {cert.get(), certSize},
        &info);
    if (result != 0) {
        const char* text = resultText(result);
        LogWrite(ORLEK_HERE, log_failure, "fail: EUVerifyDataWithParams (%s)", text);
        return false;
    }
    const sign_info release(&info);
    if (info.bTimeAvail != 0 || info.bTimeStamp != 0) {
        LogWrite(
            ORLEK_HERE,
            log_progress,
            "done: EUVerifyDataWithParams (signed-at:<%u/%u/%u %u:%u:%u.%u>)",
            unsigned{info.Time.wYear},
            unsigned{info.Time.wMonth},
            unsigned{info.Time.wDay},
            unsigned{info.Time.wHour},
            unsigned{info.Time.wMinute},
            unsigned{info.Time.wSecond},
            unsigned{info.Time.wMilliseconds});
    } else {
        LogWrite(ORLEK_HERE, log_progress, "done: EUVerifyDataWithParams (time-avali:no)");
    }
    return true;
}

} // namespace

std::shared_ptr<api_like> Api__Create(std::shared_ptr<Fs::api_like> fs) {
    static const eu_guard _s_eu_guard;
    return std::make_shared<api>(std::move(fs));
}

} // namespace Orlek::Support::Velmora::Eusign
