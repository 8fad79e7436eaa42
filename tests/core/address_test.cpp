// Dotted addresses.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "net/address.h"

TEST(Address, StrictTextsOnly) {
    for (const char *text : {"0.0.0.0", "127.0.0.1", "255.255.255.255", "192.168.10.1", "9.99.100.200"}) {
        uint32_t address = 1;
        ASSERT_TRUE(cm::net::parse_dotted(text, &address)) << text;
        char back[cm::net::kDottedSize];
        EXPECT_EQ(size_t(cm::net::format_dotted(address, back)), strlen(text));
        EXPECT_STREQ(back, text);
    }
    for (const char *text :
         {"", "1", "1.2.3", "1.2.3.", ".1.2.3", "1..2.3", "1.2.3.4.", "1.2.3.4 ", " 1.2.3.4", "1.2.3.4.5", "256.1.1.1",
          "1.1.1.999", "01.2.3.4", "1.2.3.00", "1.2.3.4294967297", "0x1.2.3.4", "+1.2.3.4", "a.b.c.d"}) {
        uint32_t address = 77;
        EXPECT_FALSE(cm::net::parse_dotted(text, &address)) << text;
        EXPECT_EQ(address, 77u);
    }
}

TEST(Address, FirstNumberIsTheFirstByteInMemory) {
    uint32_t address = 0;
    ASSERT_TRUE(cm::net::parse_dotted("1.2.3.4", &address));
    EXPECT_EQ(memcmp(&address, "\1\2\3\4", 4), 0);
}
