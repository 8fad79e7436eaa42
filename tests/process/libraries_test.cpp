// Look-ups in libraries: real ones, and invented ones that count how often they are opened and closed.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "core/cmdll.h"
#include "support/support.h"

using namespace cm::test;
using cm::platform::os;
using std::string;

namespace {

// A system with the files named, each with the function "f" + its name.
class Files {
public:
    explicit Files(std::set<string> names) : saved_(os), names_(std::move(names)) {
        self = this;
        os.library_open = [](const char *file) -> void * {
            const std::lock_guard lock(self->mutex_);
            const auto found = self->names_.find(file);
            if (found == self->names_.end()) return nullptr;
            self->open_[file]++;
            self->opens_++;
            return const_cast<string *>(&*found);
        };
        os.library_symbol = [](void *library, const char *name) -> void * {
            return "f" + *static_cast<string *>(library) == name ? library : nullptr;
        };
        os.library_close = [](void *library) {
            const std::lock_guard lock(self->mutex_);
            self->open_[*static_cast<string *>(library)]--;
        };
    }
    ~Files() { os = saved_; }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;

    string open() const {
        string text;
        for (const auto &[name, count] : open_)
            if (count != 0) text += name + "=" + std::to_string(count) + " ";
        return text;
    }
    int opens() const { return opens_; }

private:
    static inline Files *self = nullptr;
    const cm::platform::Table saved_;
    const std::set<string> names_;
    std::map<string, int> open_;
    int opens_ = 0;
    std::mutex mutex_;
};

bool finds(cm_context *ctx, const char *module, const char *function) {
    void *found = &found;
    const int16_t result = cm_dll_lookup(ctx, module, function, &found);
    EXPECT_EQ(result == 1, found != nullptr);
    return result == 1;
}

TEST(Libraries, ARealOne) {
    const Library lib;
    const bool windows = cm::platform::kFoldsPathCase;
    void *function = nullptr;
    ASSERT_EQ(
        cm_dll_lookup(lib, windows ? "kernel32.dll" : "libz.so.1", windows ? "GetTickCount" : "zlibVersion", &function),
        1);
    EXPECT_NE(function, nullptr);
    EXPECT_FALSE(finds(lib, windows ? "kernel32.dll" : "libz.so.1", "no_such_function"));
    EXPECT_FALSE(finds(lib, "no-such-library", "f"));
}

TEST(Libraries, OneHandleForAName) {
    Library lib;
    const Files files({"one", "two"});
    void *function = nullptr;
    EXPECT_EQ(cm_dllfunc_lookup(lib, "one", "fone", &function), 0);  // opens nothing
    EXPECT_EQ(files.opens(), 0);
    for (int i = 0; i < 3; i++) EXPECT_TRUE(finds(lib, "one", "fone"));
    EXPECT_FALSE(finds(lib, "one", "other"));
    EXPECT_TRUE(finds(lib, "two", "ftwo"));
    EXPECT_EQ(cm_dllfunc_lookup(lib, "one", "fone", &function), 1);
    EXPECT_NE(function, nullptr);
    EXPECT_EQ(files.open(), "one=1 two=1 ");
    EXPECT_EQ(cm_dll_close(lib, "one"), 1);
    EXPECT_EQ(cm_dll_close(lib, "one"), 0);
    EXPECT_EQ(files.open(), "two=1 ");
    EXPECT_EQ(finds(lib, "TWO", "ftwo"), cm::platform::kFoldsPathCase);
    EXPECT_EQ(cm_dlls_free(lib), 1);
    EXPECT_EQ(files.open(), "");
    EXPECT_TRUE(finds(lib, "one", "fone"));
    lib.stop();
    EXPECT_EQ(files.open(), "");
}

TEST(Libraries, WhatIsNotThere) {
    const Library lib;
    const Files files({"one"});
    void *function = &function;
    EXPECT_EQ(cm_dll_lookup(nullptr, "one", "fone", &function), 0);
    EXPECT_EQ(function, nullptr);
    EXPECT_FALSE(finds(lib, nullptr, "fone"));
    EXPECT_FALSE(finds(lib, "", "fone"));
    EXPECT_FALSE(finds(lib, "one", nullptr));
    EXPECT_EQ(cm_dll_lookup(lib, "one", "fone", nullptr), 0);
    EXPECT_EQ(cm_dll_close(lib, nullptr), 0);
    EXPECT_EQ(cm_dll_close(nullptr, "one"), 0);
    EXPECT_EQ(cm_dlls_free(nullptr), 0);
    EXPECT_EQ(files.opens(), 0);
}

TEST(Libraries, TheTwoOfTheTlsLibraryComeFromOneVersion) {
    const auto &newest = cm::platform::kTlsLibraries[0], &older = cm::platform::kTlsLibraries[1];
    const struct {
        std::set<string> files;
        const char *crypto, *tls;  // what opens; null: nothing
    } table[] = {
        {{newest.crypto, newest.tls, older.crypto, older.tls}, newest.crypto, newest.tls},
        {{newest.crypto, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.tls, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.crypto, older.tls}, nullptr, nullptr},
        {{}, nullptr, nullptr},
    };
    for (const auto &row : table) {
        Library lib;
        const Files files(row.files);
        EXPECT_EQ(finds(lib, "ssleay32.dll", row.tls ? ("f" + string(row.tls)).c_str() : "f"), row.tls != nullptr);
        EXPECT_EQ(finds(lib, "libeay32.dll", row.crypto ? ("f" + string(row.crypto)).c_str() : "f"),
                  row.crypto != nullptr);
        EXPECT_EQ(files.open(), row.tls == nullptr ? "" : string(row.crypto) + "=1 " + row.tls + "=1 ");
        lib.stop();
        EXPECT_EQ(files.open(), "");
    }
}

TEST(Libraries, AMappedModule) {
    const Library lib;
    const Files files({"other"});
    ASSERT_TRUE(cm::dll::map("libeay32.dll", "other"));
    EXPECT_TRUE(finds(lib, "libeay32.dll", "fother"));
    EXPECT_FALSE(finds(lib, "ssleay32.dll", "fother"));
    ASSERT_TRUE(cm::dll::map("libeay32.dll", nullptr));
    EXPECT_EQ(cm_dll_close(lib, "libeay32.dll"), 1);
    EXPECT_FALSE(finds(lib, "libeay32.dll", "fother"));
    static const string names[] = {"a", "b", "c", "d", "e"};
    for (int i = 0; i < 5; i++) EXPECT_EQ(cm::dll::map(names[i].c_str(), "other"), i < 4);
    for (const string &name : names) EXPECT_TRUE(cm::dll::map(name.c_str(), nullptr));
}

TEST(Libraries, ManyThreadsOpenOnce) {
    Library lib;
    const Files files({"one"});
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (waiting++; waiting < 4;) os.thread_yield();
            for (int round = 0; round < 200; round++) EXPECT_TRUE(finds(lib, "one", "fone"));
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(files.open(), "one=1 ");
}

TEST(Libraries, EveryFailureIsCleanedUp) {
    Library lib;
    const Files files({"one", cm::platform::kTlsLibraries[0].crypto, cm::platform::kTlsLibraries[0].tls});
    const string function = string("f") + cm::platform::kTlsLibraries[0].tls;
    for (int k = 1;; k++) {
        ASSERT_LT(k, 100);
        const LeakCheck leaks;
        bool injected = false, found = false;
        {
            const Faults faults(Faults::kAllocations | Faults::kLibraries, k);
            found = finds(lib, "one", "fone") && finds(lib, "ssleay32.dll", function.c_str());
            injected = faults.injected() > 0;
        }
        EXPECT_EQ(cm_dlls_free(lib), 1);
        EXPECT_EQ(files.open(), "");
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        if (!injected) {
            EXPECT_TRUE(found);
            break;
        }
    }
}

}  // namespace
