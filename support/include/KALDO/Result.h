// Result codes returned by the CoreUtils operations.
//
// Every operation that can fail returns an int: 0 (or, where documented, a
// positive count) on success and one of the negative codes below on failure.
// The module passes -4 and -32 through to its host unchanged and folds every
// other negative code into -1, so the two codes are reserved for the two
// conditions a host can act on: "refused" and "busy/locked".
#pragma once

#include "KALDO/Export.h"

namespace KALDO {

enum Result : int {
    kOk = 0,
    kFailed = -1,           // general failure: I/O error, unexpected system error
    kNotFound = -2,         // missing file, key, user, application or process
    kInvalidArgument = -3,  // null pointer, empty marker, value of the wrong kind
    kAccessDenied = -4,     // the system refused: EACCES, EPERM
    kTimedOut = -7,         // a tool ran past its time limit and was killed
    kTooLarge = -8,         // input beyond what the library will hold in memory
    kBusy = -32,            // locked or busy: EBUSY, ETXTBSY, EWOULDBLOCK
};

// Maps an errno value to the result code the library reports for it.
KALDO_API int ResultFromErrno(int err);

}  // namespace KALDO
