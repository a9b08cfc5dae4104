// A SoftHSM token for the library under test, behind a layer that counts every PKCS#11 call and
// interferes on demand. It takes the place of p11-kit's list of modules.
#pragma once

#include <EUSignCP.h>

#include <p11-kit/pkcs11.h>
#include <string>
#include <vector>

namespace layer {

inline constexpr const char* password = "246810";

// What happens to the calls, until the next reset.
struct interference {
    int failAt = 0; // the call, counted from 1, that fails
    CK_RV failure = CKR_DEVICE_ERROR;
    bool forGood = false;          // all calls from that one on fail, and no slot holds a token
    int dieAt = 0;                 // the call before which the process ends at once
    std::vector<CK_RV> login = {}; // results of the next logins, instead of the token's
    bool refuseChange = false;     // C_SetAttributeValue
    bool refuseCopy = false;       // C_CopyObject
    bool noCurves = false;         // mechanisms of elliptic curves
};
extern interference now;
extern int calls; // since the last reset

void reset();

// Makes the token in a folder of its own, and points SoftHSM there; before anything else.
void makeToken(const std::string& folder);

// Takes all objects off the token.
void empty();

EU_KEY_MEDIA medium(const std::string& password = layer::password);

std::size_t objectCount();

void store(std::vector<unsigned char> certificate);

} // namespace layer
