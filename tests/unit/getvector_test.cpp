// Byte views of host records in place, and the "filename" request.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "arraybuild.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "tempfile.h"
#include "vatrans.h"

using namespace testarrays;

namespace {

std::vector<char> Packed(PAA p) {
  std::vector<char> block(SizeAA(p), 0);
  Pack(p, block.data());
  VAFree(p);
  return block;
}

PAA Wide(VATYPES t, const std::string& s) {
  PAA p = VANewVector(t, (UI4)s.size());
  for (UI4 i = 0; i < s.size(); i++) {
    UI4 c = (UI1)s[i];
    if (t == VAC2) {
      UI2 u = (UI2)c;
      memcpy((char*)VADATA(p) + 2 * i, &u, 2);
    } else {
      memcpy((char*)VADATA(p) + 4 * i, &c, 4);
    }
  }
  return p;
}

TEST(GetVectorTest, InPlace) {
  SetUnicode(true);
  auto rec = Packed(Vector<SI2>(VAI2, {1, 255, -128, 256, 7}));
  UI4 len = 0;
  PCH1 data = nullptr;
  EXPECT_EQ(GetVector(true, rec.data(), &len, &data), ERR_DOMAIN);
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(data, rec.data() + 24);
  EXPECT_EQ((UI1)data[0], 1);  // narrowed before the bad value
  EXPECT_EQ((UI1)data[1], 255);
  EXPECT_EQ((UI1)data[2], 0x80);

  rec = Packed(Text("abc"));
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), 0);
  EXPECT_EQ(std::string(data, len), "abc");

  // Classic characters are translated to ASCII in place.
  SetUnicode(false);
  char up[256];
  for (int i = 0; i < 256; i++) up[i] = (char)i;
  up['a'] = 'A';
  SetChar2asc(up);
  rec = Packed(Text("abc"));
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), 0);
  EXPECT_EQ(std::string(data, len), "Abc");
  ClrChar2asc();
  SetUnicode(true);

  rec = Packed(Vector<SI1>(VAI1, {-1}));
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), 0);
  rec = Packed(VANewScalar(VABit));
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), ERR_DOMAIN);
  EXPECT_EQ(len, 1u);
  rec = Packed(Vector<SI4>(VAI4, {1}));
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), ERR_DOMAIN);
  PAA empty = VANewVector(VAPntr, 0);
  VASetSlot(empty, 0, Text(""));
  rec = Packed(empty);
  EXPECT_EQ(GetVector(false, rec.data(), &len, &data), ERR_DOMAIN);
  EXPECT_EQ(len, 1u);  // the nested prototype counts
}

TEST(GetFileHandleTest, Requests) {
  std::string name = TempFile("pelkofile");
  const char* path = name.c_str();
  int tmp = open(path, O_WRONLY);
  ASSERT_GE(tmp, 0);
  ASSERT_EQ(write(tmp, "hello", 5), 5);
  close(tmp);
  SetUnicode(true);

  int fd = 99;
  EXPECT_EQ(GetFileHandle(Packed(Nested({Text("FileName"), Text(path)})).data(), &fd), 0);
  ASSERT_GE(fd, 0);
  char buf[8];
  EXPECT_EQ(read(fd, buf, 8), 5);
  close(fd);
  // A path given as 4-byte characters, and the keyword as 2-byte ones.
  EXPECT_EQ(GetFileHandle(Packed(Nested({Wide(VAC2, "filename"), Wide(VAC4, path)})).data(), &fd),
            0);
  close(fd);
  // The classic set: keyword and path through its code points.
  SetUnicode(false);
  PAA key = VANewVector(VAC1, 8);
  const UI1 classic[8] = {17 + 5, 17 + 8, 17 + 11, 17 + 4, 17 + 13, 17, 17 + 12, 17 + 4};
  memcpy(VADATA(key), classic, 8);
  EXPECT_EQ(GetFileHandle(Packed(Nested({key, Text("/nonexistent")})).data(), &fd), ERR_FILE);
  EXPECT_EQ(fd, -1);
  SetUnicode(true);

  EXPECT_EQ(GetFileHandle(Packed(Nested({Text("filename"), Text(path)})).data(), nullptr),
            ERR_MEMORY_ALLOC);
  // Each malformed request, and the code it is refused with.
  const std::pair<PAA, SI4> refused[] = {
      {Text("filename"), ERR_DOMAIN},
      {Enclose(Text("filename")), ERR_RANK},
      {Nested({Text("filename")}), ERR_LENGTH},
      {Nested({Text("filenam"), Text(path)}), ERR_LENGTH},
      {Nested({Text("filename"), Text("")}), ERR_LENGTH},
      {Nested({Text("filename"), CharScalar('x')}), ERR_RANK},
      {Nested({Text("pathname"), Text(path)}), ERR_OPTION},
      {Nested({Text("filename"), Vector<SI4>(VAI4, {1})}), ERR_DOMAIN},
      {Nested({Text("filename"), Text(std::string(2000, 'p'))}), ERR_DOMAIN},  // no buffer holds it
  };
  for (const auto& r : refused) EXPECT_EQ(GetFileHandle(Packed(r.first).data(), &fd), r.second) << &r - refused;
  // A record whose length word is smaller than a header.
  auto rec = Packed(Nested({Text("filename"), Text(path)}));
  memset(rec.data() + 24, 0, 8);
  EXPECT_EQ(GetFileHandle(rec.data(), &fd), ERR_LENGTH);
  unlink(path);
}

}  // namespace
