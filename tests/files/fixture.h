// A context with what files need of it and nothing more: a root, a pool and the file mutex.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/cmthread.h"
#include "platform/platform.h"
#include "support/support.h"
#include "tilvarcm.h"

namespace cm::test {

using platform::os;

class Files : public testing::Test {
protected:
    std::string path(std::string_view name) const { return folder.path(name); }
    // What was reported since the last call; without a log every message goes to the standard error stream.
    std::string errors() {
        const std::string all = captured.text();
        const std::string fresh = all.substr(seen_);
        seen_ = all.size();
        return fresh;
    }

    TempFolder folder;
    StandardErrorCapture captured;

private:
    size_t seen_ = 0;
};

class FilesWithContext : public Files {
protected:
    FilesWithContext() : root_(folder.absolute()) {
        ctx = static_cast<cm_context *>(std::calloc(1, sizeof *ctx));
        ctx->trace_level = CM_INFO;
        ctx->log_size = 10000;
        ctx->root_dir = root_.c_str();
        ctx->root_len = static_cast<int32_t>(root_.size());
        ctx->log_dir = "log";
        EXPECT_EQ(1, cm_mem_init(ctx, &ctx->common_pool, 1024));
        EXPECT_EQ(1, cm_create_mutex(ctx, &ctx->file_mutex));
        folder.make_folder("log");
    }
    ~FilesWithContext() override {
        cm_delete_mutex(ctx->file_mutex);
        cm_mem_exit(ctx->common_pool);
        std::free(ctx);
    }

    cm_context *ctx = nullptr;

private:
    std::string root_;
};

// Replaces one entry of the table for a scope.
template <class Entry>
class Replaced {
public:
    Replaced(Entry &entry, Entry with) : entry_(entry), saved_(entry) { entry = with; }
    ~Replaced() { entry_ = saved_; }
    Replaced(const Replaced &) = delete;
    Replaced &operator=(const Replaced &) = delete;

private:
    Entry &entry_;
    Entry saved_;
};

}  // namespace cm::test
