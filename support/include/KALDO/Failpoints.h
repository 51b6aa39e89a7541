// Fault injection: make a named CoreUtils operation fail on purpose.
//
// Syntax: "Operation[@subject]=code;Operation[@subject]=code;..." where
// Operation is the name of an operation (e.g. ReadFromTextFile,
// ExecuteSafeToText, GetCurrentLoggedInUserInfo, GetNetworkDevices,
// GetMACAddress), subject is a path or tool exactly as the caller passes it
// (before the machine root is applied; for GetMACAddress the interface name,
// for ParseSubstringFromStringEx the begin marker), and code is the negative
// integer to return. The subject runs from the first "@" to the last "=" of
// its rule, so it may hold blanks and "="; only ";" cannot occur in it.
// Without a subject the failpoint fires for every call of the operation; when
// several rules match, the first wins. The failing operation does nothing
// else.
//
// Set() and Clear() change them. A library built with IMPLVM_TEST_HOOKS (for
// tests and benchmarks) also reads KALDO_FAILPOINTS when it is first used;
// any other build ignores the variable. When no failpoint is set, a check
// costs one atomic load.
#pragma once

#include <string>

#include "KALDO/Export.h"

namespace KALDO {

class KALDO_API CFailpoints {
public:
    // Replaces the active failpoints. kInvalidArgument (and no change) when
    // the text is malformed.
    static int Set(const std::string& spec);
    static void Clear();

    // True (and the code in `code`) when operation `op` should fail for
    // `subject`. Used by every CoreUtils operation at its start.
    static bool Check(const char* op, const std::wstring& subject, int& code);
    static bool Check(const char* op, int& code);
};

}  // namespace KALDO
