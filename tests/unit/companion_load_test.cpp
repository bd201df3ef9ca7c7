// Where the library finds its companion. Each case copies the shared object
// (and perhaps the companion) into fresh directories and runs a separate
// host process on it, since the companion is loaded once, when the library
// is.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

namespace {

enum Probe { Loaded = 0, NoCompanion = 2 };

class CompanionSearch : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/pelkossl_search_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    top = tmpl;
    fs::create_directory(top / "lib");
    fs::create_directory(top / "path");
    fs::copy_file(PELKO_LIBRARY_PATH, Library());
  }
  void TearDown() override { fs::remove_all(top); }

  fs::path Library() const { return top / "lib" / "pelko31_64.so"; }
  void Put(const std::string& dir, const std::string& name) const {
    fs::copy_file(PELKOSSL_COMPANION_PATH, top / dir / name);
  }

  // Runs the probe on the copy with PELKOSSL_LIBRARY and LD_LIBRARY_PATH
  // as given (null: unset), and gives its exit code.
  int Run(const char* library, const char* searchPath, const char* mode = nullptr) const {
    std::vector<std::string> env;
    for (char** e = environ; *e; e++)
      if (strncmp(*e, "PELKOSSL_LIBRARY=", 17) && strncmp(*e, "LD_LIBRARY_PATH=", 16))
        env.push_back(*e);
    if (library) env.push_back(std::string("PELKOSSL_LIBRARY=") + library);
    if (searchPath) env.push_back(std::string("LD_LIBRARY_PATH=") + searchPath);
    std::vector<char*> envp;
    for (auto& s : env) envp.push_back(&s[0]);
    envp.push_back(nullptr);
    std::string lib = Library().string();
    std::vector<char*> argv = {(char*)PELKO_LOADPROBE_PATH, &lib[0], (char*)mode, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, PELKO_LOADPROBE_PATH, nullptr, nullptr, argv.data(), envp.data()))
      return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -2;
    return WEXITSTATUS(status);
  }

  fs::path top;
};

TEST_F(CompanionSearch, DefaultNameOnlyBesideTheLibrary) {
  std::string path = (top / "path").string();
  Put("path", "libpelko31ssl64.so");
  EXPECT_EQ(Run(nullptr, path.c_str()), NoCompanion) << "on the search path only";
  EXPECT_EQ(Run("libpelko31ssl64.so", path.c_str()), NoCompanion) << "the default name set";
  Put("lib", "libpelko31ssl64.so");
  EXPECT_EQ(Run(nullptr, nullptr), Loaded) << "beside, on no search path";
  EXPECT_EQ(Run("libpelko31ssl64.so", nullptr), Loaded) << "the default name set";
}

TEST_F(CompanionSearch, OtherNamesGoToTheSystemSearch) {
  std::string path = (top / "path").string();
  Put("lib", "libpelkoother.so");
  EXPECT_EQ(Run("libpelkoother.so", nullptr), NoCompanion) << "beside the library only";
  Put("path", "libpelkoother.so");
  EXPECT_EQ(Run("libpelkoother.so", path.c_str()), Loaded) << "bare name on the search path";
  std::string full = (top / "path" / "libpelkoother.so").string();
  EXPECT_EQ(Run(full.c_str(), nullptr), Loaded) << "full path";
  EXPECT_EQ(Run((top / "path" / "missing.so").c_str(), nullptr), NoCompanion);
}

TEST_F(CompanionSearch, LoadAndUnloadTwice) {
  EXPECT_EQ(Run(nullptr, nullptr, "twice"), NoCompanion);
  Put("lib", "libpelko31ssl64.so");
  EXPECT_EQ(Run(nullptr, nullptr, "twice"), Loaded);
}

}  // namespace
