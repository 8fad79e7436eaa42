// Dates: clock readings, the formats of logs and protocols, and the two parsers.
//
// Everything is 64 bits wide inside; seconds leave as uint32_t, and all ones means that the clock cannot be read.  GMT
// calendars are computed here, local ones come from the platform.  No format and no parser depends on the locale.
#include <string.h>

#include "core/cmstamp.h"
#include "core/cmstring.h"
#include "platform/platform.h"

const char CM__MON[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char CM__DAY[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

namespace cm::time {
namespace {

using platform::os;

constexpr uint32_t kNoTime = 0xFFFFFFFFu;

// A text in the making, long enough for every format below whatever the fields of a record hold.
class DateText {
public:
    DateText &text(std::string_view part) {
        memcpy(end_, part.data(), part.size());
        end_ += part.size();
        return *this;
    }

    // At least `digits` digits, and a sign where the number is negative.
    DateText &number(int64_t value, int digits) {
        if (digits == 2 && value >= 0 && value < 100) {
            end_ = put_two_digits(end_, static_cast<uint32_t>(value));
            return *this;
        }
        if (value >= 1000 && value < 10000) {
            const uint32_t year = static_cast<uint32_t>(value);
            end_ = put_two_digits(put_two_digits(end_, year / 100), year % 100);
            return *this;
        }
        uint64_t rest = value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        char reversed[20];
        int count = 0;
        for (; rest != 0 || count < digits; rest /= 10) reversed[count++] = static_cast<char>('0' + rest % 10);
        if (value < 0) *end_++ = '-';
        while (count > 0) *end_++ = reversed[--count];
        return *this;
    }

    DateText &clock(const cm_tm &record) {
        return number(record.hour, 2).text(":").number(record.min, 2).text(":").number(record.sec, 2);
    }

    // "2002-07-04", with whatever stands between date and time.
    DateText &iso(const cm_tm &record, std::string_view between) {
        number(int64_t{record.year} + 1900, 4).text("-").number(int64_t{record.mon} + 1, 2).text("-");
        return number(record.mday, 2).text(between).clock(record);
    }

    // "Thu, 04 Jul 2002 09:05:00"; month and weekday are within their tables.
    DateText &rfc822(const cm_tm &record) {
        text({CM__DAY[record.wday], 3}).text(", ").number(record.mday, 2).text(" ").text({CM__MON[record.mon], 3});
        return text(" ").number(int64_t{record.year} + 1900, 1).text(" ").clock(record);
    }

    // Cut to size - 1 bytes and terminated.  Fails when there is no room even for that.
    int16_t copy_to(char *buffer, int32_t size, int32_t *out_length) const {
        if (buffer == nullptr || size < 1) return 0;
        const size_t room = static_cast<size_t>(size) - 1, length = static_cast<size_t>(end_ - bytes_);
        const size_t stored = length < room ? length : room;
        memcpy(buffer, bytes_, stored);
        buffer[stored] = '\0';
        if (out_length != nullptr) *out_length = static_cast<int32_t>(stored);
        return 1;
    }

private:
    char bytes_[128];
    char *end_ = bytes_;
};

int16_t no_text(char *buffer, int32_t size, int32_t *out_length) {
    if (buffer != nullptr && size > 0) buffer[0] = '\0';
    if (out_length != nullptr) *out_length = 0;
    return 0;
}

bool has_names(const cm_tm &record) {
    return record.mon >= 0 && record.mon < 12 && record.wday >= 0 && record.wday < 7;
}

// A failed conversion leaves a record that is still a date.
int16_t no_calendar(cm_tm *record) {
    *record = cm_tm{};
    record->mday = 1;
    return 0;
}

bool gmt_now(cm_tm *out) {
    platform::WallTime now;
    return os.wall_clock(&now) && gmt_calendar(now.seconds, out);
}

// What code 12 and the access-log stamp print of the zone: hours and the rest, each 0 when above 100.  The rest is in
// seconds, and so 00 for whole and half hours.  Kept: log readers of the servers know the field that way.
struct ZoneFields {
    int64_t hours, rest;
};

int64_t zone_offset(const cm_tm &local) {
    return -int64_t{os.zone_bias_seconds()} + (local.isdst > 0 ? 3600 : 0);
}

ZoneFields zone_fields(int64_t offset) {
    const int64_t hours = offset / 3600, rest = offset % 3600;
    return {hours > 100 ? 0 : hours, rest > 100 ? 0 : rest};
}

// "%02d": a sign counts as one of the two places.
void put_padded(DateText *out, int64_t value) {
    out->number(value, value < 0 ? 1 : 2);
}

bool format_now(int32_t code, const cm_tm &now, int64_t seconds, DateText *out) {
    switch (code) {
        case 1:
        case 9:
            if (!has_names(now)) return false;
            out->rfc822(now);
            return true;
        case 2:
            out->number(int64_t{now.wday} + 1, 1);
            return true;
        case 3:
            out->number(now.hour, 1);
            return true;
        case 4:
            out->number(now.min, 1);
            return true;
        case 5:
            out->number(now.sec, 1);
            return true;
        case 6:
            out->number(now.mday, 1);
            return true;
        case 7:
            out->number(int64_t{now.mon} + 1, 1);
            return true;
        case 8:
            out->number(int64_t{now.year} + 1900, 1);
            return true;
        case 10:
            out->iso(now, " ");
            return true;
        case 11:
            if (!has_names(now)) return false;
            out->text({CM__DAY[now.wday], 3}).text(" ").text({CM__MON[now.mon], 3}).text(" ");
            out->number(now.mday, 2).text(" ").clock(now).text(" ").number(int64_t{now.year} + 1900, 1);
            return true;
        case 12: {
            const ZoneFields zone = zone_fields(zone_offset(now));
            put_padded(out, zone.hours);
            out->text(":");
            put_padded(out, zone.rest);
            return true;
        }
        case 13:
            out->number(now.year > 99 ? now.year - 100 : now.year, 2).text("/").number(int64_t{now.mon} + 1, 2);
            out->text("/").number(now.mday, 2).text(" ").clock(now);
            return true;
        case 15:
            out->number(seconds, 1);
            return true;
        default:
            return false;
    }
}

// ---- parsing --------------------------------------------------------------------------------------------------------

struct Fields {
    int32_t mday, mon, year, hour, min, sec;  // year since 1900
};

int32_t digit(char c) {
    return c == ' ' ? 0 : c - '0';
}
int32_t two_digits(const char *at) {
    return digit(at[0]) * 10 + digit(at[1]);
}

int32_t month_number(const char *name) {
    for (int32_t month = 0; month < 12; month++)
        if (memcmp(name, CM__MON[month], 3) == 0) return month;
    return -1;
}

bool is_leap(int32_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 100);
}

bool is_date(const Fields &date) {
    if (date.mday < 1 || date.mday > 31 || date.mon < 0) return false;
    if (date.hour > 23 || date.min > 59 || date.sec > 61) return false;  // leap seconds pass
    if (date.mday == 31) return date.mon != 3 && date.mon != 5 && date.mon != 8 && date.mon != 10 && date.mon != 1;
    if (date.mon == 1) return date.mday < 29 || (date.mday == 29 && is_leap(date.year));
    return true;
}

uint32_t to_seconds(const Fields &date) {
    cm_tm record{};
    record.mday = date.mday;
    record.mon = date.mon;
    record.year = date.year;
    record.hour = date.hour;
    record.min = date.min;
    record.sec = date.sec;
    return cm_tm2sec(&record);
}

// A pattern of a date: "#" is a digit, "~" a digit or a blank, "@" a capital, "$" a small letter, "*" the rest of the
// text whatever it is; every other byte stands for itself, and the end of the pattern for the end of the text. Patterns
// are known to the compiler, which turns each of them into plain comparisons.
template <size_t kSize>
struct Pattern {
    constexpr Pattern(const char (&text)[kSize]) {
        for (size_t i = 0; i < kSize; i++) bytes[i] = text[i];
    }
    static constexpr size_t size = kSize;  // with the terminator
    char bytes[kSize] = {};
};

template <char kWanted>
constexpr bool matches_one(char c) {
    if constexpr (kWanted == '#') return is_digit(c);
    if constexpr (kWanted == '~') return is_digit(c) || c == ' ';
    if constexpr (kWanted == '@') return is_upper(c);
    if constexpr (kWanted == '$') return is_lower(c);
    return kWanted == '*' || c == kWanted;
}

template <Pattern kPattern, size_t kAt = 0>
bool matches(const char *text) {
    if constexpr (kAt == kPattern.size || kPattern.bytes[kAt] == '*')
        return true;
    else
        return matches_one<kPattern.bytes[kAt]>(text[kAt]) && matches<kPattern, kAt + 1>(text);
}

// The date forms of HTTP, in the order in which they are tried, and where their fields begin.
struct DateForm {
    bool (*matches)(const char *text);
    int8_t day, day_digits, month, year, year_digits, clock;
};

constexpr DateForm kDateForms[] = {
    {matches<"## @$$ #### ##:##:##*">, 0, 2, 3, 7, 4, 12},  // RFC 1123
    {matches<"# @$$ #### ##:##:##*">, 0, 1, 2, 6, 4, 11},   // the same, day of one digit
    {matches<"##-@$$-## ##:##:##*">, 0, 2, 3, 7, 2, 10},    // RFC 850
    {matches<"#-@$$-## ##:##:##*">, 0, 1, 2, 6, 2, 9},      // the same, day of one digit
    {matches<"@$$ ~# ##:##:## ####*">, 4, 2, 0, 16, 4, 7},  // asctime
};

uint32_t read_date(const char *text, const DateForm &form) {
    Fields date;
    date.mday = form.day_digits == 2 ? two_digits(text + form.day) : digit(text[form.day]);
    date.mon = month_number(text + form.month);
    date.year = two_digits(text + form.year);
    if (form.year_digits == 4) {
        if (date.year < 19) return 0;
        date.year = (date.year - 19) * 100 + two_digits(text + form.year + 2);
    } else if (date.year < 70) {
        date.year += 100;
    }
    date.hour = two_digits(text + form.clock);
    date.min = two_digits(text + form.clock + 3);
    date.sec = two_digits(text + form.clock + 6);
    return is_date(date) ? to_seconds(date) : 0;
}

const char *skip_space(const char *text) {
    while (is_space(*text)) text++;
    return text;
}

int32_t take_number(const char **text) {
    int32_t number = 0;
    for (; is_digit(**text); ++*text) number = number * 10 + digit(**text);
    if (**text != '\0') ++*text;  // the "/"
    return number;
}

}  // namespace
}  // namespace cm::time

using namespace cm::time;
using cm::platform::os;

CM_API int16_t CM_CALL cm_time(uint32_t seconds, int16_t gmt, cm_tm *record) {
    if (record == nullptr) return 0;
    if (seconds == kNoTime) return no_calendar(record);
    int64_t now;
    if (seconds != 0) {
        const bool converted = gmt == 1 ? gmt_calendar(seconds, record) : os.local_calendar(seconds, record);
        return converted ? 1 : no_calendar(record);
    }
    return (gmt == 1 ? gmt_now(record) : local_now(&now, record)) ? 1 : no_calendar(record);
}

CM_API int16_t CM_CALL cm_curmsec(uint32_t *out) {
    cm::platform::WallTime now;
    const bool read = os.wall_clock(&now);
    // Wraps every 49.7 days.
    const uint64_t milliseconds =
        read ? static_cast<uint64_t>(now.seconds) * 1000 + static_cast<uint64_t>(now.milliseconds) : kNoTime;
    if (out != nullptr) *out = static_cast<uint32_t>(milliseconds);
    return read;
}

CM_API uint32_t CM_CALL cm_cursec(uint32_t *out) {
    cm::platform::WallTime now;
    const uint32_t seconds = os.wall_clock(&now) ? static_cast<uint32_t>(now.seconds) : kNoTime;
    if (out != nullptr) *out = seconds;
    return seconds;
}

CM_API uint32_t CM_CALL cm_tm2sec(const cm_tm *record) {
    // Days from 1 March to the first of each month.
    static constexpr int32_t kDaysFromMarch[12] = {306, 337, 0, 31, 61, 92, 122, 153, 184, 214, 245, 275};
    if (record == nullptr || record->year < 70 || record->year >= 138) return 0;
    if (record->mon < 0 || record->mon > 11) return 0;
    const int64_t year = record->mon < 2 ? record->year - 1 : record->year;
    const int64_t days = year * 365 + year / 4 - year / 100 + (year / 100 + 3) / 4 + kDaysFromMarch[record->mon] +
                         record->mday - 1 - 25508;
    const int64_t seconds = ((days * 24 + record->hour) * 60 + record->min) * 60 + record->sec;
    return seconds < 0 || seconds >= kNoTime ? 0 : static_cast<uint32_t>(seconds);
}

CM_API int16_t CM_CALL cm_datetime(int32_t code, char *buffer, int32_t size, int32_t *length_out) {
    if (buffer == nullptr) return no_text(buffer, size, length_out);
    if (code == 14 && size > static_cast<int32_t>(kStampLength)) {
        const size_t length = stamp(buffer);
        if (length == 0) return no_text(buffer, size, length_out);
        buffer[length] = '\0';
        if (length_out != nullptr) *length_out = static_cast<int32_t>(length);
        return 1;
    }
    if (code >= 2 && code <= 8) size = 32;  // these take no limit; the longest number and its end fit
    int64_t seconds = 0;
    cm_tm now;
    DateText text;
    if (!(code == 9 ? gmt_now(&now) : local_now(&seconds, &now))) return no_text(buffer, size, length_out);
    if (code == 14)
        text.text("[").iso(now, " ").text("]");
    else if (!format_now(code, now, seconds, &text))
        return no_text(buffer, size, length_out);
    return text.copy_to(buffer, size, length_out) != 0 ? 1 : no_text(buffer, size, length_out);
}

CM_API int16_t CM_CALL cm_timestamp(cm_stamp *record_out, char *buffer, int32_t size, int32_t *length_out) {
    if (record_out != nullptr) *record_out = cm_stamp{};
    no_text(buffer, size, length_out);
    int64_t seconds;
    cm_tm now;
    if (!local_now(&seconds, &now) || !has_names(now)) return 0;
    if (record_out != nullptr)
        *record_out = {now.sec, now.min, now.hour, now.mday, now.wday, now.mon + 1, now.year + 1900, now.yday + 1};
    if (buffer == nullptr || size < 1) return 1;
    const int64_t offset = zone_offset(now);
    const ZoneFields zone = zone_fields(offset < 0 ? -offset : offset);
    DateText text;
    text.text("[").number(now.mday, 2).text("/").text({CM__MON[now.mon], 3}).text("/");
    text.number(int64_t{now.year} + 1900, 1).text(":").clock(now).text(offset < 0 ? " -" : " +");
    text.number(zone.hours, 2).number(zone.rest, 2).text("]");
    return text.copy_to(buffer, size, length_out);
}

CM_API int16_t CM_CALL cm_timeISO8601(char *buffer, int32_t size, const cm_tm *record) {
    cm_tm now;
    if (record == nullptr) {
        if (!gmt_now(&now)) return no_text(buffer, size, nullptr);
        record = &now;
    }
    if (!has_names(*record)) return no_text(buffer, size, nullptr);
    return DateText().iso(*record, "T").text("Z").copy_to(buffer, size, nullptr);
}

CM_API int16_t CM_CALL cm_time822(char *buffer, int32_t size, const cm_tm *record) {
    cm_tm now;
    if (record == nullptr) {
        if (!gmt_now(&now)) return no_text(buffer, size, nullptr);
        record = &now;
    }
    if (!has_names(*record)) return no_text(buffer, size, nullptr);
    return DateText().rfc822(*record).text(" GMT").copy_to(buffer, size, nullptr);
}

CM_API int16_t CM_CALL cm_curtime(uint32_t seconds, char *buffer, int32_t size) {
    cm_tm record;
    if (cm_time(seconds, 1, &record) == 0) return no_text(buffer, size, nullptr);
    return cm_time822(buffer, size, &record);
}

CM_API uint32_t CM_CALL cm_parsedatetime(const char *text) {
    if (text == nullptr) return 0;
    text = skip_space(text);
    if (*text == '\0') return 0;
    if (!cm::is_digit(*text)) {  // the day name, whatever it says
        text = strchr(text, ' ');
        if (text == nullptr) return 0;
        while (*text == ' ') text++;
    }
    for (const DateForm &form : kDateForms)
        if (form.matches(text)) return read_date(text, form);
    return 0;
}

CM_API uint32_t CM_CALL cm_parsedate(const char *text) {
    if (text == nullptr) return 0;
    text = skip_space(text);
    const bool year_first = matches<"####/##/##">(text) || matches<"####/#/##">(text) || matches<"####/##/#">(text) ||
                            matches<"####/#/#">(text);
    const bool year_last = matches<"##/##/####">(text) || matches<"#/##/####">(text) || matches<"##/#/####">(text) ||
                           matches<"#/#/####">(text);
    if (!year_first && !year_last) return 0;
    const int32_t first = take_number(&text), second = take_number(&text), third = take_number(&text);
    const int32_t year = year_first ? first : third, month = year_first ? second : first;
    const int32_t day = year_first ? third : second;
    if (year < 1900 || day < 1 || day > 31 || month < 1 || month > 12) return 0;
    // No further calendar test: 31 February is 3 March.
    return to_seconds({day, month - 1, year - 1900, 0, 0, 0});
}
