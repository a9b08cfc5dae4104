// The error types of the house. The type is the whole message: whoever detects a failure logs its
// cause first and then throws an object without data.
#pragma once

#include <exception>

namespace Orlek {

// Any failure that the system reports itself. A category: never thrown as such.
class generic_error : public std::exception {};

// The failure lies in the system or its environment: a library, a file, a conversion.
class internal_error : public generic_error {};

// The failure lies in the caller's input. A category: never thrown as such.
class external_error : public generic_error {};

// A parameter does not fit: no such key medium, a malformed 'name=value' text.
class params_error : public external_error {};

// The command line does not match what was asked of it.
class not_found_error : public external_error {};

} // namespace Orlek
