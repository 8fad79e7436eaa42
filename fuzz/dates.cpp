// The date parsers on any text, the formats on any record.  What a parser takes must come out of a format again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tilvarcm.h"

namespace {

void check(bool holds) {
    if (!holds) abort();
}

void parse(const std::string &text) {
    const uint32_t seconds = cm_parsedatetime(text.c_str());
    if (seconds != 0) {
        char again[64];
        check(cm_curtime(seconds, again, sizeof again) == 1);
        check(cm_parsedatetime(again) == seconds);
    }
    const uint32_t date = cm_parsedate(text.c_str());
    if (date != 0) {
        cm_tm record;
        check(date % 86400 == 0 && cm_time(date, 1, &record) == 1 && cm_tm2sec(&record) == date);
    }
}

void format(const uint8_t *data, size_t size) {
    cm_tm record{};
    if (size > 0) memcpy(&record, data, size < sizeof record ? size : sizeof record);
    const int32_t room = static_cast<int32_t>(size % 90);
    std::string out(static_cast<size_t>(room), '#');
    for (const auto function : {cm_timeISO8601, cm_time822}) {
        if (function(out.data(), room, &record) == 1) check(strlen(out.c_str()) < static_cast<size_t>(room));
    }
    cm_tm2sec(&record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    parse(std::string(reinterpret_cast<const char *>(data), size));
    format(data, size);
    return 0;
}
