// Key tables and lists.
#include <sstream>

#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"

namespace {

using cm::platform::Lock;
using cm::platform::Table;
using cm::test::captured_standard_error;
using cm::test::Faults;
using cm::test::LeakCheck;
using cm::test::Replace;
using cm::test::Row;
using cm::test::rows;

std::vector<cm_value> destroyed;
void CM_CALL destroy(cm_value value) {
    destroyed.push_back(value);
}

class Containers : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam()) {
            ASSERT_EQ(cm_mem_init(nullptr, &pool_, 256), 1);
        }
        destroyed.clear();
        ASSERT_EQ(cm_key_alloc(nullptr, pool_, nullptr, &keys_), 1);
        ASSERT_EQ(cm_list_alloc(nullptr, pool_, &list_), 1);
    }
    void TearDown() override {
        EXPECT_EQ(cm_key_free(keys_, destroy), 1);
        EXPECT_EQ(cm_list_free(list_, destroy), 1);
        EXPECT_EQ(destroyed, left_);
        cm_mem_exit(pool_);
        EXPECT_EQ(leaks_.outstanding(), 0u);
    }
    // The value found or removed, 1 for one set, -1 for a failure.
    long run(const std::string &call, const std::string &key, cm_value value = 0) {
        const int32_t operation = call == "set" ? CM_OP_SET : call == "find" ? CM_OP_FIND : CM_OP_DELETE;
        cm_value out = 77;
        if (operation != CM_OP_SET) value = CM_OUT(&out);
        if (cm_key_entry(keys_, operation, key.data(), static_cast<int32_t>(key.size()), value))
            return operation == CM_OP_SET ? 1 : static_cast<long>(out);
        EXPECT_EQ(out, operation == CM_OP_FIND ? 0u : 77u);
        return -1;
    }
    long read(int32_t operation, int32_t cursor = 0) {
        cm_value value = 77;
        if (cm_list_entry(list_, operation, cursor, CM_OUT(&value))) return static_cast<long>(value);
        EXPECT_EQ(value, 77u) << "a failure leaves the value alone";
        return -1;
    }

    LeakCheck leaks_;
    cm_mem_pool *pool_ = nullptr;
    cm_keytab *keys_ = nullptr;
    cm_list *list_ = nullptr;
    std::vector<cm_value> left_;  // what the end destroys
};

INSTANTIATE_TEST_SUITE_P(Where, Containers, testing::Bool(),
                         [](const auto &where) { return where.param ? "InAPool" : "OnTheHeap"; });

TEST_P(Containers, KeyOperations) {
    for (const Row &row : rows("core/keys")) {
        std::istringstream keys(row[1]);
        std::string results;
        for (std::string key; keys >> key;) {
            const long result = run(row[0], key == "." ? "" : key, row.fields.size() > 3 ? cm_value(row.number(3)) : 0);
            results += (results.empty() ? "" : " ") + (result < 0 ? "-" : std::to_string(result));
        }
        EXPECT_EQ(results, row[2]) << row.where;
    }
    EXPECT_EQ(captured_standard_error([&] {
                  for (const int32_t operation : {0, 4, 7}) EXPECT_EQ(cm_key_entry(keys_, operation, "a", 1, 0), 0);
                  for (const int32_t length : {-1, -2, -4})
                      EXPECT_EQ(cm_key_entry(keys_, CM_OP_SET, "a", length, 0), 0);
                  EXPECT_EQ(cm_key_entry(keys_, CM_OP_FIND, "a", CM_LEN_TEXT, 0), 1);
              }),
              "");
    left_ = {8, 3};  // newest first
}

TEST_P(Containers, SpareEntriesKeepBuffersOfLongerKeys) {
    run("set", "sixsix", 1);
    const char *const first = keys_->head->key;
    run("delete", "sixsix");
    ASSERT_EQ(keys_->spare != nullptr, pool_ != nullptr);
    if (pool_ == nullptr) return;
    run("set", "two", 2);
    EXPECT_EQ(keys_->head->key, first);
    EXPECT_EQ(keys_->spare, nullptr);
    run("delete", "two");
    run("set", "four", 4);
    EXPECT_NE(keys_->head->key, first) << "measured by the last key, not by the buffer";
    EXPECT_EQ(run("find", "four"), 4);
    left_ = {4};
}

TEST_P(Containers, ListIsReadNewestFirst) {
    EXPECT_EQ(read(CM_OP_FIRST), -1);
    for (cm_value value = 1; value <= 3; value++) EXPECT_EQ(cm_list_entry(list_, CM_LIST_ADD, 99, value), 1);
    EXPECT_EQ(read(CM_OP_NEXT), -1) << "a fresh cursor is at the end";
    EXPECT_EQ(read(CM_OP_FIRST), 3);
    EXPECT_EQ(read(CM_OP_FIRST, 3), 3);
    EXPECT_EQ(read(CM_OP_NEXT), 2);
    EXPECT_EQ(cm_list_entry(list_, CM_LIST_ADD, 0, 4), 1);
    EXPECT_EQ(read(CM_OP_NEXT), 1);
    EXPECT_EQ(read(CM_OP_NEXT), -1);
    EXPECT_EQ(read(CM_OP_NEXT, 3), 2);
    for (const int32_t cursor : {-1, 4, INT32_MAX, INT32_MIN}) EXPECT_EQ(read(CM_OP_FIRST, cursor), -1);
    for (const int32_t operation : {0, 1, 3, 6}) EXPECT_EQ(read(operation), -1);
    left_ = {4, 3, 2, 1};
}

TEST(KeyTable, EveryOperationHoldsTheLock) {
    cm_mutex *lock = nullptr;
    cm_keytab *keys = nullptr;
    ASSERT_EQ(cm_create_mutex(nullptr, &lock), 1);
    ASSERT_EQ(cm_key_alloc(nullptr, nullptr, lock, &keys), 1);
    std::string held;
    {
        const Replace<&Table::lock_acquire> acquire([&](Lock *) { held += "("; });
        const Replace<&Table::lock_release> release([&](Lock *) { held += ")"; });
        cm_key_entry(keys, CM_OP_SET, "a", 1, 1);
        for (const int32_t operation : {CM_OP_FIND, CM_OP_DELETE, CM_OP_DELETE, 9})
            cm_key_entry(keys, operation, "a", 1, 0);
    }
    EXPECT_EQ(held, "()()()()()");
    EXPECT_EQ(cm_key_free(keys, nullptr), 1);
    EXPECT_EQ(cm_delete_mutex(lock), 1);
}

TEST(KeyTable, FailuresOfMemory) {
    const std::string no_memory = "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n";
    LeakCheck leaks;
    const cm::test::StandardErrorCapture capture;
    cm::test::each_failure(
        Faults::kAllocations,
        [] {
            cm_keytab *keys = nullptr;
            cm_list *list = nullptr;
            if (cm_key_alloc(nullptr, nullptr, nullptr, &keys)) {
                const int16_t set = cm_key_entry(keys, CM_OP_SET, "a", 1, 1);
                EXPECT_EQ(cm_key_entry(keys, CM_OP_FIND, "a", 1, 0), set);
                EXPECT_EQ(cm_key_free(keys, nullptr), 1);
            }
            if (cm_list_alloc(nullptr, nullptr, &list)) {
                const int16_t added = cm_list_entry(list, CM_LIST_ADD, 0, 1);
                EXPECT_EQ(list->count, added);
                EXPECT_EQ(cm_list_free(list, nullptr), 1);
            }
        },
        [&](bool) { EXPECT_EQ(leaks.outstanding(), 0u); });
    EXPECT_EQ(capture.text(), no_memory + "Tilvar Server Error: cm_key_alloc(): MALLOC() of 20 bytes failed.\n" +
                                  no_memory + no_memory + no_memory + no_memory);
}

}  // namespace
