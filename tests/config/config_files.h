// What the tests of the configuration files share.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/support.h"
#include "tilvarcm.h"

namespace config_test {

// Everything that the reader finds in an open file, one item a line: "[section]", "name=value", and "failed" where it
// stops with an error.
inline std::string read_all(cm_file *file) {
    std::string out;
    char name[256], value[1025];
    int32_t found = 7;
    for (;;) {
        if (cm_next_section(file, name, &found) == 0) return out + (found == -1 ? "failed" : "failed and found");
        if (found == 0) return out;
        out += "[" + std::string(name) + "]\n";
        for (;;) {
            if (cm_next_entry(file, name, value, &found) == 0)
                return out + (found == -1 ? "failed" : "failed and found");
            if (found == 0) break;
            out += std::string(name) + "=" + value + "\n";
        }
    }
}

inline std::string read_all(const std::string &text) {
    cm_file *file = nullptr;
    EXPECT_EQ(cm_fopens(nullptr, "memory.ini", text.data(), static_cast<int32_t>(text.size()), &file), 1);
    const std::string out = read_all(file);
    cm_fclose(file);
    return out;
}

// The messages on the standard error stream, one a line, without their common prefix.
inline std::string messages_of(const std::string &text) {
    constexpr std::string_view kPrefix = "Tilvar Server Error: ";
    std::string out;
    for (std::string line : cm::test::lines_of(text))
        out += (line.compare(0, kPrefix.size(), kPrefix) == 0 ? line.substr(kPrefix.size()) : line) + "\n";
    return out;
}

}  // namespace config_test
