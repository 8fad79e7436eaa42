// Key tables and lists.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/support.h"

namespace {

using cm::test::captured_standard_error;
using cm::test::Faults;
using cm::test::LeakCheck;

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
        EXPECT_EQ(cm_key_free(keys_, nullptr), 1);
        EXPECT_EQ(cm_list_free(list_, nullptr), 1);
        cm_mem_exit(pool_);
    }
    int16_t set(const std::string &key, cm_value value) {
        return cm_key_entry(keys_, CM_OP_SET, key.data(), static_cast<int32_t>(key.size()), value);
    }
    long find(const std::string &key) {
        cm_value value = 77;
        const auto length = static_cast<int32_t>(key.size());
        if (cm_key_entry(keys_, CM_OP_FIND, key.data(), length, CM_OUT(&value))) return static_cast<long>(value);
        EXPECT_EQ(value, 0u);
        return -1;
    }
    long remove(const std::string &key) {
        cm_value value = 0;
        const auto length = static_cast<int32_t>(key.size());
        return cm_key_entry(keys_, CM_OP_DELETE, key.data(), length, CM_OUT(&value)) ? static_cast<long>(value) : -1;
    }
    long read(int32_t operation, int32_t cursor = 0) {
        cm_value value = 77;
        if (cm_list_entry(list_, operation, cursor, CM_OUT(&value))) return static_cast<long>(value);
        EXPECT_EQ(value, 77u) << "a failure leaves the value alone";
        return -1;
    }

    cm_mem_pool *pool_ = nullptr;
    cm_keytab *keys_ = nullptr;
    cm_list *list_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Where, Containers, testing::Bool(),
                         [](const auto &where) { return where.param ? "InAPool" : "OnTheHeap"; });

TEST_P(Containers, KeyOperations) {
    EXPECT_EQ(find("a"), -1);
    EXPECT_EQ(set("a", 1), 1);
    EXPECT_EQ(set("bb", 2), 1);
    EXPECT_EQ(set("a", 3), 1);
    EXPECT_EQ(find("a"), 3);
    EXPECT_EQ(find("A"), -1);
    EXPECT_EQ(keys_->head->next->next, nullptr) << "no second entry for a known key";
    EXPECT_STREQ(keys_->head->key, "bb") << "newest first";
    EXPECT_EQ(set(std::string("a\0b", 3), 4), 1);
    EXPECT_EQ(find(std::string("a\0b", 3)), 4);
    EXPECT_EQ(find(std::string("a\0c", 3)), -1);
    EXPECT_EQ(cm_key_entry(keys_, CM_OP_FIND, "a", CM_LEN_TEXT, 0), 1);
    EXPECT_EQ(remove("bb"), 2) << "from the middle";
    EXPECT_EQ(remove("bb"), -1);
    EXPECT_EQ(remove(std::string("a\0b", 3)), 4);
    EXPECT_EQ(remove("a"), 3);
    EXPECT_EQ(keys_->head, nullptr);
    EXPECT_EQ(captured_standard_error([&] {
                  for (const int32_t operation : {0, 4, 7}) EXPECT_EQ(cm_key_entry(keys_, operation, "a", 1, 0), 0);
                  for (const int32_t length : {-1, -2, -4})
                      EXPECT_EQ(cm_key_entry(keys_, CM_OP_SET, "a", length, 0), 0) << length;
              }),
              "");
}

TEST_P(Containers, EmptyKeyIsAKey) {
    EXPECT_EQ(set("", 5), 1);
    EXPECT_EQ(find(""), 5);
    EXPECT_EQ(remove(""), 5);
    EXPECT_EQ(set("", 6), 1) << "in an entry without a buffer";
    EXPECT_EQ(remove(""), 6);
    EXPECT_EQ(set("longer", 7), 1);
    EXPECT_EQ(find("longer"), 7);
    EXPECT_EQ(remove("longer"), 7);
    EXPECT_EQ(set("", 8), 1) << "in an entry with one";
    EXPECT_EQ(find(""), 8);
    EXPECT_EQ(find("longer"), -1);
}

TEST_P(Containers, SpareEntriesKeepBuffersOfLongerKeys) {
    set("sixsix", 1);
    const char *const first = keys_->head->key;
    remove("sixsix");
    ASSERT_EQ(keys_->spare != nullptr, pool_ != nullptr);
    if (pool_ == nullptr) return;
    set("two", 2);
    EXPECT_EQ(keys_->head->key, first);
    EXPECT_EQ(keys_->spare, nullptr);
    remove("two");
    set("four", 4);
    EXPECT_NE(keys_->head->key, first) << "measured by the last key, not by the buffer";
    EXPECT_EQ(find("four"), 4);
}

TEST_P(Containers, ListIsReadNewestFirst) {
    EXPECT_EQ(read(CM_OP_FIRST), -1);
    EXPECT_EQ(read(CM_OP_NEXT), -1);
    for (cm_value value = 1; value <= 3; value++) EXPECT_EQ(cm_list_entry(list_, CM_LIST_ADD, 99, value), 1);
    EXPECT_EQ(read(CM_OP_NEXT), -1) << "a fresh cursor is at the end";
    EXPECT_EQ(read(CM_OP_FIRST), 3);
    EXPECT_EQ(read(CM_OP_FIRST, 3), 3);
    EXPECT_EQ(read(CM_OP_NEXT), 2);
    EXPECT_EQ(cm_list_entry(list_, CM_LIST_ADD, 0, 4), 1);
    EXPECT_EQ(read(CM_OP_NEXT), 1);
    EXPECT_EQ(read(CM_OP_NEXT), -1);
    EXPECT_EQ(read(CM_OP_NEXT, 3), 2);
    EXPECT_EQ(list_->count, 4);
    for (const int32_t cursor : {-1, 4, INT32_MAX, INT32_MIN}) EXPECT_EQ(read(CM_OP_FIRST, cursor), -1);
    for (const int32_t operation : {0, 1, 3, 6}) EXPECT_EQ(read(operation), -1);
}

TEST_P(Containers, FreeDestroysWhatIsInIt) {
    LeakCheck leaks;
    cm_keytab *keys = nullptr;
    cm_list *list = nullptr;
    ASSERT_EQ(cm_key_alloc(nullptr, pool_, nullptr, &keys), 1);
    ASSERT_EQ(cm_list_alloc(nullptr, pool_, &list), 1);
    for (const char *key : {"a", "b", "c"}) cm_key_entry(keys, CM_OP_SET, key, 1, 10);
    cm_key_entry(keys, CM_OP_DELETE, "b", 1, 0);
    for (cm_value value = 1; value <= 3; value++) cm_list_entry(list, CM_LIST_ADD, 0, value);
    EXPECT_EQ(cm_key_free(keys, destroy), 1);
    EXPECT_EQ(cm_list_free(list, destroy), 1);
    EXPECT_EQ(destroyed, (std::vector<cm_value>{10, 10, 3, 2, 1}));
    if (pool_ == nullptr) {
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
}

TEST(KeyTable, EveryOperationHoldsTheLock) {
    cm_mutex *lock = nullptr;
    ASSERT_EQ(cm_create_mutex(nullptr, &lock), 1);
    cm_keytab *keys = nullptr;
    ASSERT_EQ(cm_key_alloc(nullptr, nullptr, lock, &keys), 1);
    static int depth, deepest;
    depth = deepest = 0;
    const cm::platform::Table saved = cm::platform::os;
    static cm::platform::Table below;
    below = saved;
    cm::platform::os.lock_acquire = [](cm::platform::Lock *held) {
        below.lock_acquire(held);
        deepest += ++depth == 1;
    };
    cm::platform::os.lock_release = [](cm::platform::Lock *held) { depth--, below.lock_release(held); };
    cm_key_entry(keys, CM_OP_SET, "a", 1, 1);
    for (const int32_t operation : {CM_OP_FIND, CM_OP_DELETE, 9}) cm_key_entry(keys, operation, "a", 1, 0);
    cm_key_entry(keys, CM_OP_DELETE, "gone", 4, 0);
    cm::platform::os = saved;
    EXPECT_EQ(deepest, 5);
    EXPECT_EQ(depth, 0);
    EXPECT_EQ(cm_key_free(keys, nullptr), 1);
    EXPECT_EQ(cm_delete_mutex(lock), 1);
}

TEST(KeyTable, FailuresOfMemory) {
    const std::string no_memory = "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n";
    LeakCheck leaks;
    for (int k = 1;; k++) {
        Faults faults(Faults::kAllocations, k);
        const std::string told = captured_standard_error([] {
            cm_keytab *keys = nullptr;
            cm_list *list = nullptr;
            if (cm_key_alloc(nullptr, nullptr, nullptr, &keys)) {
                if (!cm_key_entry(keys, CM_OP_SET, "a", 1, 1)) {
                    EXPECT_EQ(cm_key_entry(keys, CM_OP_FIND, "a", 1, 0), 0);
                }
                EXPECT_EQ(cm_key_free(keys, nullptr), 1);
            }
            if (cm_list_alloc(nullptr, nullptr, &list)) {
                const int16_t added = cm_list_entry(list, CM_LIST_ADD, 0, 1);
                EXPECT_EQ(list->count, added);
                EXPECT_EQ(cm_list_free(list, nullptr), 1);
            }
        });
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        const std::string table = "Tilvar Server Error: cm_key_alloc(): MALLOC() of 20 bytes failed.\n";
        EXPECT_EQ(told, faults.injected() == 0 ? "" : k == 1 ? no_memory + table : no_memory) << k;
        if (faults.injected() == 0) break;
    }
}

}  // namespace
