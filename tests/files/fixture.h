// A context with what files need of it and nothing more: a root, a pool and the file mutex.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
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

}  // namespace cm::test
