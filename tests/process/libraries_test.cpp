// Look-ups in libraries: a real one, and invented ones that count how often they are opened and closed.
#include <mutex>
#include <set>
#include <thread>

#include "core/cmdll.h"
#include "network/net.h"
#include "support/scenario.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using cm::platform::kTlsLibraries;
using std::string;

namespace {

// The steps of data/libraries.txt: a system with the files named, each with the function "f" + its name.
struct Libraries : World {
    explicit Libraries(const Row & = {}) {
        end_threads(library);
        on("files", [this](auto &words) {
            files.clear();
            for (size_t i = 0; i < words.count(); i++) files.insert(file(words[i]));
        });
        on("find", [this](auto &words) { return find(words, cm_dll_lookup); });
        on("find-open", [this](auto &words) { return find(words, cm_dllfunc_lookup); });
        on("map", [this](auto &words) {
            const string &to = *kept.insert(words[1]).first;
            return cm::dll::map(kept.insert(words[0]).first->c_str(), to.empty() ? nullptr : to.c_str());
        });
        on("open", [this](auto &) {
            string text;
            for (const string &name : open) text += (text.empty() ? "" : " ") + name;
            for (const auto &[name, what] : kNames)
                if (const size_t at = text.find(what); at != text.npos) text.replace(at, what.size(), name);
            return text;
        });
        on("close", [this](auto &words) { return cm_dll_close(library, words.text(0)); });
        on("free", [this](auto &) { return cm_dlls_free(library); });
        on("stop", [this](auto &) { library.stop(); });
    }
    int16_t find(const Words &words, decltype(cm_dll_lookup) look_up) {
        void *found = &found;
        const string function = words[1].substr(0, 1) + file(words[1].substr(words[1].empty() ? 0 : 1));
        const int16_t result = look_up(library, words.text(0), function.c_str(), &found);
        EXPECT_EQ(result == 1, found != nullptr);
        return result;
    }
    static string file(const string &name) { return kNames.count(name) > 0 ? kNames.at(name) : name; }
    string step(const string &words) { return run(Words(words)); }

    inline static const std::map<string, string> kNames = {{"CRYPTO", kTlsLibraries[0].crypto},
                                                           {"TLS", kTlsLibraries[0].tls},
                                                           {"OLDCRYPTO", kTlsLibraries[1].crypto},
                                                           {"OLDTLS", kTlsLibraries[1].tls}};
    Library library;
    std::set<string> files, kept;
    std::mutex mutex;
    std::multiset<string> open;
    const Replace<&Table::library_open> opens{[this](const char *name) -> void * {
        const std::lock_guard lock(mutex);
        const auto found = files.find(name);
        if (found != files.end()) open.insert(name);
        return found == files.end() ? nullptr : const_cast<string *>(&*found);
    }};
    const Replace<&Table::library_symbol> finds{
        [](void *handle, const char *name) { return "f" + *static_cast<string *>(handle) == name ? handle : nullptr; }};
    const Replace<&Table::library_close> closes{[this](void *handle) {
        const std::lock_guard lock(mutex);
        open.erase(open.find(*static_cast<string *>(handle)));
    }};
};
SCENARIOS(LibraryScenarios, Libraries, "process/libraries");

TEST(Library, ThatIsReal) {
    const Library lib;
    const char *const name = kFoldsPathCase ? "kernel32.dll" : "libz.so.1";
    void *found = nullptr;
    EXPECT_EQ(cm_dll_lookup(lib, name, kFoldsPathCase ? "Sleep" : "zlibVersion", &found), 1);
    EXPECT_EQ(cm_dll_lookup(lib, name, "no_such_function", &found), 0);
    EXPECT_EQ(cm_dll_lookup(lib, "no-such-library", "f", &found), 0);
    EXPECT_EQ(cm_dll_lookup(lib, nullptr, "f", &found) + cm_dll_lookup(nullptr, name, "zlibVersion", &found), 0);
}

TEST(Library, OneHandleForManyThreadsAndEveryFailure) {
    Libraries world;
    world.step("files one CRYPTO TLS");
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (waiting++; waiting < 4;) cm::platform::os.thread_yield();
            for (int round = 0; round < 200; round++) EXPECT_EQ(world.step("find one fone"), "1");
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(world.step("find ONE fone"), kFoldsPathCase ? "1" : "0");
    EXPECT_EQ(world.step("open"), "one");
    world.step("free");
    bool found = false;
    each_failure(
        Faults::kAllocations | Faults::kLibraries,
        [&] {
            found = world.step("find one fone") == "1" && world.step("find ssleay32.dll fTLS") == "1";
            world.step("free");
        },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(found || injected);
            EXPECT_EQ(world.step("open"), "");
            EXPECT_EQ(leaked, 0u);
        });
}

}  // namespace
