// Failures inside the library: an exception that carries a result code.
#pragma once

#include <EUSignCP.h>

#include <exception>
#include <new>
#include <p11-kit/pkcs11.h>

namespace eu {

class failure : public std::exception {
public:
    explicit failure(DWORD result) : code(result) {}

    const DWORD code;
};

// The result code of a PKCS#11 result other than CKR_OK.
DWORD codeOf(CK_RV result);

// Throws a failure unless the PKCS#11 call succeeded.
void check(CK_RV result);

// The same for a call that makes or destroys keys, which some tokens let nobody do but their
// administrator.
void checkChange(CK_RV result);

// Tells whether a call succeeded whose failure is got past. Throws EU_ERROR_MEMORY if memory ran
// out: what is left out then would be missing from an answer.
bool worked(CK_RV result);

// Throws a failure with the code unless the condition holds.
void require(bool condition, DWORD code);

// Forgets what OpenSSL queued about errors, for the next caller not to stumble over it, and tells
// whether memory ran out.
bool cryptoRanOutOfMemory() noexcept;

// Throws EU_ERROR_MEMORY if it did: for a failure of OpenSSL's that is taken for an answer
// otherwise.
void requireMemory();

// Runs one exported operation and turns whatever it throws into a result code.
template <class Operation>
DWORD guarded(Operation operation) noexcept {
    DWORD result = EU_ERROR_NONE;
    try {
        operation();
    } catch (const failure& e) {
        result = cryptoRanOutOfMemory() ? EU_ERROR_MEMORY : e.code;
    } catch (const std::bad_alloc&) {
        result = EU_ERROR_MEMORY;
    } catch (...) {
        result = EU_ERROR_UNKNOWN;
    }
    static_cast<void>(cryptoRanOutOfMemory());
    return result;
}

} // namespace eu
