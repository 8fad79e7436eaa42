// Circular buffers against a deque, and their edges.
#include <gtest/gtest.h>

#include <climits>
#include <deque>
#include <random>
#include <string>

#include "support/support.h"

using namespace cm::test;
using std::string;

namespace {

string drained(cm_cbuf *buffer, int32_t length) {
    string text(static_cast<size_t>(length), '#');
    int32_t got = -1;
    EXPECT_EQ(cm_cbuf_get(buffer, text.data(), length, &got), 1);
    text.resize(static_cast<size_t>(got));
    return text;
}

TEST(CircularBuffer, BehavesLikeADeque) {
    std::mt19937 random(7);
    for (const int32_t size : {1, 2, 7, 64}) {
        cm_cbuf *buffer = nullptr;
        ASSERT_EQ(cm_cbuf_alloc(nullptr, nullptr, size, &buffer), 1);
        std::deque<char> model;
        char next = 0;
        for (int step = 0; step < 20000; step++) {
            const auto length = static_cast<int32_t>(random() % (static_cast<uint32_t>(size) + 3));
            string text(static_cast<size_t>(length), '#');
            int32_t count = -1;
            switch (random() % 8) {
                default:
                    for (char &c : text) c = ++next;
                    ASSERT_EQ(cm_cbuf_put(buffer, text.data(), length, &count), 1);
                    ASSERT_EQ(count, std::min<int32_t>(length, size - static_cast<int32_t>(model.size())));
                    model.insert(model.end(), text.begin(), text.begin() + count);
                    break;
                case 4:
                case 5:
                case 6:
                    ASSERT_EQ(cm_cbuf_get(buffer, text.data(), length, &count), 1);
                    ASSERT_EQ(count, std::min<int32_t>(length, static_cast<int32_t>(model.size())));
                    ASSERT_TRUE(std::equal(text.begin(), text.begin() + count, model.begin()));
                    model.erase(model.begin(), model.begin() + count);
                    break;
                case 7:
                    ASSERT_EQ(cm_cbuf_peek(buffer, text.data(), length, &count), 1);
                    ASSERT_TRUE(std::equal(text.begin(), text.begin() + count, model.begin()));
            }
            ASSERT_EQ(cm_cbuf_used(buffer), static_cast<int32_t>(model.size()));
            ASSERT_EQ(cm_cbuf_room(buffer), size - static_cast<int32_t>(model.size()));
        }
        EXPECT_EQ(cm_cbuf_reset(buffer), 1);
        EXPECT_EQ(cm_cbuf_used(buffer), 0);
        EXPECT_EQ(drained(buffer, 5), "");
        EXPECT_EQ(cm_cbuf_free(buffer), 1);
    }
}

TEST(CircularBuffer, LengthsAndArguments) {
    const LeakCheck leaks;
    cm_cbuf *buffer = reinterpret_cast<cm_cbuf *>(1);
    for (const int32_t size : {0, -1, CM_LEN_TEXT}) {
        EXPECT_EQ(cm_cbuf_alloc(nullptr, nullptr, size, &buffer), 0);
        EXPECT_EQ(buffer, nullptr);
    }
    int32_t count = -1;
    EXPECT_EQ(cm_cbuf_put(nullptr, "x", 1, &count), 0);
    EXPECT_EQ(count, 0);
    ASSERT_EQ(cm_cbuf_alloc(nullptr, nullptr, 8, &buffer), 1);
    EXPECT_EQ(cm_cbuf_put(buffer, "text", CM_LEN_TEXT, &count), 1);
    EXPECT_EQ(count, 4);
    for (const int32_t length : {-1, -4, INT_MIN}) EXPECT_EQ(cm_cbuf_put(buffer, "x", length, &count), 0) << length;
    char out[4];
    for (const int32_t length : {-1, CM_LEN_TEXT}) EXPECT_EQ(cm_cbuf_get(buffer, out, length, &count), 0) << length;
    EXPECT_EQ(cm_cbuf_put(buffer, nullptr, 1, &count), 0);
    EXPECT_EQ(cm_cbuf_get(buffer, nullptr, 1, &count), 0);
    EXPECT_EQ(cm_cbuf_put(buffer, nullptr, 0, nullptr), 1);
    string much(100000, 'm');
    EXPECT_EQ(cm_cbuf_put(buffer, much.data(), INT_MAX, &count), 1);  // takes what fits, reads no more
    EXPECT_EQ(count, 4);
    EXPECT_EQ(drained(buffer, 100), "textmmmm");
    EXPECT_EQ(cm_cbuf_free(buffer), 1);
    const Faults none(Faults::kAllocations, 1);
    EXPECT_EQ(cm_cbuf_alloc(nullptr, nullptr, 8, &buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST(CircularBuffer, InAPool) {
    cm_mem_pool *pool = nullptr;
    cm_cbuf *buffer = nullptr;
    ASSERT_EQ(cm_mem_init(nullptr, &pool, 1024), 1);
    ASSERT_EQ(cm_cbuf_alloc(nullptr, pool, 5000, &buffer), 1);
    EXPECT_EQ(cm_cbuf_put(buffer, string(6000, 'p').data(), 6000, nullptr), 1);
    EXPECT_EQ(drained(buffer, 6000), string(5000, 'p'));
    EXPECT_EQ(cm_cbuf_free(buffer), 1);
    EXPECT_EQ(cm_mem_exit(pool), 1);
}

}  // namespace
