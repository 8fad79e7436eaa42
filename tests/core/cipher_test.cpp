// The ciphers: published vectors, the C library's crypt beside ours, and what a stored value must survive.
#include <cstring>
#include <numeric>
#include <random>

#include "formats/cmcipher.h"
#include "support/data.h"
#include "support/support.h"
#include "tilvarcm.h"

#ifdef TILVARCM_TEST_CRYPT
extern "C" char *crypt(const char *key, const char *salt);
#endif

namespace {

using cm::test::Row, cm::test::rows;

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

TEST_F(Cipher, StreamIsTheOneOfTheStandard) {
    uint8_t key[32];
    std::iota(std::begin(key), std::end(key), uint8_t{0});
    const uint8_t nonce[12] = {0, 0, 0, 0, 0, 0, 0, 0x4a, 0, 0, 0, 0};
    for (const Row &row : rows("core/chacha")) {
        std::string text = row[0];
        cm::cipher::chacha20(key, nonce, 1, {reinterpret_cast<uint8_t *>(text.data()), text.size()});
        EXPECT_EQ(text, row[1]) << row.where;
    }
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
    char out[14], again[14];
    for (const Row &row : rows("core/crypt")) {
        const std::string result = cm_crypt(row.text(0), row.text(1), out, sizeof out) == 1 ? out : "refused";
        EXPECT_EQ(result, row[2]) << row.where;
        if (result == "refused") continue;
        EXPECT_EQ(cm_crypt(row.text(0), out, out, sizeof out), 1) << "a stored text checked in place";
        EXPECT_EQ(out, result);
    }
    std::string salts;
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(cm_crypt("Tilvar", i % 2 == 0 ? nullptr : "", out, sizeof out), 1);
        ASSERT_EQ(cm_crypt("Tilvar", out, again, sizeof again), 1);
        EXPECT_STREQ(out, again);
        salts.append(out, 2);
    }
    EXPECT_NE(salts.find_first_not_of(salts.substr(0, 2)), salts.npos);
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
