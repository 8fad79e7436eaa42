// The steps that all scenarios of files know.  Names are relative to a folder of their own: "" is that folder itself,
// "-" a null pointer, "^N" a folder whose path has N bytes.
//     put NAME TEXT, cat NAME, ls [FOLDER], make FOLDER, rm NAME       by other means than the library's
//     link TEXT NAME, twin TO NAME     a symbolic link with this text, a second name
//     mode NAME [MODE]                 the permissions
//     calls STEP                       what the step changes, in order, as CallRecorder has it
//     without-links, without-renames, without-listings, without-status, without-opens STEP
//                                      this call of the system fails during the step
//     open-files                       how many the context counts
// What is told on the standard error stream stands behind the result of its step, with "@" for the folder.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/cmthread.h"
#include "support/failures.h"
#include "support/replace.h"
#include "support/scenario.h"
#include "tilvarcm.h"

namespace cm::test {

using platform::Error;
using platform::Table;

inline std::string joined(const Strings &words) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// A context with what files need of it and nothing more: a root, a pool and the file mutex.
class FilesWorld : public World {
protected:
    FilesWorld() {
        context->trace_level = CM_INFO;
        context->log_size = 10000;
        context->root_dir = root_path.c_str();
        context->root_len = static_cast<int32_t>(root_path.size());
        context->log_dir = "log";
        EXPECT_EQ(1, cm_mem_init(ctx, &ctx->common_pool, 1024));
        EXPECT_EQ(1, cm_create_mutex(ctx, &ctx->file_mutex));
        clock.set_zone(0);
        on("put", [this](auto &words) { folder.write(relative(words[0]), words.rest(1)); });
        on("cat", [this](auto &words) { return folder.read(relative(words[0])); });
        on("ls", [this](auto &words) { return joined(folder.names(relative(words[0]))); });
        on("make", [this](auto &words) { folder.make_folder(relative(words[0])); });
        on("rm", [this](auto &words) { folder.remove(relative(words[0])); });
        on("link", [this](auto &words) {
            std::error_code error;
            std::filesystem::create_symlink(words[0], at(words[1]).text, error);
            return !error;
        });
        on("twin", [this](auto &words) { return os.path_link(at(words[0]), at(words[1])) == 0; });
        on("mode", [this](auto &words) {
            platform::FileStatus status = {};
            if (words.count() > 1) return std::to_string(os.path_set_mode(at(words[0]), words.number(1) & 0777) == 0);
            EXPECT_EQ(0, os.path_status(at(words[0]), true, &status));
            char text[16];
            snprintf(text, sizeof text, "%04o", status.mode & 0777u);
            return std::string(text);
        });
        on("calls", [this](auto &words) {
            const CallRecorder calls(folder.path() + "/");
            EXPECT_EQ("1", run(words));
            return calls.text();
        });
        breaks<&Table::path_link>("without-links");
        breaks<&Table::path_rename>("without-renames");
        breaks<&Table::path_status>("without-status");
        breaks<&Table::file_open>("without-opens");
        breaks<&Table::directory_open>("without-listings");
        on("open-files", [this](auto &) { return context->file_open; });
    }
    ~FilesWorld() override {
        cm_delete_mutex(context->file_mutex);
        cm_mem_exit(context->common_pool);
        EXPECT_EQ(0u, leaks.outstanding());
    }

    template <auto kEntry>
    void breaks(const char *verb) {
        on(verb, [this](auto &words) {
            const Replace<kEntry> broken([](auto...) { return CM_EACCES; });
            return run(words);
        });
    }
    template <class Result>
    void takes_path(const char *verb, Result(CM_CALL *function)(const char *)) {
        on(verb, [=, this](auto &words) { return function(at(words[0])); });
    }

    struct Path {
        std::string text;
        bool null;
        operator const char *() const { return null ? nullptr : text.c_str(); }
    };
    Path at(const std::string &word) const { return {folder.path(relative(word)), word == "-"}; }
    std::string relative(const std::string &word) const {
        if (word[0] != '^') return word;
        const size_t slash = std::min(word.find('/'), word.size()), length = strtoul(&word[1], nullptr, 10);
        const std::string parent = std::string(200, 'd') + "/";
        return parent + std::string(length - folder.path(parent).size(), 'e') + word.substr(slash);
    }

    // What was told since the last call, of any thread.
    std::string told() {
        const std::lock_guard guard(telling);
        const std::string all = captured.text();
        return all.substr(std::exchange(seen, all.size()));
    }
    std::string shown(std::string result) override {
        if (const std::string more = told(); !more.empty()) result += (result.empty() ? "" : " ") + more;
        for (const std::string &path : {folder.absolute(), folder.path()})
            for (size_t found; (found = result.find(path)) != result.npos;) result.replace(found, path.size(), "@");
        return result;
    }

    LeakCheck leaks;
    FrozenClock clock{1000000000};
    TempFolder folder;
    StandardErrorCapture captured;
    const std::string root_path = folder.absolute();
    const std::unique_ptr<cm_context> context = std::make_unique<cm_context>();
    cm_context *ctx = context.get();
    std::mutex telling;
    size_t seen = 0;  // guarded by it
    // Names of temporary files count up.
    unsigned char drawn = 0;
    const Replace<&Table::random_bytes> names{[this](void *out, size_t count) {
        memset(out, 0, count);
        static_cast<unsigned char *>(out)[count - 1] = ++drawn;
        return true;
    }};
};

}  // namespace cm::test
