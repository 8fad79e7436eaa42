// One entry of the `os` table replaced by any function for as long as this lives:
//
//     const Replace<&platform::Table::sleep> sleep([&](int32_t ms) { return slept += ms, true; });
//
// `real` is what was there before.  At most one of each entry at a time, unless they end in reverse order.
#pragma once

#include <functional>
#include <utility>

#include "platform/platform.h"

namespace cm::test {

template <auto kEntry>
class Replace;

template <class Result, class... Arguments, Result (*platform::Table::*kEntry)(Arguments...)>
class Replace<kEntry> {
public:
    using Function = std::function<Result(Arguments...)>;

    explicit Replace(Function instead)
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
    inline static Function instead_;
    Function before_;
};

}  // namespace cm::test
