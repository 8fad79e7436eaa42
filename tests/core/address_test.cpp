// Dotted addresses.
#include <cstring>

#include "net/address.h"
#include "support/data.h"

TEST(Address, StrictTextsOnly) {
    for (const cm::test::Row &row : cm::test::rows("core/addresses")) {
        uint32_t address = 77;
        char back[cm::net::kDottedSize] = "";
        ASSERT_EQ(cm::net::parse_dotted(row[0], &address), row.number(1) == 1) << row.where;
        if (row.number(1) == 1) cm::net::format_dotted(address, back);
        EXPECT_TRUE(row.number(1) == 1 ? back == row[0] : address == 77) << row.where;
    }
    uint32_t address = 0;
    ASSERT_TRUE(cm::net::parse_dotted("1.2.3.4", &address));
    EXPECT_EQ(memcmp(&address, "\1\2\3\4", 4), 0) << "the first number is the first byte in memory";
}
