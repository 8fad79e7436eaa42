// Scenarios that stand beside the tests as text: tests/<area>/data/<name>.txt, in the notation of data.h.
//
//     case NAME [| SETTING...]      a test of its own, named after it; begins with a new world
//     VERB WORD... [| RESULT [| N]] a step and what it must give; without a RESULT it must give 1.  N: the calls of the
//                                   system (but the clock's) and the allocations that it may take.  "" is a word
//                                   without letters
//
// A world is a class that derives from World, takes the head of the case (its settings are head[1], head[2], ...), and
// says in its constructor what each verb does:
//
//     struct Files : World {
//         explicit Files(const Row &head) : library(head.text(1)) {
//             on("read", [this](const Words &words) { return library.folder().read(words[0]); });
//         }
//         Library library;
//     };
//     SCENARIOS(Reading, Files, "files/reading");
//
// What stands behind the name of the file goes to the constructor too, for the same cases in several kinds of a world.
//
// A verb gives a text, a number, or nothing (1); a world may override shown() to add to it what is the same for all
// steps, as the messages that were told meanwhile.  Every world knows besides:
//
//     until STEP                 repeats the step until it gives the result
//     fail GROUP K STEP          the k-th call of this group fails during the step; "K+": all from the k-th on
//     needs FEATURE              skips the case where the system lacks it: file-modes, symbolic-links,
//                                full-device or ports-by-address
//     meanwhile STEP             runs the step on a thread of its own; its result is looked at by "join"
//     join                       waits for these threads
#pragma once

#include <cctype>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/data.h"
#include "support/sockets.h"
#include "support/support.h"

namespace cm::test {

struct Scenario {
    std::string name;
    Row head;
    std::vector<Row> steps;  // each field still as it is written

    friend void PrintTo(const Scenario &scenario, std::ostream *out) { *out << scenario.head.where; }
};

inline std::vector<Scenario> scenarios(const std::string &name) {
    std::vector<Scenario> all;
    for (Row &row : raw_rows(name)) {
        if (row[0].starts_with("case ")) {
            all.push_back({row[0].substr(5), row, {}});
            for (std::string &field : all.back().head.fields) field = unescaped(field);
        } else {
            all.back().steps.push_back(std::move(row));
        }
    }
    return all;
}

// "a peer that resets" becomes "APeerThatResets".
inline std::string scenario_name(const testing::TestParamInfo<Scenario> &info) {
    std::string name;
    bool begins = true;
    for (const char c : info.param.name) {
        if (isalnum(static_cast<unsigned char>(c))) name += begins ? static_cast<char>(toupper(c)) : c;
        begins = !isalnum(static_cast<unsigned char>(c)) && c != '\'';
    }
    return name;
}

// The words behind a verb; those that are not there are empty.
class Words {
public:
    explicit Words(const std::string &raw) {
        std::istringstream in(raw);
        for (std::string word; in >> word; words_.push_back(word == "\"\"" ? "" : unescaped(word)))
            raw_.push_back(word);
    }

    size_t count() const { return words_.size(); }
    const std::string &operator[](size_t index) const { return index < count() ? words_[index] : empty_; }
    const char *text(size_t index) const { return (*this)[index].c_str(); }
    long long number(size_t index) const { return strtoll(text(index), nullptr, 0); }
    std::string rest(size_t first) const { return joined(words_, first); }
    Words from(size_t first) const { return Words(joined(raw_, first)); }

private:
    static std::string joined(const std::vector<std::string> &words, size_t first) {
        std::string text;
        for (size_t i = first; i < words.size(); i++) text += (i > first ? " " : "") + words[i];
        return text;
    }
    std::vector<std::string> words_, raw_;
    std::string empty_;
};

class World : Pinned {
public:
    virtual ~World() = default;
    void play(const Scenario &scenario) {
        for (const Row &row : scenario.steps) {
            const testing::ScopedTrace where(__FILE__, __LINE__, row.where + ": " + row[0]);
            const std::string expected = row.fields.size() > 1 ? unescaped(row[1]) : "1";
            std::optional<Faults> counter;
            if (row.fields.size() > 2) counter.emplace(Faults::kBoth & ~Faults::kClock, 0);
            step(Words(row[0]), expected);
            if (counter) {
                EXPECT_EQ(counter->calls(), row.number(2));
            }
            if (testing::Test::HasFatalFailure() || testing::Test::IsSkipped()) break;
        }
        join();
    }

protected:
    template <class Function>
    void on(const std::string &verb, Function function) {
        verbs_[verb] = [function](const Words &words) -> std::string {
            if constexpr (std::is_void_v<decltype(function(words))>)
                return function(words), "1";
            else if constexpr (std::is_arithmetic_v<decltype(function(words))>)
                return std::to_string(function(words));
            else
                return function(words);
        };
    }

    std::string run(const Words &words) {
        if (words[0] == "fail") {
            static const std::map<std::string, uint32_t> groups = {
                {"allocations", Faults::kAllocations}, {"files", Faults::kFiles},         {"sockets", Faults::kSockets},
                {"threads", Faults::kThreads},         {"locks", Faults::kLocks},         {"clock", Faults::kClock},
                {"processes", Faults::kProcesses},     {"libraries", Faults::kLibraries}, {"any", Faults::kBoth}};
            const Faults faults(groups.at(words[1]), words.number(2), Faults::kInputOutput,
                                words[2].ends_with('+') ? Faults::kFromThenOn : Faults::kOnce);
            return run(words.from(3));
        }
        const auto verb = verbs_.find(words[0]);
        return verb != verbs_.end() ? shown(verb->second(words.from(1))) : "no such verb: " + words[0];
    }
    virtual std::string shown(std::string result) { return result; }

private:
    void step(const Words &words, const std::string &expected) {
        if (words[0] == "until") {
            std::string got;
            eventually([&] { return (got = run(words.from(1))) == expected; });
            EXPECT_EQ(got, expected);
        } else if (words[0] == "meanwhile") {
            meanwhile_.push_back({words.rest(1), expected,
                                  std::async(std::launch::async, [this, words] { return run(words.from(1)); })});
        } else if (words[0] == "join") {
            join();
        } else if (words[0] == "needs") {
            if (const char *why = missing(words[1])) GTEST_SKIP() << why;
        } else {
            EXPECT_EQ(run(words), expected);
        }
    }
    void join() {
        for (auto &[step, expected, result] : meanwhile_) EXPECT_EQ(result.get(), expected) << step;
        meanwhile_.clear();
    }

    struct Meanwhile {
        std::string step, expected;
        std::future<std::string> result;
    };
    std::map<std::string, std::function<std::string(const Words &)>> verbs_;
    std::vector<Meanwhile> meanwhile_;
};

}  // namespace cm::test

#define SCENARIOS(Suite, Type, file, ...)                       \
    class Suite : public testing::TestWithParam<Scenario> {};   \
    TEST_P(Suite, Case) {                                       \
        Type world(GetParam().head __VA_OPT__(, ) __VA_ARGS__); \
        world.play(GetParam());                                 \
    }                                                           \
    INSTANTIATE_TEST_SUITE_P(, Suite, testing::ValuesIn(scenarios(file)), scenario_name)
