// Ratios: our facility beside its peer, measured in one run.
//
// Absolute times on a shared machine move by tens of per cent from minute to minute, so only pairs that are measured in
// turns count.  Each row runs ours, peer, ours, peer ... and keeps the best of each:
//
//     int main(int argc, char **argv) {
//         Rows rows(argc, argv);
//         rows.pair("hash, find", 8000, [] { ... ours, 8000 operations ... }, [] { ... peer ... }, "<= 1.05");
//         return rows.failures();
//     }
//
// prints `row | ours ns | peer ns | ratio | goal` with times per operation.  Arguments are parts of row names: only
// those rows run (a row alone in a process shows what the heap's state did to it); "--repetitions=N" overrides 15.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace cm::bench {

// Makes the compiler believe that somebody looks at the value.
template <class T>
inline void keep(const T &value) {
    asm volatile("" : : "g"(&value) : "memory");
}

class Rows {
public:
    Rows(int argc, char **argv) {
        for (int i = 1; i < argc; i++) {
            if (std::strncmp(argv[i], "--repetitions=", 14) == 0)
                repetitions_ = std::atoi(argv[i] + 14);
            else
                wanted_.emplace_back(argv[i]);
        }
        std::printf("%-44s | %10s | %10s | %6s | goal\n", "row", "ours ns", "peer ns", "ratio");
    }

    bool wants(std::string_view name) const {
        if (wanted_.empty()) return true;
        for (const std::string &part : wanted_)
            if (name.find(part) != name.npos) return true;
        return false;
    }

    // One row.  `ours` and `peer` each carry out `operations` operations per call; a call should last at least some
    // tens of microseconds.  `goal` starts with "<= " and a number, which the ratio is held to; empty: shown only.
    template <class Ours, class Peer>
    void pair(const std::string &name, double operations, Ours ours, Peer peer, const std::string &goal) {
        if (!wants(name)) return;
        double best_ours = 1e300, best_peer = 1e300;
        run_for_a_while(ours);
        run_for_a_while(peer);
        for (int i = 0; i < repetitions_; i++) {
            best_ours = std::min(best_ours, run_for_a_while(ours));
            best_peer = std::min(best_peer, run_for_a_while(peer));
        }
        report(name, best_ours / operations, best_peer / operations, goal);
    }

    // A row whose times (ns per operation) were taken elsewhere, by turns as well.
    void report(const std::string &name, double ours, double peer, const std::string &goal) {
        const double ratio = ours / peer;
        const bool missed = goal.starts_with("<= ") && ratio > std::atof(goal.c_str() + 3);
        failures_ += missed;
        std::printf("%-44s | %10.2f | %10.2f | %6.3f | %s%s\n", name.c_str(), ours, peer, ratio, goal.c_str(),
                    missed ? "  MISSED" : "");
        std::fflush(stdout);
    }

    int failures() const { return failures_; }

private:
    // Calls it until 10 ms have gone by; gives the shortest call in ns.
    template <class Run>
    static double run_for_a_while(Run &run) {
        using Clock = std::chrono::steady_clock;
        double best = 1e300;
        const auto start = Clock::now();
        for (auto before = start, now = start; now - start < std::chrono::milliseconds(10); before = now) {
            run();
            now = Clock::now();
            best = std::min(best, std::chrono::duration<double, std::nano>(now - before).count());
        }
        return best;
    }

    int repetitions_ = 15;
    int failures_ = 0;
    std::vector<std::string> wanted_;
};

}  // namespace cm::bench
