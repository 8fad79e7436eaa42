// One entry of the `os` table replaced by any function for as long as this lives:
//
//     const Replace<&platform::Table::sleep> sleep([&](int32_t ms) { return slept += ms, true; });
//
// The function may call what it found in the table before, as `real`.  One within the life of another of the same entry
// takes the next level when it does so.
#pragma once

#include <functional>
#include <utility>

#include "platform/platform.h"

namespace cm::test {

template <auto kEntry, int kLevel = 0>
class Replace;

template <class Result, class... Arguments, Result (*platform::Table::*kEntry)(Arguments...), int kLevel>
class Replace<kEntry, kLevel> {
public:
    explicit Replace(std::function<Result(Arguments...)> instead)
        : real(platform::os.*kEntry), before_(std::exchange(instead_, std::move(instead))) {
        platform::os.*kEntry = [](Arguments... arguments) { return instead_(arguments...); };
    }
    ~Replace() {
        platform::os.*kEntry = real;
        instead_ = std::move(before_);
    }
    Replace(const Replace &) = delete;
    Replace &operator=(const Replace &) = delete;

    Result (*const real)(Arguments...);

private:
    std::function<Result(Arguments...)> before_;
    inline static std::function<Result(Arguments...)> instead_;
};

// A level for the helpers of all tests.
template <auto kEntry>
using Underneath = Replace<kEntry, -1>;

}  // namespace cm::test
