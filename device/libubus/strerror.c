#include <stdio.h>

#include "ubus_private.h"

const char *ubus_strerror(int error) {
    static const char *const text[__UBUS_STATUS_LAST] = {
        [UBUS_STATUS_OK] = "Success",
        [UBUS_STATUS_INVALID_COMMAND] = "Invalid command",
        [UBUS_STATUS_INVALID_ARGUMENT] = "Invalid argument",
        [UBUS_STATUS_METHOD_NOT_FOUND] = "Method not found",
        [UBUS_STATUS_NOT_FOUND] = "Not found",
        [UBUS_STATUS_NO_DATA] = "No response",
        [UBUS_STATUS_PERMISSION_DENIED] = "Permission denied",
        [UBUS_STATUS_TIMEOUT] = "Request timed out",
        [UBUS_STATUS_NOT_SUPPORTED] = "Operation not supported",
        [UBUS_STATUS_UNKNOWN_ERROR] = "Unknown error",
        [UBUS_STATUS_CONNECTION_FAILED] = "Connection failed",
        [UBUS_STATUS_NO_MEMORY] = "Out of memory",
        [UBUS_STATUS_PARSE_ERROR] = "Parsing message data failed",
        [UBUS_STATUS_SYSTEM_ERROR] = "System error",
    };

    static char unknown[32];

    if (error >= 0 && error < __UBUS_STATUS_LAST)
        return text[error];
    snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
    return unknown;
}
