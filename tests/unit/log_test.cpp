// The log: the trace word, the option parser, and what lands in the file,
// array dumps included.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <ctime>
#include <sstream>
#include <string>

#include "log.h"
#include "talplat.h"
#include "vapl.h"

#define MODULE 0x00000080

namespace {

int LocalYear() {
  time_t now = time(nullptr);
  struct tm tm;
  localtime_r(&now, &tm);
  return tm.tm_year;
}

class LogFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/pelkologXXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    path = tmpl;
    ASSERT_EQ(InitLog(path.c_str()), 0);
    saved = LOGGet();
  }
  void TearDown() override {
    LOGSet(saved);
    InitLog(nullptr);
    unlink(path.c_str());
  }
  std::string Read() {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::string path;
  UI4 saved = 0;
};

TEST(LogWord, SetGetAndTest) {
  UI4 saved = LOGGet();
  LOGSet(0x85);
  EXPECT_EQ(uiGlobalLevel.load(), 5u);
  EXPECT_EQ(ulGlobalTrace.load(), 0x80u);
  EXPECT_EQ(LOGGet(), 0x85u);
  EXPECT_EQ(LOGif(0, 0x200, 1), 0);
  EXPECT_EQ(LOGif(0, 0x80, 6), 0);
  EXPECT_EQ(LOGif(0, 0x80, 5), 1);
  EXPECT_EQ(LOGif(0x200, 0x200, 1), 1);  // a forced module passes
  EXPECT_EQ(LOGif(0x207, 0x200, 7), 1);  // and a forced level too
  LOGSet(0x0F);
  EXPECT_EQ(LOGif(0, 0x80, 1), 0);  // no module bit: nothing passes
  LOGSet(saved);
}

TEST(LogWord, OptionsAddUp) {
  EXPECT_EQ(LOGOption("/T3 /M0x80"), 0x83u);
  EXPECT_EQ(LOGOption("/T2/t3"), 5u);
  EXPECT_EQ(LOGOption("/m0x20000010"), 0x20000010u);
  EXPECT_EQ(LOGOption("/T0x13"), 3u);  // only the level's 4 bits
  EXPECT_EQ(LOGOption("/M021"), 0x10u);  // octal, level bits dropped
  EXPECT_EQ(LOGOption("T3 M0x80"), 0u);  // no slash, no option
  EXPECT_EQ(LOGOption("/X5/T1"), 1u);
}

TEST_F(LogFile, LinesCarryTheTemplateAndObeyTheLevel) {
  LOGSet(0x80 | 3);
  LOG(3, ("hello %d", 42));
  LOG(4, ("too deep"));
  int evaluated = 0;
  LOG(9, ("%d", ++evaluated));
  EXPECT_EQ(evaluated, 0);  // arguments are not evaluated when the test fails
  std::string text = Read();
  // "%24.24s %25.0f %8u %16p: ": date, clock, process id, thread id.
  ASSERT_EQ(text.size(), 78u + 9u) << text;
  EXPECT_EQ(text.substr(78), "hello 42\n");
  EXPECT_EQ(text.substr(19, 6), " " + std::to_string(1900 + LocalYear()) + " ") << text;
  double clock = std::stod(text.substr(25, 25));
  EXPECT_NEAR(clock, Micros(), 60e6);
  EXPECT_EQ(std::stoul(text.substr(51, 8)), (unsigned long)getpid());
  EXPECT_NE(text.substr(60, 16).find("0x"), std::string::npos);
  EXPECT_EQ(text.substr(76, 2), ": ");
}

TEST_F(LogFile, ErrorChannelIgnoresTheLevel) {
  LOGSet(0);
  LOGStr("ERROR 9 returned from function <send>");
  LOGStrL("count", 7);
  std::string text = Read();
  EXPECT_NE(text.find("  ERROR 9 returned from function <send>\n"), std::string::npos);
  EXPECT_NE(text.find("  count 7\n"), std::string::npos);
}

TEST_F(LogFile, HexDumpRowsOf32SignedBytes) {
  char data[33];
  for (int i = 0; i < 33; i++) data[i] = (char)i;
  data[1] = (char)0xFF;
  data[2] = (char)0x80;
  LOGHex(data, 33);
  std::string text = Read();
  size_t nl = text.find('\n');
  ASSERT_NE(nl, std::string::npos);
  std::string rows = text.substr(nl + 1);
  EXPECT_EQ(rows.substr(0, 15), "00 ffff ff80 03");
  EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 2);
  EXPECT_EQ(rows.substr(rows.rfind("20 ")), "20 \n");
}

// The dump reads elements through the library's own accessors: nested,
// progressions, heterogeneous cells, and a character matrix that is no text.
TEST_F(LogFile, ArrayDump) {
  PAA v = VANewVector(VAI4, 12);
  for (int i = 0; i < 12; i++) ((SI4*)VADATA(v))[i] = i * 10;
  PAA het = VANewVector(VAHet, 2);
  SI2 s = -12;
  VASetHetCell(het, 0, VAI2, &s, 2);
  VASetHetCell(het, 1, VAC1, "q", 1);
  UI4 three = 3, shape[2] = {2, 2};
  PAA apv = VANew(VAApvF8, 1, &three);
  F8 ss[2] = {0.5, 1.0};
  memcpy(VADATA(apv), ss, 16);
  PAA t = VANewVector(VAC1, 3);
  memcpy(VADATA(t), "abc", 3);
  PAA n = VANewVector(VAPntr, 5);
  PAA items[5] = {v, t, apv, het, VANew(VAC1, 2, shape)};
  memcpy(VADATA(n), items, sizeof items);
  LOGPrintAA(n);
  VAFree(n);
  std::string text = Read();
  EXPECT_NE(text.find(" APL Array:\n"), std::string::npos);
  EXPECT_NE(text.find(" Nested array                 1     1"), std::string::npos) << text;
  EXPECT_NE(text.find("\n |>Item no. 0\n | |>Array"), std::string::npos) << text;
  EXPECT_NE(text.find("Integer 4 bytes"), std::string::npos);
  EXPECT_NE(text.find("      10  100 110 "), std::string::npos) << text;
  EXPECT_NE(text.find("abc"), std::string::npos);
  EXPECT_NE(text.find("0.5 1.5 2.5 "), std::string::npos) << text;
  EXPECT_NE(text.find("Elem type Integer 2 bytes"), std::string::npos) << text;
  EXPECT_NE(text.find("-12"), std::string::npos);
  EXPECT_NE(text.find("\n | |q"), std::string::npos) << text;
  EXPECT_NE(text.find("String larger than 2048 bytes"), std::string::npos) << text;
}

TEST(LogNoFile, NothingIsWrittenOrCreated) {
  char dir[] = "/tmp/pelkodirXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string name = std::string(dir) + "/pelko.log";
  UI4 saved = LOGGet();
  ASSERT_EQ(InitLog(name.c_str()), 0);
  LOGSet(0xFFFFFFFF);
  LOG(1, ("dropped"));
  LOGStr("dropped");
  LOGHex("x", 1);
  EXPECT_NE(access(name.c_str(), F_OK), 0);
  EXPECT_EQ(InitLog(""), 0);
  EXPECT_EQ(pLogFile, nullptr);  // back to the default name
  LOGSet(saved);
  rmdir(dir);
}

}  // namespace
