// Look-ups through the system, with its answers replaced.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/platform.h"

using cm::platform::os;

namespace {

class Resolver : public testing::Test {
protected:
    void SetUp() override {
        asked_ = 0;
        os.host_by_name = [](const char *, uint32_t out[4], int32_t *count) -> cm::platform::Error {
            asked_++;
            for (uint32_t i = 0; i < 4; i++) out[i] = i + 1;
            *count = found_;
            return error_;
        };
        os.host_by_address = [](uint32_t, char *out, size_t size) -> cm::platform::Error {
            cm_strncpy(out, std::string(100, 'n').c_str(), int32_t(size));
            return error_;
        };
    }
    void TearDown() override { os = cm::platform::kSystem; }

    bool look_up(const char *name, bool local_only = false) {
        memset(found, 0, sizeof found);
        return cm_dns_gethostaddr(nullptr, name, local_only, 0, &found[0], &found[1], &found[2], &found[3]) != 0;
    }

    uint32_t found[4];
    static inline int asked_ = 0;
    static inline int32_t found_ = 2;
    static inline cm::platform::Error error_ = 0;
};

TEST_F(Resolver, TakesWhatTheSystemFinds) {
    ASSERT_TRUE(look_up("a.host"));
    EXPECT_EQ(found[0], 1u);
    EXPECT_EQ(found[1], 2u);
    EXPECT_EQ(found[2], CM_INADDR_NONE);
    EXPECT_EQ(found[3], CM_INADDR_NONE);
    uint32_t first = 0;
    EXPECT_EQ(cm_dns_gethostaddr(nullptr, "a.host", 0, 0, &first, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(first, 1u);
    error_ = CM_EHOSTUNREACH;
    EXPECT_FALSE(look_up("a.host"));
    EXPECT_EQ(found[0], CM_INADDR_NONE);
    error_ = 0;
}

TEST_F(Resolver, NumbersAreNotNames) {
    for (const char *name : {"1.2.3.4", "1", "127.1", "", "999.999"}) EXPECT_FALSE(look_up(name)) << name;
    EXPECT_FALSE(look_up("a.host", true)) << "no server is asked";
    EXPECT_EQ(asked_, 0);
    for (const char *name : {"1.2.3.", "1a", "3com.example", "1.2.3.4x"}) EXPECT_TRUE(look_up(name)) << name;
}

TEST_F(Resolver, NamesOfTheSystemAreCut) {
    char name[CM_DNS_NAME] = "";
    ASSERT_EQ(cm_dns_gethostname(nullptr, 1, 0, 0, name), 1);
    EXPECT_EQ(name, std::string(60, 'n'));
    EXPECT_EQ(cm_dns_gethostname(nullptr, 1, 1, 0, name), 0);
}

}  // namespace
