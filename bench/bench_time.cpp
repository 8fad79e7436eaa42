// Dates beside strftime and apr.
#include <apr_date.h>
#include <apr_time.h>

#include <ctime>

#include "core/cmstamp.h"
#include "ratio.h"
#include "tilvarcm.h"

namespace {

constexpr int kCalls = 1000;

template <class Call>
auto repeat(Call call) {
    return [call] {
        for (int i = 0; i < kCalls; i++) call();
    };
}

void stamp_apr() {
    char text[32];
    apr_time_exp_t now;
    apr_size_t length;
    apr_time_exp_lt(&now, apr_time_now());
    apr_strftime(text, &length, sizeof text, "[%Y-%m-%d %H:%M:%S]", &now);
    cm::bench::keep(text);
}

void stamp_strftime() {
    char text[32];
    const std::time_t now = std::time(nullptr);
    std::tm fields;
    localtime_r(&now, &fields);
    std::strftime(text, sizeof text, "[%Y-%m-%d %H:%M:%S]", &fields);
    cm::bench::keep(text);
}

void stamps(cm::bench::Rows &rows) {
    const auto coded = [] {
        char text[32];
        cm_datetime(14, text, sizeof text, nullptr);
        cm::bench::keep(text);
    };
    const auto of_a_log_line = [] {
        char text[cm::time::kStampLength + 1];
        cm::time::log_stamp(text);
        cm::bench::keep(text);
    };
    rows.pair("stamp (code 14), apr", kCalls, repeat(coded), repeat(stamp_apr), "<= 0.35");
    rows.pair("stamp (code 14), strftime", kCalls, repeat(coded), repeat(stamp_strftime), "<= 0.35");
    rows.pair("stamp of a log line, apr", kCalls, repeat(of_a_log_line), repeat(stamp_apr), "<= 0.35");
}

void formats(cm::bench::Rows &rows) {
    uint32_t seconds = 1000000000;
    apr_time_t peer_seconds = seconds;
    rows.pair("RFC 822 date, apr_rfc822_date", kCalls, repeat([&seconds] {
                  char text[32];
                  cm_curtime(seconds++, text, sizeof text);
                  cm::bench::keep(text);
              }),
              repeat([&peer_seconds] {
                  char text[APR_RFC822_DATE_LEN];
                  apr_rfc822_date(text, apr_time_from_sec(peer_seconds++));
                  cm::bench::keep(text);
              }),
              "<= 1.0");
}

void parsers(cm::bench::Rows &rows) {
    const struct {
        const char *name, *text, *goal;
    } forms[] = {{"parse RFC 1123", "Sun, 06 Nov 1994 08:49:37 GMT", "<= 0.5"},
                 {"parse RFC 850", "Sunday, 06-Nov-94 08:49:37 GMT", "<= 0.5"},
                 {"parse asctime", "Sun Nov  6 08:49:37 1994", "<= 0.7"}};
    for (const auto &form : forms)
        rows.pair(std::string(form.name) + ", apr_date_parse_http", kCalls,
                  repeat([text = form.text] { cm::bench::keep(cm_parsedatetime(text)); }),
                  repeat([text = form.text] { cm::bench::keep(apr_date_parse_http(text)); }), form.goal);
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    stamps(rows);
    formats(rows);
    parsers(rows);
    return rows.failures();
}
