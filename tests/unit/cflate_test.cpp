// The export cflate, reached as the host reaches it: through the shared
// object, which finds its companion beside itself in the build tree. A
// stream finished in one call each way: the load probe of
// companion_load_test.cpp.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef int (*CFLATE)(int, void**, unsigned char*, unsigned*, unsigned char*, unsigned*, int);

enum { Inflate = 1, Finish = 2, Close = 4 };
enum { Z_OK_ = 0, Z_STREAM_END_ = 1, Z_STREAM_ERROR_ = -2, Z_DATA_ERROR_ = -3, Z_BUF_ERROR_ = -5 };

class Cflate : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lib = dlopen(PELKO_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    cflate = (CFLATE)dlsym(lib, "cflate");
    ASSERT_NE(cflate, nullptr);
  }
  static void TearDownTestSuite() {
    if (lib) dlclose(lib);
    lib = nullptr;
  }

  // Feeds the input in pieces of inChunk and collects the output through a
  // buffer of outSize, then finishes; the stream must end closed with 0.
  static Bytes Run(int direction, const Bytes& in, size_t inChunk, unsigned outSize,
                   int level = 6) {
    Bytes result, out(outSize);
    void* ctx = nullptr;
    auto call = [&](int flags, unsigned char* p, unsigned n) {
      unsigned inLength = n, outLength = outSize;
      int rc = cflate(direction | flags, &ctx, p, &inLength, out.data(), &outLength, level);
      EXPECT_LE(outLength, outSize);
      result.insert(result.end(), out.begin(), out.begin() + outLength);
      EXPECT_TRUE(rc >= 0 || rc == Z_BUF_ERROR_) << rc;
      return inLength;
    };
    for (size_t at = 0; at < in.size(); at += inChunk) {
      unsigned n = (unsigned)std::min(inChunk, in.size() - at);
      Bytes piece(in.begin() + at, in.begin() + at + n);
      for (int guard = 0; call(0, piece.data(), n) > 0; guard++)
        if (guard > 1000000) return {};
    }
    for (int guard = 0; ctx; guard++) {
      unsigned inLength = 0, outLength = outSize;
      int rc = cflate(direction | Finish, &ctx, nullptr, &inLength, out.data(), &outLength, level);
      result.insert(result.end(), out.begin(), out.begin() + outLength);
      if (!ctx) {
        EXPECT_EQ(rc, Z_OK_) << "a finished stream reports 0";
      }
      if (rc < 0 && rc != Z_BUF_ERROR_) ADD_FAILURE() << rc;
      if (guard > 1000000 || (rc < 0 && rc != Z_BUF_ERROR_)) break;
    }
    return result;
  }

  static Bytes Data(size_t n, unsigned seed) {
    Bytes d(n);
    const char* text = "the quick brown fox jumps over the lazy dog ";
    for (size_t i = 0; i < n; i++) {
      seed = seed * 1103515245 + 12345;
      // Runs of text broken by random bytes, so that both matches and
      // literals occur.
      d[i] = (seed >> 16) % 7 ? (unsigned char)text[i % 44] : (unsigned char)(seed >> 24);
    }
    return d;
  }

  static Bytes Random(size_t n) {
    Bytes d(n);
    unsigned seed = 99;
    for (auto& b : d) b = (unsigned char)((seed = seed * 1103515245 + 12345) >> 23);
    return d;
  }

  static void* lib;
  static CFLATE cflate;
};
void* Cflate::lib = nullptr;
CFLATE Cflate::cflate = nullptr;

TEST_F(Cflate, RoundTripsFromOneByteToTenMegabytes) {
  for (size_t n : {1ul, 2ul, 1000ul, 65537ul, 10ul * 1024 * 1024}) {
    Bytes data = Data(n, (unsigned)n);
    for (int level : {0, 1, 9}) {
      if (n > 100000 && level != 1) continue;  // one level covers the big case
      Bytes packed = Run(0, data, 65536, 997, level);
      ASSERT_FALSE(packed.empty());
      Bytes back = Run(Inflate, packed, 333, 1500);
      ASSERT_EQ(back.size(), data.size()) << n << " level " << level;
      EXPECT_TRUE(back == data) << n << " level " << level;
    }
  }
}

TEST_F(Cflate, CloseWithoutDataOpensAndCloses) {
  for (int direction : {0, (int)Inflate}) {
    void* ctx = nullptr;
    unsigned inLength = 5, outLength = 16;
    unsigned char out[16];
    EXPECT_EQ(cflate(direction | Close, &ctx, (unsigned char*)"abcde", &inLength, out, &outLength, 6), 0);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(inLength, 5u) << "no data taken";
    EXPECT_EQ(outLength, 16u) << "no data written";
  }
}

TEST_F(Cflate, FullOutputLeavesInputPendingUntilTaken) {
  Bytes data = Random(5000);
  Bytes packed = Run(0, data, 5000, 8000, 6);
  Bytes out(100), back;
  void* ctx = nullptr;
  unsigned inLength = (unsigned)packed.size(), outLength = 100;
  ASSERT_EQ(cflate(Inflate, &ctx, packed.data(), &inLength, out.data(), &outLength, 0), 0);
  EXPECT_GT(inLength, 0u) << "input not yet taken";
  EXPECT_EQ(outLength, 100u) << "the output buffer full";
  back.insert(back.end(), out.begin(), out.end());
  // The stream holds its own copy: what the caller does with its buffer
  // meanwhile doesn't matter, and the same length is passed again.
  Bytes scribbled(packed.size(), 0x55);
  int rc = 0;
  for (int guard = 0; rc == 0 && guard < 1000; guard++) {
    inLength = (unsigned)packed.size();
    outLength = 100;
    rc = cflate(Inflate, &ctx, scribbled.data(), &inLength, out.data(), &outLength, 0);
    back.insert(back.end(), out.begin(), out.begin() + outLength);
  }
  // Without the finish flag the end of the stream is reported, not closed.
  EXPECT_EQ(rc, Z_STREAM_END_);
  EXPECT_EQ(inLength, 0u);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(cflate(Inflate | Close, &ctx, nullptr, &inLength, out.data(), &outLength, 0), 0);
  EXPECT_EQ(ctx, nullptr);
  EXPECT_TRUE(back == data);
}

TEST_F(Cflate, ErrorsLeaveTheStreamOpenUntilClosed) {
  unsigned char garbage[] = "this is not a zlib stream";
  unsigned char out[64];
  void* ctx = nullptr;
  unsigned inLength = sizeof(garbage), outLength = sizeof(out);
  EXPECT_EQ(cflate(Inflate, &ctx, garbage, &inLength, out, &outLength, 0), Z_DATA_ERROR_);
  ASSERT_NE(ctx, nullptr);
  outLength = sizeof(out);
  EXPECT_EQ(cflate(Inflate, &ctx, garbage, &inLength, out, &outLength, 0), Z_DATA_ERROR_);
  EXPECT_NE(ctx, nullptr);
  EXPECT_EQ(cflate(Inflate | Close, &ctx, nullptr, &inLength, out, &outLength, 0), 0);
  EXPECT_EQ(ctx, nullptr);

  // A level zlib refuses: the context stays, and its close reports the
  // refusal again.
  inLength = 3;
  outLength = sizeof(out);
  EXPECT_EQ(cflate(0, &ctx, garbage, &inLength, out, &outLength, 42), Z_STREAM_ERROR_);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(cflate(Close, &ctx, nullptr, &inLength, out, &outLength, 42), Z_STREAM_ERROR_);
  EXPECT_EQ(ctx, nullptr);

  // No input and nothing pending: zlib's own answer comes back unmapped.
  inLength = 0;
  outLength = sizeof(out);
  EXPECT_EQ(cflate(Inflate, &ctx, nullptr, &inLength, out, &outLength, 0), Z_BUF_ERROR_);
  EXPECT_EQ(cflate(Inflate | Close, &ctx, nullptr, &inLength, out, &outLength, 0), 0);
}

// The system's zlib, by way of Python, reads what cflate writes and writes
// what cflate reads.
TEST_F(Cflate, InterworksWithTheSystemZlib) {
  char dir[] = "/tmp/cflate_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string a = std::string(dir) + "/a", b = std::string(dir) + "/b";
  Bytes data = Data(300000, 7);
  auto write = [](const std::string& name, const Bytes& d) {
    std::ofstream(name, std::ios::binary).write((const char*)d.data(), (std::streamsize)d.size());
  };
  auto read = [](const std::string& name) {
    std::ifstream f(name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  };
  auto python = [&](const char* op) {
    std::string cmd = std::string("python3 -c 'import sys,zlib; open(sys.argv[2],\"wb\").write(zlib.") +
                      op + "(open(sys.argv[1],\"rb\").read()))' " + a + " " + b;
    return system(cmd.c_str());
  };
  write(a, Run(0, data, 40000, 4096, 9));
  ASSERT_EQ(python("decompress"), 0);
  EXPECT_TRUE(read(b) == data);
  write(a, data);
  ASSERT_EQ(python("compress"), 0);
  EXPECT_TRUE(Run(Inflate, read(b), 4096, 10000) == data);
  unlink(a.c_str());
  unlink(b.c_str());
  rmdir(dir);
}

}  // namespace
