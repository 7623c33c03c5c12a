#include "Velik/Util.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Velik::Util;

TEST(UtilHashTest, KnownValues) {
    EXPECT_EQ(hash("", 0), 2166136261u);
    EXPECT_EQ(hash(std::string()), 0x811C9DC5u);
    EXPECT_EQ(hash(std::string("a")), 0x920C5D1Fu);
    EXPECT_EQ(hash(std::string("abc")), 0x52E7EA1Fu);
    EXPECT_EQ(hash("abcd", 4), 0xEC7F6F2Cu);
    EXPECT_EQ(hash64("", 0), 0xCBF29CE484222325ull);
    EXPECT_EQ(hash64(std::string("a")), 0x9C63BD4C8601B7DFull);
    EXPECT_EQ(hash64("abcdefgh", 8), 0x3919EEB00EE1E68Cull);
}

TEST(UtilHashTest, IsNotByteWiseFnv1a) {
    // Published FNV-1a of "a"; the word-at-a-time hash must differ from it.
    EXPECT_NE(hash(std::string("a")), 0xE40C292Cu);
    EXPECT_NE(hash64(std::string("a")), 0xAF63DC4C8601EC8Cull);
}

TEST(UtilHashTest, StringFormsHashTheSizeIncludingEmbeddedNul) {
    const std::string withNul("/tmp\0x", 6);
    EXPECT_EQ(hash(withNul), hash(withNul.data(), 6));
    EXPECT_EQ(hash64(withNul), hash64(withNul.data(), 6));
    EXPECT_NE(hash(withNul), hash(std::string("/tmp")));
}

TEST(UtilBase64EncodeTest, KnownValues) {
    EXPECT_EQ(base64Encode(0), "AAAAAA");
    EXPECT_EQ(base64Encode(0x811C9DC5), "F3JHBC");
    EXPECT_EQ(base64Encode(0xFFFFFFFF), "=====D");
    // Least significant six bits first; 62 and 63 are '_' and '='.
    EXPECT_EQ(base64Encode(1), "BAAAAA");
    EXPECT_EQ(base64Encode(62), "_AAAAA");
    EXPECT_EQ(base64Encode(64), "ABAAAA");
    EXPECT_EQ(base64Encode(0x80000000u), "AAAAAC");
}

TEST(UtilBase64EncodeTest, AlwaysSixCharactersEndingInAToD) {
    for (uint32_t value :
         {0x00000000u, 0x3FFFFFFFu, 0x40000000u, 0xC0000000u, 0x12345678u, 0xDEADBEEFu}) {
        const std::string code = base64Encode(value);
        ASSERT_EQ(code.size(), 6u) << value;
        EXPECT_NE(std::string("ABCD").find(code[5]), std::string::npos) << code;
    }
}

TEST(UtilTraceHandleNameTest, NameCodeAndBaseName) {
    const std::string code = base64Encode(hash(std::string("/var/run/sock")));
    EXPECT_EQ(code, "syxlTC");
    EXPECT_EQ(traceHandleName("/var/run/sock/", "Reader", false), "Reader-syxlTC-sock");
    EXPECT_EQ(traceHandleName("/var/run/sock", "Reader", false), "Reader-syxlTC-sock");
    EXPECT_EQ(traceHandleName("/var/run/sock///", "Reader", true), "ReaderTemp-syxlTC-sock");
}

TEST(UtilTraceHandleNameTest, PathWithoutSlashOrWithOnlySlashes) {
    EXPECT_EQ(traceHandleName("sock", "W", false),
              "W-" + base64Encode(hash(std::string("sock"))) + "-sock");
    // Only slashes: nothing remains, so the hash is of no bytes.
    EXPECT_EQ(traceHandleName("///", "W", false), "W-F3JHBC-");
    EXPECT_EQ(traceHandleName("", "W", true), "WTemp-F3JHBC-");
}

TEST(UtilTraceHandleNameTest, CallersPathIsLeftAlone) {
    const std::string path = "/a/b/";
    traceHandleName(path, "N", false);
    EXPECT_EQ(path, "/a/b/");
}

}  // namespace
