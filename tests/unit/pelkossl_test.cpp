// The companion's loader and table, linked in directly. The search beside
// the library itself needs the shared object: companion_load_test.cpp.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <string>

#include "log.h"
#include "pelkossl.h"
#include "securesocket.h"

namespace {

// Each test starts unloaded and leaves the variable as it found it.
class Pelkossl : public ::testing::Test {
 protected:
  void SetUp() override {
    UnloadPelkossl();
    const char* v = getenv("PELKOSSL_LIBRARY");
    hadEnv = v != nullptr;
    if (v) oldEnv = v;
  }
  void TearDown() override {
    SslUnload();
    UnloadPelkossl();
    if (hadEnv)
      setenv("PELKOSSL_LIBRARY", oldEnv.c_str(), 1);
    else
      unsetenv("PELKOSSL_LIBRARY");
  }
  static int LoadFrom(const char* name) {
    setenv("PELKOSSL_LIBRARY", name, 1);
    return LoadPelkossl();
  }
  bool hadEnv = false;
  std::string oldEnv;
};

TEST_F(Pelkossl, LoadFillsEverySlotAndUnloadClearsThem) {
  EXPECT_EQ(UnloadPelkossl(), 0) << "unload while not loaded";
  EXPECT_FALSE(PelkosslLoaded());
  ASSERT_EQ(LoadFrom(PELKOSSL_COMPANION_PATH), 0);
  ASSERT_TRUE(PelkosslLoaded());
  void* h = pelkossl.ipelkossl->hLib;
  // Every entry resolves through the companion, and its slot holds it.
#define CHECK_SLOT(R, N, AT, AN)                  \
  EXPECT_NE(dlsym(h, #N), nullptr) << #N;        \
  EXPECT_EQ((void*)pelkossl.N, dlsym(h, #N)) << #N;
  DYNAMIC_FUNCTION(CHECK_SLOT)
#undef CHECK_SLOT
#define CHECK_VAR(R, N, AT, AN)                   \
  EXPECT_NE(dlsym(h, #N), nullptr) << #N;        \
  EXPECT_EQ((void*)pelkossl.i##N, dlsym(h, #N)) << #N;
  DYNAMIC_VARIABLE(CHECK_VAR)
#undef CHECK_VAR

  PTALLIB first = pelkossl.ipelkossl;
  EXPECT_EQ(LoadFrom("/nonexistent/libpelko31ssl64.so"), 0) << "second load changes nothing";
  EXPECT_EQ(pelkossl.ipelkossl, first);

  EXPECT_EQ(UnloadPelkossl(), 0);
  EXPECT_FALSE(PelkosslLoaded());
  EXPECT_EQ((void*)pelkossl.deflate, nullptr);
  EXPECT_EQ((void*)pelkossl.ignutls_free, nullptr);
  EXPECT_EQ(UnloadPelkossl(), 0);
}

TEST_F(Pelkossl, CallsReachTheLibrariesBehindIt) {
  ASSERT_EQ(LoadFrom(PELKOSSL_COMPANION_PATH), 0);
  char version[1024];
  ASSERT_GT(pelkosslversion(version, sizeof(version)), 0);
  EXPECT_NE(strstr(version, "GnuTLS"), nullptr) << version;
  EXPECT_STREQ(zlibVersion(), ZLIB_VERSION);
  EXPECT_NE(gnutls_check_version("3.0.0"), nullptr);
  SslLoad();
  SslLoad();  // a second start is harmless
  // SHA-256 of "abc" by GnuTLS, in memory from its own allocator.
  gnutls_hash_hd_t hash;
  ASSERT_EQ(gnutls_hash_init(&hash, GNUTLS_DIG_SHA256), 0);
  ASSERT_EQ(gnutls_hash(hash, "abc", 3), 0);
  gnutls_datum_t digest;
  digest.size = gnutls_hash_get_len(GNUTLS_DIG_SHA256);
  digest.data = (unsigned char*)TAL_gnutls_malloc(digest.size);
  ASSERT_NE(digest.data, nullptr);
  gnutls_hash_deinit(hash, digest.data);
  EXPECT_EQ(digest.size, 32u);
  EXPECT_EQ(digest.data[0], 0xba);
  EXPECT_EQ(digest.data[31], 0xad);
  FREEGNUTLSDATUM(digest);
  EXPECT_EQ(digest.data, nullptr);
  // The alloc names exist in GnuTLS only as macros; the companion has them.
  gnutls_datum_t raw = {(unsigned char*)"\x01\x02\x03\xfe", 4}, text = {nullptr, 0};
  ASSERT_EQ(gnutls_srp_base64_encode_alloc(&raw, &text), 0);
  char buffer[16];
  size_t size = sizeof(buffer);
  ASSERT_EQ(gnutls_srp_base64_encode(&raw, buffer, &size), 0);
  EXPECT_EQ(std::string((char*)text.data, text.size), std::string(buffer, size));
  gnutls_datum_t back = {nullptr, 0};
  ASSERT_EQ(gnutls_srp_base64_decode_alloc(&text, &back), 0);
  EXPECT_EQ(std::string((char*)back.data, back.size), std::string((char*)raw.data, raw.size));
  FREEGNUTLSDATUM(text);
  FREEGNUTLSDATUM(back);
  SslUnload();
  SslUnload();
}

TEST_F(Pelkossl, MissingOrForeignCompanionIsNoCompanion) {
  EXPECT_EQ(LoadFrom("/nonexistent/libpelko31ssl64.so"), 1);
  EXPECT_FALSE(PelkosslLoaded());
  EXPECT_EQ(LoadFrom("libpelko-no-such-companion.so"), 1);
  EXPECT_FALSE(PelkosslLoaded());
  // Opens, but has no version entry.
  EXPECT_EQ(LoadFrom("libz.so.1"), 1);
  EXPECT_FALSE(PelkosslLoaded());
  // Nothing to start or stop without it.
  SslLoad();
  EXPECT_EQ(SslTrace(3), 0);
  SslUnload();
}

TEST_F(Pelkossl, CompanionWithoutVersionStaysHalfLoaded) {
  EXPECT_EQ(LoadFrom(PELKO_FAKESSL_PATH), 0);
  EXPECT_TRUE(PelkosslLoaded());
  EXPECT_EQ((void*)pelkossl.ignutls_free, nullptr);
  z_stream s;
  memset(&s, 0, sizeof(s));
  EXPECT_DEATH(deflateInit_(&s, 6, ZLIB_VERSION, (int)sizeof(s)),
               "call to a function the TLS companion does not provide");
  EXPECT_EQ(UnloadPelkossl(), 0);
  EXPECT_FALSE(PelkosslLoaded());
}

// GnuTLS diagnostics land in our log, indented by level, and their text is
// never taken as a format.
TEST_F(Pelkossl, GnutlsLogIsIndentedAndTakenLiterally) {
  char path[] = "/tmp/pelkossl_log_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  UI4 oldWord = LOGGet();
  InitLog(path);
  LOGSet(0x400 | 5);
  SslControl::logFunction(1, "one %s %n %d");
  SslControl::logFunction(2, "two");
  SslControl::logFunction(3, "three, too deep for level 5");
  ASSERT_EQ(LoadFrom(PELKOSSL_COMPANION_PATH), 0);
  SslLoad();
  EXPECT_EQ(SslTrace(9), 0);
  LOGSet(0x400 | 15);
  gnutls_session_t session;
  ASSERT_EQ(gnutls_init(&session, GNUTLS_CLIENT), 0);
  gnutls_deinit(session);
  EXPECT_EQ(SslTrace(0), 0);
  LOGSet(oldWord);
  InitLog(nullptr);
  std::ifstream f(path);
  std::stringstream all;
  all << f.rdbuf();
  std::string log = all.str();
  unlink(path);
  EXPECT_NE(log.find(":   one %s %n %d\n"), std::string::npos) << log;
  EXPECT_NE(log.find(":     two\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("three"), std::string::npos) << log;
  // GnuTLS itself spoke once its level was raised.
  size_t lines = 0;
  for (char c : log) lines += c == '\n';
  EXPECT_GT(lines, 3u) << log;
}

}  // namespace
