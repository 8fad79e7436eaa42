// Tables of cases that stand beside the tests as text: tests/<area>/data/<name>.txt.
//
// A line is a case, " | " stands between its fields, and blanks around fields are only for the eye.  Empty lines and
// those that begin with "#" are skipped.  In fields \n \r \t \0 \\ and \xHH are bytes, \s a blank, \p a "|",
// and \(255x) is 255 times an "x".
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace cm::test {

struct Row {
    std::string where;  // "name.txt:12", for messages
    std::vector<std::string> fields;

    const std::string &operator[](size_t index) const { return fields.at(index); }
    const char *text(size_t index) const { return fields.at(index).c_str(); }
    long long number(size_t index) const { return strtoll(text(index), nullptr, 0); }
};

inline std::string unescaped(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        constexpr std::string_view kNames = "nrt0\\sp", kBytes{"\n\r\t\0\\ |", 7};
        if (text[i] != '\\') {
            out += text[i];
        } else if (const size_t at = kNames.find(text[++i]); at != kNames.npos) {
            out += kBytes[at];
        } else if (text[i] == '(') {
            const size_t end = text.find(')', i);
            out.append(strtoul(&text[i + 1], nullptr, 10), text.at(end - 1));
            i = end;
        } else {
            EXPECT_EQ(text[i], 'x') << text;
            out += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        }
    }
    return out;
}

// `name` is "area/name".  Fields are still as they are written.
inline std::vector<Row> raw_rows(const std::string &name) {
    std::ifstream file(std::string(CM_TEST_FOLDER) + "/" + name.substr(0, name.find('/')) + "/data" +
                       name.substr(name.find('/')) + ".txt");
    EXPECT_TRUE(file) << name;
    std::vector<Row> rows;
    std::string line;
    for (int number = 1; std::getline(file, line); number++) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        Row row = {name + ".txt:" + std::to_string(number), {}};
        line += '|';
        for (size_t from = 0, end; (end = line.find('|', from)) != line.npos; from = end + 1) {
            const std::string field = line.substr(from, end - from);
            const size_t first = field.find_first_not_of(' ');
            row.fields.push_back(first == field.npos ? ""
                                                     : field.substr(first, field.find_last_not_of(' ') - first + 1));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

inline std::vector<Row> rows(const std::string &name) {
    std::vector<Row> rows = raw_rows(name);
    for (Row &row : rows) std::transform(row.fields.begin(), row.fields.end(), row.fields.begin(), unescaped);
    return rows;
}

}  // namespace cm::test
