// The library as the interpreter sees it: a shared object opened with
// dlopen and reached only through its exports. The typed calls keep the
// ownership the exports define: a block the host passes stays the host's,
// and every block that comes back is decoded, then given back through
// FreeUsedOrvaneResult.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/value.h"
#include "host/zblock.h"

namespace host {

// The exports, as C signatures.
struct Exports {
  using CallFn = int32_t (*)(char* root, char* verb, uint32_t** ppRight, uint32_t** ppLeft);
  using XLateFn = int32_t (*)(char* aplName, char* hostName, char* av2Asc, char* asc2Av);
  using CflateFn = int32_t (*)(int flags, void** ctx, unsigned char* in, unsigned* inLength,
                               unsigned char* out, unsigned* outLength, int level);

  void (*onLoad)() = nullptr;
  void (*onUnload)() = nullptr;
  int32_t (*Version)(uint32_t* ver) = nullptr;
  int32_t (*Init)(char* root, char* path) = nullptr;
  CallFn Call = nullptr;
  CallFn Call1 = nullptr;
  CallFn Call2 = nullptr;
  void (*FreeUsedOrvaneResult)(void* p) = nullptr;
  int32_t (*KickStart)(char* root) = nullptr;
  double (*Micros)() = nullptr;
  XLateFn SetXLate = nullptr;
  XLateFn GetXLate = nullptr;
  CflateFn cflate = nullptr;
  void* (*Zuno2Init)(void* config) = nullptr;
};

// The names of the exports above, in their order.
extern const char* const kExportNames[14];

// What one call gives back.
struct CallResult {
  int32_t rc = 0;
  Value result;
  // The block the library stored in the left slot, when it stored one.
  std::optional<Value> left;
  // The bytes of the returned blocks, as they came.
  ZBlock resultBlock;
  ZBlock leftBlock;
  // Why a returned block didn't decode; empty when all went well.
  std::string error;

  bool ok() const { return rc == 0 && error.empty(); }
};

// The three dispatch entries, which share one signature.
enum class Door { Call, Call1, Call2 };

class Library {
 public:
  // Opens the shared object and resolves every export; null with the
  // reason in *error when the object or an export is missing.
  static std::unique_ptr<Library> Open(const std::string& path, std::string* error = nullptr);
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  const std::string& path() const { return path_; }
  // The bare function pointers, for tests of the ABI itself.
  const Exports& raw() const { return fn_; }

  int32_t Version(std::array<uint32_t, 3>* parts = nullptr) const;
  std::string VersionText() const;  // "3.1.1479"
  int32_t Init(const std::string& root, const std::string& path = "");
  int32_t KickStart(const std::string& root);
  double Micros() const;

  // Monadic and dyadic calls through Call.
  CallResult Call(const std::string& root, const std::string& verb, const Value& right);
  CallResult Call(const std::string& root, const std::string& verb, const Value& left, const Value& right);
  // Call1 with no left argument: the code comes back in the left slot too.
  CallResult Call1(const std::string& root, const std::string& verb, const Value& right);
  // Any door with blocks of the caller's making; a null block is an absent
  // argument. The blocks stay the caller's and are left as they were.
  CallResult CallBlocks(Door door, const std::string& root, const std::string& verb, ZBlock* right,
                        ZBlock* left);

 private:
  Library() = default;

  void* handle_ = nullptr;
  std::string path_;
  Exports fn_;
};

// Where a host program finds the library: the environment variable
// PELKO_LIBRARY, then ../lib/pelko31_64.so beside the running executable,
// then `builtIn`. The first that exists wins; `builtIn` if none does.
std::string FindLibrary(const std::string& builtIn);

// The name of a return code ("ERR_VALUE"), or "" for a number without one.
const char* ErrorName(int32_t code);

}  // namespace host
