// The loop over every call that can fail.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>

#include "support/support.h"

namespace cm::test {

// Calls `run` with the first, the second, ... call of these groups failing until it gets through all of them, and after
// each `check(injected)`, or `check(injected, leaked)`: whether there was a failure that time, and how many blocks it
// did not give back.
template <class Run, class Check>
void each_failure(uint32_t groups, const Run &run, const Check &check, Faults::Mode mode = Faults::kOnce,
                  platform::Error error = Faults::kInputOutput) {
    constexpr bool kCountsLeaks = std::is_invocable_v<Check, bool, size_t>;
    for (int64_t k = 1, injected = 1; injected > 0 && !testing::Test::HasFatalFailure(); k++) {
        const testing::ScopedTrace where(__FILE__, __LINE__, "failure of call " + std::to_string(k));
        std::optional<LeakCheck> leaks;
        if constexpr (kCountsLeaks) leaks.emplace();
        {
            const Faults faults(groups, k, error, mode);
            run();
            injected = faults.injected();
        }
        if constexpr (kCountsLeaks)
            check(injected > 0, leaks->outstanding());
        else
            check(injected > 0);
    }
}

}  // namespace cm::test
