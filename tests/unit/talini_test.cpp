// The ini reader's matching rules and the environment reader.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "aplrpc.h"
#include "log.h"
#include "talplat.h"
#include "tempfile.h"

namespace {

class Ini : public ::testing::Test {
 protected:
  void SetUp() override {
    path = TempFile("pelkoini");
    std::ofstream f(path);
    f << "[Log]\nFile=short\n"
      << "[Logging2]\nFile=wrong\n"
      << "[logging]\n"
      << ";File=commented\n"
      << "no equals sign here\n"
      << "Filename=x.log\n"
      << "File=second\n"
      << "Empty=\n"
      << "Spaced = padded \r\n"
      << "Long=abcdef\n"
      << "Wide=" << std::string(126, 'w') << "[Fake]\nKey=fake\n"
      << "[Other]\nKey=other\n";
  }
  void TearDown() override { unlink(path.c_str()); }

  UI4 Get(const char* section, const char* key, const char* def, char* out, UI4 size) {
    return PLATIni((PCH1)section, (PCH1)key, (PCH1)def, out, size, (PCH1)path.c_str());
  }

  std::string path;
};

TEST_F(Ini, MatchingRules) {
  char out[200];
  // Section names compare without case and must be followed by ']'.
  struct {
    const char *section, *key, *def, *value;
  } cases[] = {
      {"Logging", "File", "def", "x.log"},  // the asked name only begins the key
      {"LOGGING", "filename", "def", "x.log"},
      {"Logging", "Empty", "def", "def"},
      {"Logging", "Spaced", "def", " padded "},
      {"Logging", "Missing", "dflt", "dflt"},
      {"Other", "Key", "", "other"},
      {"Log", "File", "", "short"},
      {"Nowhere", "File", "d", "d"},
  };
  for (auto& c : cases) {
    EXPECT_EQ(Get(c.section, c.key, c.def, out, sizeof(out)), strlen(c.value)) << c.key;
    EXPECT_STREQ(out, c.value) << c.section << " " << c.key;
  }
  // The commented key is skipped and the section's first match wins.
  EXPECT_EQ(Get("Logging", ";File", "d", out, sizeof(out)), 1u);
  // A long line is cut; its rest is neither a key nor a section.
  EXPECT_EQ(Get("Logging", "Wide", "", out, sizeof(out)), 126u);
  EXPECT_EQ(Get("Fake", "Key", "none", out, sizeof(out)), 4u);
  EXPECT_STREQ(out, "none");
  EXPECT_EQ(Get("Other", "Key", "", nullptr, 0), 5u);

  // A cut value isn't terminated in the ini reader.
  memset(out, '#', 8);
  EXPECT_EQ(Get("Logging", "Long", "", out, 4), 3u);
  EXPECT_EQ(std::string(out, 5), "abcd#");
  // Missing file: the default; with no default, 0.
  EXPECT_EQ(PLATIni((PCH1) "A", (PCH1) "B", (PCH1) "zz", out, 10, (PCH1) "/nonexistent.ini"), 2u);
  EXPECT_STREQ(out, "zz");
  EXPECT_EQ(PLATIni((PCH1) "A", (PCH1) "B", nullptr, out, 10, (PCH1) "/nonexistent.ini"), 0u);
  EXPECT_EQ(PLATIni(nullptr, nullptr, nullptr, out, 10, (PCH1) "/nonexistent.ini"), 0u);
  EXPECT_EQ(Get("Logging", "Missing", nullptr, out, sizeof(out)), 0u);
}

TEST_F(Ini, Lists) {
  char out[200];
  UI4 n = Get(nullptr, nullptr, "", out, sizeof(out));
  std::string want("Log\0Logging2\0logging\0Other\0", 27);
  EXPECT_EQ(n, want.size());
  EXPECT_EQ(std::string(out, n + 1), want + '\0');
  EXPECT_EQ(Get(nullptr, nullptr, "", nullptr, 0), n);
  // Names that don't fit are left out; the count goes on.
  memset(out, '#', sizeof(out));
  EXPECT_EQ(Get(nullptr, nullptr, "", out, 10), n);
  EXPECT_EQ(std::string(out, 4), std::string("Log\0", 4));
  EXPECT_EQ(out[4], '#');

  n = Get("Other", nullptr, "", out, sizeof(out));
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(std::string(out, 5), std::string("Key\0\0", 5));
  n = Get("logging", nullptr, "", out, sizeof(out));
  EXPECT_EQ(std::string(out, n), std::string("Filename\0File\0Empty\0Spaced\0Long\0Wide\0Key\0", 41));
}

TEST(PlatEnv, ValuesAndConfigDir) {
  char out[8];
  setenv("PELKO_TEST_VALUE", "abcdef", 1);
  EXPECT_EQ(PLATEnvironment((PCH1) "PELKO_TEST_VALUE", (PCH1) "", out, 4), 3u);
  EXPECT_STREQ(out, "abc");  // cut and terminated
  EXPECT_EQ(PLATEnvironment((PCH1) "PELKO_TEST_UNSET_X", (PCH1) "dd", out, 8), 2u);
  EXPECT_STREQ(out, "dd");
  unsetenv("PELKO_TEST_VALUE");

  const char* home = getenv("HOME");
  std::string saved = home ? home : "";
  setenv("HOME", "/home/someone", 1);
  char* p = PrependConfigDir((char*)"pelko.ini");
  EXPECT_STREQ(p, "/home/someone/.orvane/pelko.ini");
  free(p);
  p = PrependConfigDir((char*)"./here/pelko.ini");
  EXPECT_STREQ(p, "./here/pelko.ini");
  free(p);
  unsetenv("HOME");
  EXPECT_EQ(PrependConfigDir((char*)"pelko.ini"), nullptr);
  if (home) setenv("HOME", saved.c_str(), 1);
}

}  // namespace

namespace {

// onLoad takes the log file and trace word from $HOME/.orvane/pelko.ini.
TEST(PlatEnv, LoadReadsLogging) {
  char dir[] = "/tmp/pelkohomeXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string conf = std::string(dir) + "/.orvane";
  ASSERT_EQ(mkdir(conf.c_str(), 0700), 0);
  std::string ini = conf + "/pelko.ini";
  std::string log = std::string(dir) + "/trace.log";
  {
    std::ofstream f(ini);
    f << "[Logging]\nFile=" << log << "\nOption=/T3/M0x10/t1\n";
  }
  { std::ofstream touch(log); }
  const char* home = getenv("HOME");
  std::string saved = home ? home : "";
  setenv("HOME", dir, 1);
  onLoad();
  EXPECT_EQ(LOGGet(), 0x14u);
  ASSERT_NE(pLogFile, nullptr);
  EXPECT_EQ(std::string(pLogFile), log);
  LOGSet(0);
  InitLog("");
  if (home) setenv("HOME", saved.c_str(), 1);
  std::ifstream in(log);
  std::string line;
  std::getline(in, line);
  EXPECT_NE(line.find("Logging is initialy set to 20 from /T3/M0x10/t1"), std::string::npos) << line;
  unlink(log.c_str());
  unlink(ini.c_str());
  rmdir(conf.c_str());
  rmdir(dir);
}

}  // namespace
