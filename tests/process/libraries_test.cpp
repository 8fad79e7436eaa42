// Look-ups in libraries: a real one, and invented ones that count how often they are opened and closed.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "core/cmdll.h"
#include "network/net.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using cm::platform::kTlsLibraries;
using std::string;

namespace {

// A system with the files named, each with the function "f" + its name.
class Files {
public:
    explicit Files(std::set<string> names) : names_(std::move(names)) {}
    const std::multiset<string> &open() const { return open_; }

private:
    const std::set<string> names_;
    std::mutex mutex_;
    std::multiset<string> open_;
    const Replace<&Table::library_open> opens_{[this](const char *file) -> void * {
        const std::lock_guard lock(mutex_);
        const auto found = names_.find(file);
        if (found != names_.end()) open_.insert(file);
        return found == names_.end() ? nullptr : const_cast<string *>(&*found);
    }};
    const Replace<&Table::library_symbol> finds_{[](void *library, const char *name) {
        return "f" + *static_cast<string *>(library) == name ? library : nullptr;
    }};
    const Replace<&Table::library_close> closes_{[this](void *library) {
        const std::lock_guard lock(mutex_);
        open_.erase(open_.find(*static_cast<string *>(library)));
    }};
};

using Names = std::multiset<string>;

// Without threads that would use the table meanwhile.
struct Quiet : Library {
    Quiet() { end_threads(*this); }
};

bool finds(cm_context *ctx, const char *module, const string &function,
           decltype(cm_dll_lookup) look_up = cm_dll_lookup) {
    void *found = &found;
    const int16_t result = look_up(ctx, module, function.c_str(), &found);
    EXPECT_EQ(result == 1, found != nullptr);
    return result == 1;
}

TEST(Libraries, OneHandleForAName) {
    Quiet lib;
    EXPECT_TRUE(finds(lib, kFoldsPathCase ? "kernel32.dll" : "libz.so.1", kFoldsPathCase ? "Sleep" : "zlibVersion"));
    EXPECT_FALSE(finds(lib, kFoldsPathCase ? "kernel32.dll" : "libz.so.1", "no_such_function"));
    EXPECT_FALSE(finds(lib, "no-such-library", "f"));
    EXPECT_EQ(cm_dlls_free(lib), 1);
    Files files({"one", "two"});
    EXPECT_FALSE(finds(lib, "one", "fone", cm_dllfunc_lookup));  // opens nothing
    EXPECT_EQ(files.open(), Names{});
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (waiting++; waiting < 4;) cm::platform::os.thread_yield();
            for (int round = 0; round < 200; round++) EXPECT_TRUE(finds(lib, "one", "fone"));
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_FALSE(finds(lib, "one", "other"));
    EXPECT_TRUE(finds(lib, "two", "ftwo"));
    EXPECT_TRUE(finds(lib, "one", "fone", cm_dllfunc_lookup));
    EXPECT_EQ(files.open(), (Names{"one", "two"}));
    EXPECT_EQ(cm_dll_close(lib, "one"), 1);
    EXPECT_EQ(cm_dll_close(lib, "one"), 0);
    EXPECT_EQ(files.open(), Names{"two"});
    EXPECT_EQ(finds(lib, "TWO", "ftwo"), kFoldsPathCase);
    for (const char *none : {static_cast<const char *>(nullptr), ""}) EXPECT_FALSE(finds(lib, none, "fone"));
    EXPECT_FALSE(finds(nullptr, "one", "fone"));
    lib.stop();
    EXPECT_EQ(files.open(), Names{});
}

TEST(Libraries, TheTwoOfTheTlsLibraryComeFromOneVersion) {
    const auto &newest = kTlsLibraries[0], &older = kTlsLibraries[1];
    const std::tuple<std::set<string>, string, string> table[] = {
        // what there is, and what opens of it
        {{newest.crypto, newest.tls, older.crypto, older.tls}, newest.crypto, newest.tls},
        {{newest.crypto, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.tls, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.crypto, older.tls}, "", ""},
        {{}, "", ""},
    };
    const Quiet lib;
    for (const auto &[there, crypto, tls] : table) {
        Files files(there);
        EXPECT_EQ(finds(lib, "ssleay32.dll", "f" + tls), tls != "");
        EXPECT_EQ(finds(lib, "libeay32.dll", "f" + crypto), tls != "");
        EXPECT_EQ(files.open(), tls == "" ? Names{} : (Names{crypto, tls}));
        EXPECT_EQ(cm_dlls_free(lib), 1);
        EXPECT_EQ(files.open(), Names{});
    }
    Files files({"one", newest.crypto, newest.tls});
    ASSERT_TRUE(cm::dll::map("libeay32.dll", "one"));
    EXPECT_TRUE(finds(lib, "libeay32.dll", "fone"));
    ASSERT_TRUE(cm::dll::map("libeay32.dll", nullptr));
    EXPECT_EQ(cm_dlls_free(lib), 1);
    bool found = false;
    each_failure(
        Faults::kAllocations | Faults::kLibraries,
        [&] {
            found = finds(lib, "one", "fone") && finds(lib, "ssleay32.dll", string("f") + newest.tls);
            cm_dlls_free(lib);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(found || injected);
            EXPECT_EQ(files.open(), Names{});
            EXPECT_EQ(leaked, 0u);
        });
}

}  // namespace
