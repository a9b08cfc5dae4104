// What the library hands out to C callers: memory from malloc, released with free.
#pragma once

#include "bytes.h"
#include "cms/certificate.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace eu {

template <class T>
using allocated = std::unique_ptr<T, released_by<std::free>>;

// Bytes on their way out: owned here until they are given away.
class parcel {
public:
    explicit parcel(view contents)
        : length(contents.size()), memory(static_cast<BYTE*>(std::malloc(length))) {
        require(memory != nullptr, EU_ERROR_MEMORY);
        std::memcpy(memory.get(), contents.data(), length);
    }

    void giveAway(BYTE** bytesOut, DWORD* lengthOut) {
        *lengthOut = length;
        *bytesOut = memory.release();
    }

private:
    std::size_t length;
    allocated<BYTE> memory;
};

inline allocated<char> copied(const std::string& text) {
    return taken<allocated<char>>(::strdup(text.c_str()), EU_ERROR_MEMORY);
}

// A record with the names of a certificate; its texts are freed with clearRecord.
template <class Record>
Record named(const X509* certificate) {
    auto issuer = copied(nameText(X509_get_issuer_name(certificate)));
    auto serial = copied(serialText(certificate));
    auto subject = copied(nameText(X509_get_subject_name(certificate)));
    Record record{};
    record.bFilled = 1;
    record.pszIssuer = issuer.release();
    record.pszSerial = serial.release();
    record.pszSubject = subject.release();
    return record;
}

template <class Record>
void clearRecord(Record* record) {
    std::free(record->pszIssuer);
    std::free(record->pszSerial);
    std::free(record->pszSubject);
    *record = Record{};
}

} // namespace eu
