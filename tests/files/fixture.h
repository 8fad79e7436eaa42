// A context with what files need of it and nothing more: a root, a pool and the file mutex.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/cmthread.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"
#include "tilvarcm.h"

namespace cm::test {

using platform::Error;
using platform::os;
using platform::Table;
using Strings = std::vector<std::string>;

// A folder, and what was reported.
struct FileFolder {
    std::string path(std::string_view name) const { return folder.path(name); }
    // What was reported since the last call; without a log every message goes to the standard error stream.
    std::string errors() {
        const std::string all = captured.text();
        const std::string fresh = all.substr(seen);
        seen = all.size();
        return fresh;
    }

    TempFolder folder;
    StandardErrorCapture captured;
    size_t seen = 0;
};

struct FileContext : FileFolder {
    FileContext() {
        ctx->trace_level = CM_INFO;
        ctx->log_size = 10000;
        ctx->root_dir = root_folder.c_str();
        ctx->root_len = static_cast<int32_t>(root_folder.size());
        ctx->log_dir = "log";
        EXPECT_EQ(1, cm_mem_init(ctx, &ctx->common_pool, 1024));
        EXPECT_EQ(1, cm_create_mutex(ctx, &ctx->file_mutex));
        folder.make_folder("log");
    }
    ~FileContext() {
        cm_delete_mutex(ctx->file_mutex);
        cm_mem_exit(ctx->common_pool);
    }

    const std::unique_ptr<cm_context> context = std::make_unique<cm_context>();
    cm_context *const ctx = context.get();
    const std::string root_folder = folder.absolute();
};

class Files : public testing::Test, protected FileFolder {};
class FilesWithContext : public testing::Test, protected FileContext {};

}  // namespace cm::test
