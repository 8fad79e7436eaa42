// Error numbers between the contract and Win32.  Winsock's own pass through the sockets side as they are.
#include "win32.h"

namespace cm::platform::win32 {

Error map_error(DWORD code) {
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_NAME:
        case ERROR_BAD_NETPATH:
        case ERROR_BAD_NET_NAME:
        case ERROR_INVALID_DRIVE:
            return kNoEntry;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
        case ERROR_WRITE_PROTECT:
        case ERROR_PRIVILEGE_NOT_HELD:
            return CM_EACCES;
        case ERROR_NOT_ENOUGH_MEMORY:
        case ERROR_OUTOFMEMORY:
            return kNoMemory;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return kExists;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return kNoSpace;
        case ERROR_DIR_NOT_EMPTY:
            return kNotEmpty;
        case ERROR_DIRECTORY:
            return kNotDirectory;
        case ERROR_TOO_MANY_OPEN_FILES:
            return CM_EMFILE;
        case ERROR_INVALID_HANDLE:
            return CM_ENOTSOCK;
        case ERROR_INVALID_PARAMETER:
        case ERROR_NEGATIVE_SEEK:
            return CM_EINVAL;
        case ERROR_FILENAME_EXCED_RANGE:
            return kNameTooLong;
        case NO_ERROR:
            return CM_EINVAL;  // a failure without a code is still a failure
        default:
            return static_cast<Error>(code);
    }
}

}  // namespace cm::platform::win32
