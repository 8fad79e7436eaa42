// String helpers: the bounded formatters and the comparisons and conversions that do not depend on the locale.
#include "core/cmstring.h"

#include <stdio.h>
#include <stdlib.h>

using cm::fold;

namespace cm::string {

// Whether a format would write through an argument (%n).
static bool writes_back(const char *format) {
    while ((format = strchr(format, '%')) != nullptr) {
        format++;
        if (*format != '%') format += strspn(format, "-+ #'0123456789.*hljztLq");
        if (*format == 'n') return true;
        if (*format == '%') format++;
    }
    return false;
}

// ---- 16-bit characters ---------------------------------------------------------------------------------------------
//
// The C library's wide formatter works on 32-bit characters on some systems, so these are formatted here.

struct Conversion {
    bool left, zero, plus, blank, alternate;
    int32_t width;
    int32_t precision;  // -1: none given
    int32_t size;       // -1: h, 0: none, 1: l, 2: ll
    uint16_t letter;
};

struct Arguments {
    va_list list;
};

class WideOutput {
public:
    WideOutput(uint16_t *out, int32_t size) : out_(out), room_(size - 1) {}

    void put(uint16_t c) {
        if (stored_ < room_) out_[stored_++] = c;
    }
    void fill(char c, int64_t count) {
        for (; count > 0 && stored_ < room_; count--) put(static_cast<uint16_t>(c));
    }
    int32_t finish() {
        out_[stored_] = 0;
        return stored_;
    }

private:
    uint16_t *out_;
    int32_t room_;
    int32_t stored_ = 0;
};

static int32_t parse_number(const uint16_t **format) {
    int32_t number = 0;
    for (; **format >= '0' && **format <= '9'; ++*format)
        if (number < 1'000'000) number = number * 10 + (**format - '0');
    return number;
}

static int32_t parse_size(const uint16_t **format) {
    int32_t size = 0;
    for (; **format == 'h' || **format == 'l'; ++*format) size += **format == 'h' ? -1 : 1;
    return size;
}

static const uint16_t *parse_flags(const uint16_t *format, Conversion *c) {
    for (;; format++) {
        if (*format == '-')
            c->left = true;
        else if (*format == '0')
            c->zero = true;
        else if (*format == '+')
            c->plus = true;
        else if (*format == ' ')
            c->blank = true;
        else if (*format == '#')
            c->alternate = true;
        else
            return format;
    }
}

// Reads what follows a percent sign, and the arguments of its stars; gives the place behind it.
static const uint16_t *parse_conversion(const uint16_t *format, Arguments *arguments, Conversion *c) {
    *c = {};
    c->precision = -1;
    format = parse_flags(format, c);
    c->width = *format == '*' ? va_arg(arguments->list, int) : parse_number(&format);
    if (*format == '*') format++;
    if (c->width < 0) {
        c->left = true;
        c->width = c->width == INT32_MIN ? INT32_MAX : -c->width;
    }
    if (*format == '.') {
        format++;
        c->precision = *format == '*' ? va_arg(arguments->list, int) : parse_number(&format);
        if (*format == '*') format++;
    }
    c->size = parse_size(&format);
    c->letter = *format;
    return *format != 0 ? format + 1 : format;
}

static int64_t take_signed(Arguments *arguments, int32_t size) {
    if (size >= 2) return va_arg(arguments->list, long long);
    if (size == 1) return va_arg(arguments->list, long);
    const int number = va_arg(arguments->list, int);
    return size < 0 ? static_cast<int16_t>(number) : number;
}

static uint64_t take_unsigned(Arguments *arguments, int32_t size) {
    if (size >= 2) return va_arg(arguments->list, unsigned long long);
    if (size == 1) return va_arg(arguments->list, unsigned long);
    const unsigned number = va_arg(arguments->list, unsigned);
    return size < 0 ? static_cast<uint16_t>(number) : number;
}

// `prefix` is the sign or "0x"; a precision is the least number of digits and switches the zero flag off.
static void put_number(WideOutput &out, const Conversion &c, std::string_view prefix, uint64_t number) {
    char digits[24];
    int count = 0;
    const uint64_t base = c.letter == 'x' || c.letter == 'X' ? 16 : 10;
    const char *const symbols = c.letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    for (; number > 0; number /= base) digits[count++] = symbols[number % base];
    int64_t zeros = (c.precision < 0 ? 1 : c.precision) - count;
    if (zeros < 0) zeros = 0;
    int64_t padding = c.width - zeros - count - static_cast<int64_t>(prefix.size());
    if (c.zero && !c.left && c.precision < 0 && padding > 0) {
        zeros += padding;
        padding = 0;
    }
    if (!c.left) out.fill(' ', padding);
    for (const char p : prefix) out.put(static_cast<uint16_t>(p));
    out.fill('0', zeros);
    while (count > 0) out.put(static_cast<uint16_t>(digits[--count]));
    if (c.left) out.fill(' ', padding);
}

static void put_text(WideOutput &out, const Conversion &c, const uint16_t *text) {
    static constexpr uint16_t kNull[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
    if (text == nullptr) text = kNull;
    int64_t length = 0;
    while ((c.precision < 0 || length < c.precision) && text[length] != 0) length++;
    if (!c.left) out.fill(' ', c.width - length);
    for (int64_t i = 0; i < length; i++) out.put(text[i]);
    if (c.left) out.fill(' ', c.width - length);
}

static bool put_conversion(WideOutput &out, const Conversion &c, Arguments *arguments) {
    switch (c.letter) {
        case 'd':
        case 'i': {
            const int64_t number = take_signed(arguments, c.size);
            const uint64_t magnitude = number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
            put_number(out, c, number < 0 ? "-" : c.plus ? "+" : c.blank ? " " : "", magnitude);
            return true;
        }
        case 'u':
        case 'x':
        case 'X': {
            const uint64_t number = take_unsigned(arguments, c.size);
            const bool prefixed = c.alternate && number != 0 && c.letter != 'u';
            put_number(out, c, prefixed ? (c.letter == 'x' ? "0x" : "0X") : "", number);
            return true;
        }
        case 'c': {
            out.fill(' ', c.left ? 0 : c.width - int64_t{1});
            out.put(static_cast<uint16_t>(va_arg(arguments->list, int)));
            out.fill(' ', c.left ? c.width - int64_t{1} : 0);
            return true;
        }
        case 's':
            if (c.size != 1) return false;
            put_text(out, c, va_arg(arguments->list, const uint16_t *));
            return true;
        case '%':
            out.put('%');
            return true;
        default:
            return false;
    }
}

static int32_t format_wide(uint16_t *out, int32_t size, const uint16_t *format, Arguments *arguments) {
    WideOutput output(out, size);
    while (*format != 0) {
        const uint16_t c = *format++;
        if (c != '%') {
            output.put(c);
            continue;
        }
        Conversion conversion;
        format = parse_conversion(format, arguments, &conversion);
        if (!put_conversion(output, conversion, arguments)) return WideOutput(out, size).finish();
    }
    return output.finish();
}

}  // namespace cm::string

CM_API int32_t CM_CALL cm_vsnprintf(char *out, int32_t size, const char *format, va_list args) {
    if (out == nullptr || size < 1) return 0;
    int wanted = -1;
    if (format != nullptr && !cm::string::writes_back(format))
        wanted = vsnprintf(out, static_cast<size_t>(size), format, args);
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

CM_API int32_t CM_CALL cm_wsnprintf(uint16_t *out, int32_t size, const uint16_t *format, ...) {
    if (out == nullptr || size < 1) return 0;
    out[0] = 0;
    if (format == nullptr) return 0;
    cm::string::Arguments arguments;
    va_start(arguments.list, format);
    const int32_t stored = cm::string::format_wide(out, size, format, &arguments);
    va_end(arguments.list);
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
