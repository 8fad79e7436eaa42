// One entry of the `os` table replaced by any function for as long as this lives:
//
//     const Replace<&platform::Table::sleep> sleep([&](int32_t ms) { return slept += ms, true; });
//
// The function may call what it found in the table before.  There is at most one of each entry and level at a time; one
// within the life of another takes the next level.
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
    explicit Replace(std::function<Result(Arguments...)> instead) : real(platform::os.*kEntry) {
        instead_ = std::move(instead);
        platform::os.*kEntry = [](Arguments... arguments) { return instead_(arguments...); };
    }
    ~Replace() {
        platform::os.*kEntry = real;
        instead_ = nullptr;
    }
    Replace(const Replace &) = delete;
    Replace &operator=(const Replace &) = delete;

    Result (*const real)(Arguments...);

private:
    inline static std::function<Result(Arguments...)> instead_;
};

}  // namespace cm::test
