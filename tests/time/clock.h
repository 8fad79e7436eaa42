// A clock that stands where a test puts it, in a time zone that a test makes up.
#pragma once

#include <gtest/gtest.h>

#include "core/cmstamp.h"
#include "platform/platform.h"

class ClockTest : public testing::Test {
protected:
    void SetUp() override {
        state() = {};
        os.wall_clock = [](WallTime *out) {
            *out = {state().seconds, state().milliseconds};
            return state().readable;
        };
        os.local_calendar = [](int64_t seconds, cm_tm *out) {
            state().conversions++;
            if (!state().convertible) return false;
            const bool summer = state().summer;
            const bool made = cm::time::gmt_calendar(seconds - state().bias + (summer ? 3600 : 0), out);
            out->isdst = summer ? 1 : 0;
            return made;
        };
        os.zone_bias_seconds = [] { return state().bias; };
    }
    void TearDown() override { os = cm::platform::kSystem; }

    // Every setting is a second of its own, since the library keeps the calendar of the current one.
    void set(int64_t seconds, int32_t bias = 0, bool summer = false) {
        state().seconds = seconds;
        state().bias = bias;
        state().summer = summer;
        forget();
    }

    std::string datetime(int32_t code, int32_t size = 64) {
        char text[64] = "untouched";
        int32_t length = -1;
        const int16_t result = cm_datetime(code, text, size, &length);
        EXPECT_EQ(length, static_cast<int32_t>(strlen(text))) << "code " << code;
        EXPECT_EQ(result, text[0] != '\0') << "code " << code;
        return text;
    }

    struct State {
        int64_t seconds = 1025773505;  // Thu, 04 Jul 2002 09:05:05 GMT
        int32_t milliseconds = 0, bias = 0, conversions = 0;
        bool summer = false, readable = true, convertible = true;
    };
    static State &state() {
        static State s;
        return s;
    }

    using WallTime = cm::platform::WallTime;
    static constexpr auto &os = cm::platform::os;

private:
    void forget() {
        const int64_t seconds = state().seconds;
        int64_t ignored;
        cm_tm record;
        state().seconds = 0;
        cm::time::local_now(&ignored, &record);
        state().seconds = seconds;
        state().conversions = 0;
    }
};
