#include "posix.h"

namespace cm::platform::posix {

Error error_number(int number, bool blocking) {
    switch (number) {
        case EINTR:
            return CM_EINTR;
        case EBADF:
        case ENOTSOCK:
            return CM_ENOTSOCK;
        case EACCES:
        case EPERM:
            return CM_EACCES;
        case EFAULT:
            return 10014;
        case EINVAL:
            return CM_EINVAL;
        case EMFILE:
        case ENFILE:
            return CM_EMFILE;
        case EAGAIN:
        case EINPROGRESS:  // what Winsock says of a connect under way is "would block", not "in progress"
            return blocking ? CM_ETIMEDOUT : CM_EWOULDBLOCK;
        case EALREADY:
            return 10037;
        case EMSGSIZE:
            return CM_EMSGSIZE;
        case EAFNOSUPPORT:
            return 10047;
        case EADDRINUSE:
            return CM_EADDRINUSE;
        case EADDRNOTAVAIL:
            return CM_EADDRNOTAVAIL;
        case ENETDOWN:
            return 10050;
        case ENETUNREACH:
            return CM_ENETUNREACH;
        case ECONNABORTED:
            return CM_ECONNABORTED;
        case ECONNRESET:
        case EPIPE:
            return CM_ECONNRESET;
        case ENOBUFS:
            return 10055;
        case EISCONN:
            return 10056;
        case ENOTCONN:
            return CM_ENOTCONN;
        case ESHUTDOWN:
            return CM_ESHUTDOWN;
        case ETIMEDOUT:
            return CM_ETIMEDOUT;
        case ECONNREFUSED:
            return CM_ECONNREFUSED;
        case EHOSTUNREACH:
            return CM_EHOSTUNREACH;
        default:
            return number;
    }
}

}  // namespace cm::platform::posix
