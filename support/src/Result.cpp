#include "KALDO/Result.h"

#include <cerrno>

namespace KALDO {

int ResultFromErrno(int err) {
    switch (err) {
        case 0:
            return kOk;
        case ENOENT:
        case ENOTDIR:
        case ENXIO:
        case ENODEV:
            return kNotFound;
        case EACCES:
        case EPERM:
        case EROFS:
            return kAccessDenied;
        case EBUSY:
        case ETXTBSY:
        case EAGAIN:
#if EWOULDBLOCK != EAGAIN
        case EWOULDBLOCK:
#endif
        case EDEADLK:
            return kBusy;
        case EINVAL:
        case EISDIR:
        case ENAMETOOLONG:
        case EFAULT:
            return kInvalidArgument;
        case EFBIG:
        case EOVERFLOW:
        case ENOMEM:
            return kTooLarge;
        case ETIMEDOUT:
            return kTimedOut;
        default:
            return kFailed;
    }
}

}  // namespace KALDO
