// Base 64, hexadecimal, the WebSocket mask and SHA-1 against their RFCs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base64.h"
#include "mask.h"
#include "sha1.h"

namespace {

std::string B64(const std::string& in) {
  char out[256];
  memset(out, '#', sizeof(out));
  UI4 n = encode64(out, (PUI1)in.data(), (UI4)in.size());
  EXPECT_EQ(n, encode64(nullptr, (PUI1)in.data(), (UI4)in.size()));
  EXPECT_EQ(out[n], 0) << "terminator after " << n;
  return std::string(out, n);
}

std::string Sha1(const std::string& in, int repeat = 1) {
  SHA1Context ctx;
  EXPECT_EQ(SHA1Reset(&ctx), shaSuccess);
  for (int i = 0; i < repeat; i++)
    EXPECT_EQ(SHA1Input(&ctx, (const uint8_t*)in.data(), (unsigned)in.size()), shaSuccess);
  uint8_t digest[SHA1HashSize];
  EXPECT_EQ(SHA1Result(&ctx, digest), shaSuccess);
  char hex[2 * SHA1HashSize];
  return std::string(hex, encodeHex(hex, digest, SHA1HashSize));
}

TEST(Base64, Rfc4648Vectors) {
  EXPECT_EQ(B64(""), "");
  EXPECT_EQ(B64("f"), "Zg==");
  EXPECT_EQ(B64("fo"), "Zm8=");
  EXPECT_EQ(B64("foo"), "Zm9v");
  EXPECT_EQ(B64("foob"), "Zm9vYg==");
  EXPECT_EQ(B64("fooba"), "Zm9vYmE=");
  EXPECT_EQ(B64("foobar"), "Zm9vYmFy");
  // All 64 letters of the alphabet, and bytes with the high bit set.
  EXPECT_EQ(B64(std::string("\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51"
                            "\x55\x97\x61\x96\x9b\x71\xd7\x9f\x82\x18\xa3\x92\x59\xa7\xa2\x9a"
                            "\xab\xb2\xdb\xaf\xc3\x1c\xb3\xd3\x5d\xb7\xe3\x9e\xbb\xf3\xdf\xbf",
                            48)),
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(Base64, NullOutputOnlyMeasures) {
  UI1 in[20] = {0};
  EXPECT_EQ(encode64(nullptr, in, 20), 28u);
  EXPECT_EQ(encode64(nullptr, in, 0), 0u);
  char out[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(encode64(out, in, 0), 0u);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[1], '#');
}

TEST(Hex, LowerCaseWithoutTerminator) {
  UI1 in[] = {0xAB, 0x00, 0x0F, 0xF0, 0x99};
  char out[12];
  memset(out, '#', sizeof(out));
  EXPECT_EQ(encodeHex(out, in, 1), 2u);
  EXPECT_EQ(std::string(out, 3), "ab#");
  EXPECT_EQ(encodeHex(out, in, 5), 10u);
  EXPECT_EQ(std::string(out, 11), "ab000ff099#");
  EXPECT_EQ(encodeHex(nullptr, in, 7), 14u);
}

TEST(Mask, XorsCyclicallyAndRestores) {
  char key[4] = {'\x37', '\xfa', '\x21', '\x3d'};
  // RFC 6455 5.7: "Hello" masked with 37 fa 21 3d.
  char data[] = "Hello";
  mask(data, 5, key, 4);
  EXPECT_EQ(0, memcmp(data, "\x7f\x9f\x4d\x51\x58", 5));
  EXPECT_EQ(data[5], 0) << "nothing beyond length";
  mask(data, 5, key, 4);
  EXPECT_STREQ(data, "Hello");
  mask(data, 0, key, 4);
  EXPECT_STREQ(data, "Hello");
  mask(data, 0, key, 0);
  EXPECT_DEATH(mask(data, 5, key, 0), "keyLength");
}

TEST(Sha1, Rfc3174Vectors) {
  EXPECT_EQ(Sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(Sha1("a", 1000000), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  EXPECT_EQ(Sha1("0123456701234567012345670123456701234567012345670123456701234567", 10),
            "dea356a2cddd90c7a7ecedc5ebb563934f460452");
  EXPECT_EQ(Sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  // 55, 56 and 64 bytes: the padding fits, just misses, and needs a block.
  EXPECT_EQ(Sha1(std::string(55, 'a')), "c1c8bbdc22796e28c0e15163d20899b65621d65a");
  EXPECT_EQ(Sha1(std::string(56, 'a')), "c2db330f6083854c99d4b5bfb6e8f29f201be699");
  EXPECT_EQ(Sha1(std::string(64, 'a')), "0098ba824b5c16427bd7a1122a5a442a25ec644d");
}

TEST(Sha1, StatesAndNullArguments) {
  SHA1Context ctx;
  uint8_t digest[SHA1HashSize], again[SHA1HashSize];
  EXPECT_EQ(SHA1Reset(nullptr), shaNull);
  SHA1Reset(&ctx);
  EXPECT_EQ(SHA1Input(&ctx, nullptr, 3), shaNull);
  EXPECT_EQ(SHA1Input(&ctx, nullptr, 0), shaSuccess);
  EXPECT_EQ(SHA1Input(&ctx, (const uint8_t*)"abc", 3), shaSuccess);
  EXPECT_EQ(SHA1Result(&ctx, nullptr), shaNull);
  EXPECT_EQ(SHA1Result(&ctx, digest), shaSuccess);
  EXPECT_EQ(SHA1Result(&ctx, again), shaSuccess);
  EXPECT_EQ(0, memcmp(digest, again, SHA1HashSize)) << "a second result repeats the first";
  EXPECT_EQ(SHA1Input(&ctx, (const uint8_t*)"d", 1), shaStateError);
  EXPECT_EQ(SHA1Result(&ctx, again), shaStateError);
}

}  // namespace
