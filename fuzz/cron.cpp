// By the first byte: a period, whose sets, written out as lists, must give the same sets again and whose minute must be
// due when they say so; or a schedule.ini, which is loaded twice: the tasks of section "cron" are replaced, those of
// the other sections come once more.
#include <cstring>
#include <string>
#include <string_view>

#include "files/cmcron.h"
#include "input.h"
#include "platform/platform.h"
#include "support/support.h"

using cm::fuzz::check;

namespace {

// A field with just these values; none when there is none.
std::string list_of(const uint8_t *flags, int count, int shown_from) {
    std::string list;
    for (int i = 0; i < count; i++) {
        check(flags[i] <= 1);
        if (flags[i] == 1) list += (list.empty() ? "" : ",") + std::to_string(i + shown_from);
    }
    return list;
}

std::string period_of(const cm_cron_rec &task) {
    return list_of(task.minute, 60, 0) + " " + list_of(task.hour, 24, 0) + " " + list_of(task.day, 32, 0) + " " +
           list_of(task.month, 12, 1) + " " + list_of(task.weekday, 7, 0);
}

void read_period(const std::string &text) {
    static cm_cron_rec task, again;
    std::string_view rest(text);
    const bool valid = cm::cron::parse_period(rest, cm::cron::sets_of(&task));
    check(rest.size() <= text.size() && rest.data() + rest.size() == text.data() + text.size());
    const std::string period = period_of(task);
    std::string_view written(period);
    if (valid) {
        check(cm::cron::parse_period(written, cm::cron::sets_of(&again)) && written.empty());
        check(period_of(again) == period);
    }
    cm::cron::apply_day_rule(cm::cron::sets_of(&task));
    uint64_t number = 0;
    for (const char c : text) number = number * 31 + static_cast<uint8_t>(c);
    const int64_t minute = static_cast<int64_t>(number & 0xFFFFFF) * 60;
    cm_tm at;
    check(cm::platform::os.local_calendar(minute, &at));
    task.state = cm::cron::kIdle;
    cm::cron::mark_due(&task, minute - 1, minute);
    check((task.state == cm::cron::kDue) == (task.minute[at.min] && task.hour[at.hour] && task.month[at.mon] &&
                                             (task.day[at.mday] || task.weekday[at.wday])));
    task.state = cm::cron::kIdle;
    cm::cron::mark_due(&task, minute, minute + 86400);
}

int count(const cm_cron &cron, int32_t origin) {
    int found = 0;
    for (const cm_cron_rec *list : {cron.periodic, cron.startup, cron.shutdown})
        for (; list != nullptr; list = list->next) {
            check(list->name != nullptr && list->period != nullptr && list->function != nullptr && list->argument != 0);
            found += list->origin == origin;
        }
    return found;
}

void read_schedule(const std::string &text) {
    static const cm::test::TempFolder folder;
    static const std::string config = folder.absolute();
    folder.write("schedule.ini", text);
    cm_context *ctx = static_cast<cm_context *>(calloc(1, sizeof(cm_context)));
    cm_cron cron = {};
    ctx->config_dir = config.c_str();
    cron.ctx = ctx;
    if (cm_mem_init(ctx, &ctx->common_pool, 8192) != 0) {
        const bool loaded = cm::cron::load_schedule(&cron);
        const int replaced = count(cron, cm::cron::kOriginCronSection),
                  kept = count(cron, cm::cron::kOriginAliasSection);
        check(cm::cron::load_schedule(&cron));  // not changed since
        cron.stamp = 0;
        check(cm::cron::load_schedule(&cron) == loaded);
        check(count(cron, cm::cron::kOriginCronSection) == replaced);
        check(count(cron, cm::cron::kOriginAliasSection) == 2 * kept);
    }
    cm_mem_exit(ctx->common_pool);
    free(ctx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 16384) return 0;
    cm::platform::os.write_standard_error = [](const char *, size_t) {};
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (data[0] % 2 == 0)
        read_period(text);
    else
        read_schedule(text);
    return 0;
}
