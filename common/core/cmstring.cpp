// String helpers: the bounded formatter and the comparisons and conversions that do not depend on the locale.
#include "core/cmstring.h"

#include <stdio.h>
#include <stdlib.h>

using cm::fold;

CM_API int32_t CM_CALL cm_vsnprintf(char *out, int32_t size, const char *format, va_list args) {
    if (out == nullptr || size < 1) return 0;
    const int wanted = format == nullptr ? -1 : vsnprintf(out, static_cast<size_t>(size), format, args);
    if (wanted < 0) {
        out[0] = '\0';
        return 0;
    }
    return wanted < size ? wanted : size - 1;
}

CM_API int32_t CM_CALL cm_snprintf(char *out, int32_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t stored = cm_vsnprintf(out, size, format, args);
    va_end(args);
    return stored;
}

CM_API int32_t CM_CALL cm_strcasecmp(const char *a, const char *b) {
    return cm_strncasecmp(a, b, INT32_MAX);
}

CM_API int32_t CM_CALL cm_strncasecmp(const char *a, const char *b, int32_t length) {
    if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
    for (int32_t i = 0; i < length; i++) {
        const int difference = static_cast<unsigned char>(fold(a[i])) - static_cast<unsigned char>(fold(b[i]));
        if (difference != 0 || a[i] == '\0') return difference;
    }
    return 0;
}

CM_API int32_t CM_CALL cm_strncpy(char *out, const char *in, int32_t size) {
    if (out == nullptr || size < 1) return 0;
    int32_t stored = 0;
    if (in != nullptr)
        for (; stored < size - 1 && in[stored] != '\0'; stored++) out[stored] = in[stored];
    out[stored] = '\0';
    return stored;
}

CM_API int32_t CM_CALL cm_atoi(const char *text, int32_t length) {
    std::string_view rest = cm::view(text, length);
    while (!rest.empty() && cm::is_space(rest.front())) rest.remove_prefix(1);
    const bool negative = !rest.empty() && rest.front() == '-';
    if (!rest.empty() && (rest.front() == '-' || rest.front() == '+')) rest.remove_prefix(1);
    int64_t number = 0;
    for (; !rest.empty() && cm::is_digit(rest.front()); rest.remove_prefix(1)) {
        number = number * 10 + (rest.front() - '0');
        if (number > int64_t{INT32_MAX} + 1) number = int64_t{INT32_MAX} + 1;
    }
    if (negative) return static_cast<int32_t>(-number);
    return number > INT32_MAX ? INT32_MAX : static_cast<int32_t>(number);
}

CM_API double CM_CALL cm_atof(const char *text, int32_t length) {
    // The longest text that can still change a double; what lies beyond is noise.
    char copy[512];
    const std::string_view number = cm::view(text, length);
    const size_t kept = number.size() < sizeof copy ? number.size() : sizeof copy - 1;
    if (kept > 0) memcpy(copy, number.data(), kept);
    copy[kept] = '\0';
    return strtod(copy, nullptr);
}
