#include "engine.h"

#include <orlek/errors.h>
#include <orlek/log.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <map>
#include <utility>
#include <vector>

namespace Orlek::Support::Velmora {

namespace {

// Refuses a request that is not of the handler's form. The count is of all words, the group word
// and the command word included.
void assertCommand(const cli_request& request, std::size_t count, const std::string& word) {
    request.assert_args(count);
    request.assert_arg(1, word);
}

cli_response done(std::string outText) {
    return cli_response::done(std::move(outText), "");
}

const char* verdictLine(bool passed) {
    return passed ? "PASSED\n" : "FAILED\n";
}

const char* verdictWord(bool passed) {
    return passed ? "passed" : "failed";
}

cli_response _T_media__list(const cli_request& request, const service_pack& services) {
    assertCommand(request, 2, "list");
    std::vector<std::string> serials;
    services.eusign->mediaList(serials);
    std::string text; // no stream: one cuts its text short where memory runs out
    for (const auto& serial : serials) {
        text += serial + '\n';
    }
    return done(std::move(text));
}

cli_response _T_media__list_serial(const cli_request& request, const service_pack& services) {
    assertCommand(request, 3, "list");
    const auto& mediaSerial = request.args[2];
    return done(services.eusign->mediaList(mediaSerial) ? mediaSerial + '\n' : "");
}

cli_response _T_key__create_mediaSerial_mediaPass_csrDsName_csrKepName_csrZipPath(
    const cli_request& request,
    const service_pack& services) {
    assertCommand(request, 7, "create");
    const auto& args = request.args;
    services.eusign->keyCreate(args[2], args[3], args[4], args[5], args[6]);
    return done("DONE\n");
}

cli_response
_T_key__delete_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "delete");
    services.eusign->keyDelete(request.args[2], request.args[3]);
    return done("DONE\n");
}

cli_response
_T_key__testAccess_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "test-access");
    return done(verdictLine(services.eusign->keyTestAccess(request.args[2], request.args[3])));
}

cli_response
_T_key__testValid_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "test-valid");
    return done(verdictLine(services.eusign->keyTestValid(request.args[2], request.args[3])));
}

cli_response
_T_key__testSign_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "test-sign");
    return done(verdictLine(services.eusign->keyTestSign(request.args[2], request.args[3])));
}

cli_response
_T_key__testAll_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "test-all");
    bool access = false;
    bool valid = false;
    bool sign = false;
    const bool all =
        services.eusign->keyTestAll(request.args[2], request.args[3], &access, &valid, &sign);
    std::array<char, 512> line{};
    (void)std::snprintf(
        line.data(),
        line.size(),
        "{\"test-key-access\":\"%s\",\"test-key-valid\":\"%s\",\"test-key-sign\":\"%s\","
        "\"test-all\":\"%s\"}\n",
        verdictWord(access),
        verdictWord(valid),
        verdictWord(sign),
        verdictWord(all));
    return done(line.data());
}

cli_response
_T_sign__crtInfo_mediaSerial_mediaPass(const cli_request& request, const service_pack& services) {
    assertCommand(request, 4, "crt-info");
    std::string minTime;
    std::string maxTime;
    services.eusign->signCrtPeriod(request.args[2], request.args[3], minTime, maxTime);
    std::array<char, 256> line{};
    (void)std::snprintf(
        line.data(),
        line.size(),
        "{\"min-time\":\"%s\",\"max-time\":\"%s\"}\n",
        minTime.c_str(),
        maxTime.c_str());
    return done(line.data());
}

cli_response _T_sign__exportCrt_mediaSerial_mediaPass_crtPath(
    const cli_request& request,
    const service_pack& services) {
    assertCommand(request, 5, "export-crt");
    services.eusign->signExporCrt(request.args[2], request.args[3], request.args[4]);
    return done("DONE\n");
}

cli_response _T_sign__createExt_mediaSerial_mediaPass_blobPath_sign_path(
    const cli_request& request,
    const service_pack& services) {
    assertCommand(request, 6, "create-ext");
    const auto& args = request.args;
    const bool appendCert = false;
    services.eusign->signCreateExt(args[2], args[3], args[4], args[5], appendCert);
    return done("DONE\n");
}

cli_response _T_sign__verify_blobPath_signPath_crtPath(
    const cli_request& request,
    const service_pack& services) {
    assertCommand(request, 5, "verify");
    const bool valid =
        services.eusign->signVerify(request.args[2], request.args[3], request.args[4]);
    return valid ? done(verdictLine(valid)) : cli_response::fail_external(verdictLine(valid), "");
}

} // namespace

cli_engine::cli_engine(service_pack pack) : services(std::move(pack)) {}

std::string cli_engine::usage() {
    return "velmora media  list\n"
           "velmora media  list         <serial>\n"
           "velmora key    create       <serial> <password> <csr-ds-name> <csr-kep-name>"
           " <csr-zip-path>\n"
           "velmora key    delete       <serial> <password>\n"
           "velmora key    test-access  <serial> <password>\n"
           "velmora key    test-valid   <serial> <password>\n"
           "velmora key    test-sign    <serial> <password>\n"
           "velmora key    test-all     <serial> <password>\n"
           "velmora sign   crt-info     <serial> <password>\n"
           "velmora sign   export-crt   <serial> <password> <crt-path>\n"
           "velmora sign   create-ext   <serial> <password> <blob-path> <sign-path>\n"
           "velmora sign   verify       <blob-path> <sign-path> <crt-path>\n";
}

cli_response cli_engine::activate(const cli_request& request) {
    static const std::map<std::string, std::vector<handler>> actionToHandlersMap{
        {"key",
         {_T_key__create_mediaSerial_mediaPass_csrDsName_csrKepName_csrZipPath,
          _T_key__delete_mediaSerial_mediaPass,
          _T_key__testAccess_mediaSerial_mediaPass,
          _T_key__testValid_mediaSerial_mediaPass,
          _T_key__testSign_mediaSerial_mediaPass,
          _T_key__testAll_mediaSerial_mediaPass}},
        {"media", {_T_media__list, _T_media__list_serial}},
        {"sign",
         {_T_sign__crtInfo_mediaSerial_mediaPass,
          _T_sign__exportCrt_mediaSerial_mediaPass_crtPath,
          _T_sign__createExt_mediaSerial_mediaPass_blobPath_sign_path,
          _T_sign__verify_blobPath_signPath_crtPath}},
    };
    auto response = cli_response::fail_internal("FAIL\n", "");
    try {
        request.assert_min_args(1);
        const auto group = actionToHandlersMap.find(request.args[0]);
        if (group == actionToHandlersMap.end()) {
            throw not_found_error();
        }
        for (const handler carryOut : group->second) {
            try {
                return carryOut(request, services);
            } catch (const not_found_error&) {
                // Not this handler's form: on to the next.
            }
        }
        throw not_found_error();
    } catch (const external_error&) {
        return cli_response::fail_internal(usage(), "");
    } catch (const generic_error&) {
        // Whoever threw it has logged the cause.
    } catch (const std::exception& error) {
        LogWrite(ORLEK_HERE, log_failure, "fail: exception <%s>", error.what());
    }
    return response;
}

} // namespace Orlek::Support::Velmora
