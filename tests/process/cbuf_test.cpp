// Circular buffers against a text that grows and shrinks, and their edges.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>

#include "support/support.h"

using namespace cm::test;
using std::string;

namespace {

TEST(CircularBuffer, GivesBackWhatWasPutInOrder) {
    std::mt19937 random(7);
    cm_mem_pool *pool = nullptr;
    ASSERT_EQ(cm_mem_init(nullptr, &pool, 1024), 1);
    for (const int32_t size : {1, 2, 7, 64, 5000}) {
        cm_cbuf *buffer = nullptr;
        ASSERT_EQ(cm_cbuf_alloc(nullptr, size < 7 ? nullptr : pool, size, &buffer), 1);
        string model;
        for (int step = 0; step < 20000; step++) {
            string text(random() % (static_cast<uint32_t>(size) + 3), '#');
            const auto length = static_cast<int32_t>(text.size()), room = size - static_cast<int32_t>(model.size());
            const auto what = random() % 8;
            int32_t count = -1;
            if (what < 4) {
                for (char &c : text) c = static_cast<char>(random());
                ASSERT_EQ(cm_cbuf_put(buffer, text.data(), length, &count), 1);
                ASSERT_EQ(count, std::min(length, room));
                model += text.substr(0, static_cast<size_t>(count));
            } else {
                ASSERT_EQ((what == 4 ? cm_cbuf_peek : cm_cbuf_get)(buffer, text.data(), length, &count), 1);
                ASSERT_EQ(text.substr(0, static_cast<size_t>(count)), model.substr(0, text.size()));
                if (what != 4) model.erase(0, text.size());
            }
            ASSERT_EQ(cm_cbuf_used(buffer), static_cast<int32_t>(model.size()));
            ASSERT_EQ(cm_cbuf_room(buffer), size - static_cast<int32_t>(model.size()));
        }
        EXPECT_EQ(cm_cbuf_reset(buffer), 1);
        EXPECT_EQ(cm_cbuf_used(buffer), 0);
        EXPECT_EQ(cm_cbuf_free(buffer), 1);
    }
    EXPECT_EQ(cm_mem_exit(pool), 1);
}

TEST(CircularBuffer, LengthsThatAreNone) {
    const LeakCheck leaks;
    cm_cbuf *buffer = nullptr;
    for (const int32_t size : {0, -1, CM_LEN_TEXT}) EXPECT_EQ(cm_cbuf_alloc(nullptr, nullptr, size, &buffer), 0);
    ASSERT_EQ(cm_cbuf_alloc(nullptr, nullptr, 8, &buffer), 1);
    int32_t count = -1;
    EXPECT_EQ(cm_cbuf_put(buffer, "text", CM_LEN_TEXT, &count), 1);
    EXPECT_EQ(count, 4);
    char out[4];
    for (const int32_t length : {-1, -4, INT_MIN}) {
        EXPECT_EQ(cm_cbuf_put(buffer, "x", length, &count), 0);
        EXPECT_EQ(cm_cbuf_get(buffer, out, length, &count), 0);
        EXPECT_EQ(count, 0);
    }
    EXPECT_EQ(cm_cbuf_put(buffer, nullptr, 1, nullptr), 0);
    EXPECT_EQ(cm_cbuf_put(nullptr, "x", 1, nullptr), 0);
    EXPECT_EQ(cm_cbuf_put(buffer, "much", INT_MAX, &count), 1);  // reads no more than fits
    EXPECT_EQ(count, 4);
    EXPECT_EQ(cm_cbuf_free(buffer), 1);
    const Faults none(Faults::kAllocations, 1);
    EXPECT_EQ(cm_cbuf_alloc(nullptr, nullptr, 8, &buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(leaks.outstanding(), 0u);
}

}  // namespace
