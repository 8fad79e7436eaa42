// Look-ups in libraries: a real one, and invented ones that count how often they are opened and closed.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "core/cmdll.h"
#include "network/net.h"

using namespace cm::test;
using cm::platform::kTlsLibraries;
using std::string;

namespace {

// A system with the files named, each with the function "f" + its name.
class Files {
public:
    explicit Files(std::set<string> names) : names_(std::move(names)) {}

    string open() const {
        string text;
        for (const auto &[name, count] : open_)
            if (count != 0) text += name + "=" + std::to_string(count) + " ";
        return text;
    }

private:
    const std::set<string> names_;
    std::mutex mutex_;
    std::map<string, int> open_;
    const Replace<&Table::library_open> opens_{[this](const char *file) -> void * {
        const std::lock_guard lock(mutex_);
        const auto found = names_.find(file);
        if (found == names_.end()) return nullptr;
        open_[file]++;
        return const_cast<string *>(&*found);
    }};
    const Replace<&Table::library_symbol> finds_{[](void *library, const char *name) {
        return "f" + *static_cast<string *>(library) == name ? library : nullptr;
    }};
    const Replace<&Table::library_close> closes_{[this](void *library) {
        const std::lock_guard lock(mutex_);
        open_[*static_cast<string *>(library)]--;
    }};
};

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

TEST(Libraries, ARealOne) {
    const Library lib;
    const bool windows = cm::platform::kFoldsPathCase;
    EXPECT_TRUE(finds(lib, windows ? "kernel32.dll" : "libz.so.1", windows ? "GetTickCount" : "zlibVersion"));
    EXPECT_FALSE(finds(lib, windows ? "kernel32.dll" : "libz.so.1", "no_such_function"));
    EXPECT_FALSE(finds(lib, "no-such-library", "f"));
}

TEST(Libraries, OneHandleForAName) {
    Quiet lib;
    const Files files({"one", "two"});
    EXPECT_FALSE(finds(lib, "one", "fone", cm_dllfunc_lookup));  // opens nothing
    EXPECT_EQ(files.open(), "");
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
    EXPECT_EQ(files.open(), "one=1 two=1 ");
    EXPECT_EQ(cm_dll_close(lib, "one"), 1);
    EXPECT_EQ(cm_dll_close(lib, "one"), 0);
    EXPECT_EQ(files.open(), "two=1 ");
    EXPECT_EQ(finds(lib, "TWO", "ftwo"), cm::platform::kFoldsPathCase);
    for (const char *none : {static_cast<const char *>(nullptr), ""}) EXPECT_FALSE(finds(lib, none, "fone"));
    EXPECT_FALSE(finds(nullptr, "one", "fone"));
    lib.stop();
    EXPECT_EQ(files.open(), "");
}

TEST(Libraries, TheTwoOfTheTlsLibraryComeFromOneVersion) {
    const auto &newest = kTlsLibraries[0], &older = kTlsLibraries[1];
    const struct {
        std::set<string> files;
        string crypto, tls;  // what opens
    } table[] = {
        {{newest.crypto, newest.tls, older.crypto, older.tls}, newest.crypto, newest.tls},
        {{newest.crypto, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.tls, older.crypto, older.tls}, older.crypto, older.tls},
        {{newest.crypto, older.tls}, "", ""},
        {{}, "", ""},
    };
    for (const auto &row : table) {
        Quiet lib;
        const Files files(row.files);
        EXPECT_EQ(finds(lib, "ssleay32.dll", "f" + row.tls), row.tls != "");
        EXPECT_EQ(finds(lib, "libeay32.dll", "f" + row.crypto), row.tls != "");
        EXPECT_EQ(files.open(), row.tls == "" ? "" : row.crypto + "=1 " + row.tls + "=1 ");
        lib.stop();
        EXPECT_EQ(files.open(), "");
    }
}

TEST(Libraries, AMappedModuleAndEveryFailure) {
    const Quiet lib;
    const Files files({"one", kTlsLibraries[0].crypto, kTlsLibraries[0].tls});
    ASSERT_TRUE(cm::dll::map("libeay32.dll", "one"));
    EXPECT_TRUE(finds(lib, "libeay32.dll", "fone"));
    EXPECT_FALSE(finds(lib, "ssleay32.dll", "fone"));
    ASSERT_TRUE(cm::dll::map("libeay32.dll", nullptr));
    EXPECT_EQ(cm_dlls_free(lib), 1);
    EXPECT_FALSE(finds(lib, "libeay32.dll", "fone"));
    EXPECT_EQ(cm_dlls_free(lib), 1);
    bool found = false;
    each_failure(
        Faults::kAllocations | Faults::kLibraries,
        [&] {
            found = finds(lib, "one", "fone") && finds(lib, "ssleay32.dll", string("f") + kTlsLibraries[0].tls);
            cm_dlls_free(lib);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(found, !injected);
            EXPECT_EQ(files.open(), "");
            EXPECT_EQ(leaked, 0u);
        });
}

}  // namespace
