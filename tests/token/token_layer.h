// A SoftHSM token for the library under test, behind a layer that counts every PKCS#11 call and
// makes it fail on demand. It takes the place of p11-kit's list of modules.
#pragma once

#include <EUSignCP.h>

#include <p11-kit/pkcs11.h>
#include <vector>

namespace layer {

inline constexpr EU_KEY_MEDIA right{.dwTypeIndex = 0, .dwDevIndex = 0, .szPassword = "246810"};
inline constexpr EU_KEY_MEDIA wrong{.dwTypeIndex = 0, .dwDevIndex = 0, .szPassword = "135790"};

// That many failures are the token's removal: no slot holds one either.
inline constexpr int for_good = 1'000'000;

// What happens to the calls, until something else is assigned.
struct interference {
    int failAt = 0;         // the first call, counted from 1, that fails,
    int failures = 0;       // how many do in a row,
    CK_RV failure = CKR_OK; // and how
    CK_RV login = CKR_OK;   // how the next login fails
    bool noCurves = false;  // for keys
    int calls = 0;          // so far
};
extern interference now;

// Takes all objects off the token.
void empty();

std::size_t objectCount();

void store(std::vector<unsigned char> certificate);

} // namespace layer
