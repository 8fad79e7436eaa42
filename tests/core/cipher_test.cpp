// The ciphers: published vectors, the C library's crypt beside ours, and what a stored value must survive.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "formats/cmcipher.h"
#include "support/support.h"
#include "tilvarcm.h"

#ifdef TILVARCM_TEST_CRYPT
extern "C" char *crypt(const char *key, const char *salt);
#endif

namespace {

class Cipher : public testing::Test {
protected:
    void SetUp() override {
        ctx_.trace_level = 0;
        ASSERT_EQ(cm_mem_init(&ctx_, &ctx_.common_pool, 1024), 1);
        ASSERT_EQ(cm_twowayinit(&ctx_, "a phrase"), 1);
    }
    void TearDown() override { cm_mem_exit(ctx_.common_pool); }

    std::string encrypt(const std::string &text) {
        std::string out(text.size() * 2 + 26, '?');
        int32_t length = -1;
        EXPECT_EQ(cm_twowayencrypt(&ctx_, text.data(), int32_t(text.size()), out.data(), int32_t(out.size()), &length),
                  1);
        EXPECT_EQ(size_t(length), text.size() * 2 + 25);
        return out.c_str();
    }
    std::string decrypt(const std::string &sealed) {
        std::string out(sealed.size() + 1, '?');
        int32_t length = -1;
        if (cm_twowaydecrypt(&ctx_, sealed.c_str(), CM_LEN_TEXT, out.data(), int32_t(out.size()), &length) == 1)
            return out.substr(0, size_t(length));
        EXPECT_EQ(length, 0);
        return "refused";
    }

    cm_context ctx_{};
};

TEST_F(Cipher, StreamIsTheOneOfTheStandard) {  // RFC 8439, 2.4.2
    std::string hex, text =
                         "Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, "
                         "sunscreen would be it.";
    uint8_t key[32];
    for (uint8_t i = 0; i < 32; i++) key[i] = i;
    const uint8_t nonce[12] = {0, 0, 0, 0, 0, 0, 0, 0x4a, 0, 0, 0, 0};
    cm::cipher::chacha20(key, nonce, 1, {reinterpret_cast<uint8_t *>(text.data()), text.size()});
    for (const char c : text) hex += {"0123456789abcdef"[uint8_t(c) >> 4], "0123456789abcdef"[c & 15]};
    EXPECT_EQ(hex,
              "6e2e359a2568f98041ba0728dd0d6981e97e7aec1d4360c20a27afccfd9fae0bf91b65c5524733ab8f593dabcd62b357"
              "1639d624e65152ab8f530c359f0861d807ca0dbf500d6a6156a38e088a22b65e52bc514d16ccf806818ce91ab7793736"
              "5af90bbf74a35be6b40b8eedf2785e42874d");
}

TEST_F(Cipher, EveryLengthComesBackInItsBuffer) {
    std::string text;
    for (int length = 0; length < 200; length++, text += char(length)) {
        const std::string sealed = encrypt(text);
        EXPECT_EQ(sealed.find_first_not_of("0123456789ABCDEF"), sealed.npos);
        ASSERT_EQ(decrypt(sealed), text);
    }
    EXPECT_EQ(encrypt("secret"), "1D77725A5939208DBF1BE5F0101A470F6B825") << "stored values stay readable";
    EXPECT_NE(encrypt("password1").substr(25, 16), encrypt("password2").substr(25, 16)) << "one key stream for two";
    char out[64];
    const std::string sealed = encrypt("12345");
    for (int32_t size = -1; size < 40; size++) {
        memset(out, '#', sizeof out);
        EXPECT_EQ(cm_twowayencrypt(&ctx_, "12345", 5, out, size, nullptr), size > 35) << size;
        EXPECT_EQ(out[36], '#');
        memset(out, '#', sizeof out);
        EXPECT_EQ(cm_twowaydecrypt(&ctx_, sealed.data(), CM_LEN_TEXT, out, size, nullptr), size > 5) << size;
        EXPECT_EQ(out[6], '#');
    }
}

TEST_F(Cipher, DamageAndForeignPhrasesAreNoticed) {
    const std::string sealed = encrypt("some text");
    for (size_t i = 0; i < sealed.size(); i++) {
        std::string damaged = sealed;
        damaged[i] = damaged[i] == '7' ? '8' : '7';
        EXPECT_EQ(decrypt(damaged), "refused") << i;
        damaged[i] = 'x';
        EXPECT_EQ(decrypt(damaged), "refused") << i;
        EXPECT_EQ(decrypt(sealed.substr(0, i)), "refused") << i;
    }
    ASSERT_EQ(cm_twowayinit(&ctx_, "another phrase"), 1);
    EXPECT_EQ(decrypt(sealed), "refused");
    ASSERT_EQ(cm_twowayinit(&ctx_, "a phrase"), 1);
    EXPECT_EQ(decrypt(sealed), "some text");
}

TEST_F(Cipher, FailuresSayWhy) {
    cm_context bare{};
    ctx_.trace_level = bare.trace_level = CM_ERROR;
    char out[64];
    EXPECT_EQ(cm::test::captured_standard_error([&] {
                  EXPECT_EQ(cm_twowayencrypt(&bare, "x", 1, out, sizeof out, nullptr), 0);
                  EXPECT_EQ(cm_twowaydecrypt(&bare, "x", 1, out, sizeof out, nullptr), 0);
                  EXPECT_EQ(cm_twowayencrypt(&ctx_, "x", 1, out, 10, nullptr), 0);
                  EXPECT_EQ(cm_twowaydecrypt(&ctx_, "x", 1, out, sizeof out, nullptr), 0);
              }),
              "Tilvar Server Error: cm_twowayencrypt() The cipher is not initialized.\n"
              "Tilvar Server Error: cm_twowaydecrypt() The cipher is not initialized.\n"
              "Tilvar Server Error: cm_twowayencrypt() Buffer provided is too small.\n"
              "Tilvar Server Error: cm_twowaydecrypt() The text was not encrypted under this phrase.\n");
    EXPECT_EQ(cm_twowayinit(nullptr, "x"), 0);
}

TEST(Crypt, KnownPasswordsAndDrawnSalts) {
    const char *const rows[][3] = {{"rasmuslerdorf", "rl", "rl.3StKT.4T8M"},
                                   {"foob", "ar", "arlEKn0OzVJn."},
                                   {"foob", "arlEKn0OzVJn.", "arlEKn0OzVJn."},
                                   {"", "..", "..X8NBuQ4l6uQ"}};
    char out[14], again[14];
    for (const auto &[text, salt, result] : rows) {
        ASSERT_EQ(cm_crypt(text, salt, out, sizeof out), 1);
        EXPECT_STREQ(out, result);
        ASSERT_EQ(cm_crypt(text, out, out, sizeof out), 1) << "a stored text checked in place";
        EXPECT_STREQ(out, result);
    }
    std::string salts;
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(cm_crypt("Tilvar", i % 2 == 0 ? nullptr : "", out, sizeof out), 1);
        ASSERT_EQ(cm_crypt("Tilvar", out, again, sizeof again), 1);
        EXPECT_STREQ(out, again);
        salts.append(out, 2);
    }
    EXPECT_NE(salts.find_first_not_of(salts.substr(0, 2)), salts.npos);
    for (const char *salt : {"a", "a!", "$1$", ":a", "\xC4z"})
        EXPECT_EQ(cm_crypt("x", salt, out, sizeof out), 0) << salt;
    EXPECT_EQ(cm_crypt("x", "ab", out, 13), 0);
    EXPECT_EQ(cm_crypt(nullptr, "ab", out, sizeof out), 0);
}

#ifdef TILVARCM_TEST_CRYPT
TEST(Crypt, AgreesWithTheCLibrary) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; round++) {
        std::string text(random() % 12, 0), salt(2, 0);
        for (char &c : text) c = char(random() % 255 + 1);
        for (char &c : salt) c = cm::cipher::kCryptLetters[random() % 64];
        char out[14];
        ASSERT_EQ(cm_crypt(text.c_str(), salt.c_str(), out, sizeof out), 1);
        ASSERT_STREQ(out, crypt(text.c_str(), salt.c_str())) << "round " << round;
    }
}
#endif

}  // namespace
