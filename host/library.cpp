// Opening the library and calling its exports with host blocks.
#include "host/library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

namespace host {

const char* const kExportNames[14] = {
    "onLoad", "onUnload", "Version", "Init", "Call", "Call1", "Call2", "FreeUsedOrvaneResult",
    "KickStart", "Micros", "SetXLate", "GetXLate", "cflate", "Zuno2Init"};

namespace {

// The library takes names as char*; it doesn't write through them, but the
// host keeps its own copies all the same.
std::vector<char> CString(const std::string& s) { return std::vector<char>(s.c_str(), s.c_str() + s.size() + 1); }

template <typename F>
bool Resolve(void* handle, const char* name, F* slot, std::string* error) {
  *slot = reinterpret_cast<F>(dlsym(handle, name));
  if (!*slot && error) *error = std::string("export missing: ") + name;
  return *slot != nullptr;
}

bool FileExists(const std::string& path) { return !path.empty() && access(path.c_str(), R_OK) == 0; }

}  // namespace

std::unique_ptr<Library> Library::Open(const std::string& path, std::string* error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    if (error) *error = dlerror();
    return nullptr;
  }
  std::unique_ptr<Library> lib(new Library());
  lib->handle_ = handle;
  lib->path_ = path;
  Exports& f = lib->fn_;
  bool ok = Resolve(handle, "onLoad", &f.onLoad, error) && Resolve(handle, "onUnload", &f.onUnload, error) &&
            Resolve(handle, "Version", &f.Version, error) && Resolve(handle, "Init", &f.Init, error) &&
            Resolve(handle, "Call", &f.Call, error) && Resolve(handle, "Call1", &f.Call1, error) &&
            Resolve(handle, "Call2", &f.Call2, error) &&
            Resolve(handle, "FreeUsedOrvaneResult", &f.FreeUsedOrvaneResult, error) &&
            Resolve(handle, "KickStart", &f.KickStart, error) && Resolve(handle, "Micros", &f.Micros, error) &&
            Resolve(handle, "SetXLate", &f.SetXLate, error) && Resolve(handle, "GetXLate", &f.GetXLate, error) &&
            Resolve(handle, "cflate", &f.cflate, error) && Resolve(handle, "Zuno2Init", &f.Zuno2Init, error);
  if (!ok) return nullptr;  // the destructor closes the handle
  return lib;
}

Library::~Library() {
  if (handle_) dlclose(handle_);
}

int32_t Library::Version(std::array<uint32_t, 3>* parts) const { return fn_.Version(parts ? parts->data() : nullptr); }

std::string Library::VersionText() const {
  std::array<uint32_t, 3> v{};
  Version(&v);
  return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]);
}

int32_t Library::Init(const std::string& root, const std::string& path) {
  std::vector<char> r = CString(root), p = CString(path);
  return fn_.Init(r.data(), p.data());
}

int32_t Library::KickStart(const std::string& root) {
  std::vector<char> r = CString(root);
  return fn_.KickStart(r.data());
}

double Library::Micros() const { return fn_.Micros(); }

CallResult Library::Call(const std::string& root, const std::string& verb, const Value& right) {
  ZBlock r = Encode(right);
  return CallBlocks(Door::Call, root, verb, &r, nullptr);
}

CallResult Library::Call(const std::string& root, const std::string& verb, const Value& left, const Value& right) {
  ZBlock r = Encode(right), l = Encode(left);
  return CallBlocks(Door::Call, root, verb, &r, &l);
}

CallResult Library::Call1(const std::string& root, const std::string& verb, const Value& right) {
  ZBlock r = Encode(right);
  return CallBlocks(Door::Call1, root, verb, &r, nullptr);
}

// Takes over a block the library handed back: copies and decodes it, then
// gives it back. The library states the size in the block itself.
static void Adopt(const Exports& fn, uint32_t* block, ZBlock* bytes, std::optional<Value>* value,
                  std::string* error) {
  *bytes = ZBlock(block, GetBE32(block));
  fn.FreeUsedOrvaneResult(block);
  std::string why;
  *value = Decode(*bytes, &why);
  if (!*value && error->empty()) *error = why;
}

CallResult Library::CallBlocks(Door door, const std::string& root, const std::string& verb, ZBlock* right,
                               ZBlock* left) {
  Exports::CallFn fn = door == Door::Call ? fn_.Call : door == Door::Call1 ? fn_.Call1 : fn_.Call2;
  std::vector<char> r = CString(root), v = CString(verb);
  uint32_t* passedRight = right ? right->words() : nullptr;
  uint32_t* passedLeft = left ? left->words() : nullptr;
  uint32_t* pRight = passedRight;
  uint32_t* pLeft = passedLeft;
  CallResult out;
  out.rc = fn(r.data(), v.data(), &pRight, &pLeft);
  if (pRight && pRight != passedRight) {
    std::optional<Value> result;
    Adopt(fn_, pRight, &out.resultBlock, &result, &out.error);
    if (result) out.result = std::move(*result);
  } else {
    out.error = "no result block came back";
  }
  if (pLeft && pLeft != passedLeft) Adopt(fn_, pLeft, &out.leftBlock, &out.left, &out.error);
  return out;
}

std::string FindLibrary(const std::string& builtIn) {
  const char* env = getenv("PELKO_LIBRARY");
  if (env && FileExists(env)) return env;
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    std::string dir(exe, (size_t)n);
    dir.erase(dir.find_last_of('/') + 1);
    char real[PATH_MAX];
    if (realpath((dir + "../lib/pelko31_64.so").c_str(), real) && FileExists(real)) return real;
  }
  return builtIn;
}

}  // namespace host
