// The array dump reads elements through the library's own accessors.
#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "arraybuild.h"
#include "log.h"
#include "tempfile.h"

using namespace testarrays;

namespace {

TEST(PrintAATest, DumpsThroughAccessors) {
  std::string name = TempFile("pelkolog");
  ASSERT_EQ(InitLog(name.c_str()), 0);
  UI4 shape[2] = {2, 2};
  PAA het = VANewVector(VAHet, 2);
  SI2 s = -12;
  VASetHetCell(het, 0, VAI2, &s, 2);
  VASetHetCell(het, 1, VAC1, "q", 1);
  UI4 three = 3;
  PAA apv = VANew(VAApvF8, 1, &three);
  F8 ss[2] = {0.5, 1.0};
  memcpy(VADATA(apv), ss, 16);
  PAA a = Nested({Text("hello"), apv, het, VANew(VAC1, 2, shape)});
  LOGPrintAA(a);
  a = VAFree(a);
  InitLog("");
  std::ifstream in(name);
  std::stringstream text;
  text << in.rdbuf();
  std::string dump = text.str();
  unlink(name.c_str());
  EXPECT_NE(dump.find("APL Array:"), std::string::npos);
  EXPECT_NE(dump.find(">Item no. 0"), std::string::npos);
  EXPECT_NE(dump.find("hello"), std::string::npos);
  EXPECT_NE(dump.find("0.5 1.5 2.5 "), std::string::npos);
  EXPECT_NE(dump.find("Elem type Integer 2 bytes"), std::string::npos);
  EXPECT_NE(dump.find("-12"), std::string::npos);
  EXPECT_NE(dump.find("\n | |q"), std::string::npos);
  // A matrix of characters isn't a text the reader gives.
  EXPECT_NE(dump.find("String larger than 2048 bytes"), std::string::npos);
}

}  // namespace
