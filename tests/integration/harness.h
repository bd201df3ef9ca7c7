// Shared by the integration tests: the library under test, opened once for
// the process through the host toolkit, and roots under fresh names.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "host/library.h"

namespace pelkotest {

// The library built with these tests. It stays open for the whole process,
// as it does in the interpreter.
inline host::Library& Lib() {
  static std::unique_ptr<host::Library> lib = [] {
    std::string error;
    std::unique_ptr<host::Library> l = host::Library::Open(PELKO_LIBRARY_PATH, &error);
    if (!l) {
      fprintf(stderr, "cannot load %s: %s\n", PELKO_LIBRARY_PATH, error.c_str());
      abort();
    }
    return l;
  }();
  return *lib;
}

// Starts a root under a name no other test uses, and gives the name back.
inline std::string NewRoot(const std::string& stem) {
  static int serial = 0;
  std::string name = stem + std::to_string(++serial);
  EXPECT_EQ(Lib().Init(name, PELKO_LIBRARY_PATH), 0) << name;
  return name;
}

// A fresh directory under /tmp, removed with all it holds at the end of its
// scope.
struct TempDir {
  std::string path;
  TempDir() {
    char tmpl[] = "/tmp/pelkotestXXXXXX";
    path = mkdtemp(tmpl) ? tmpl : "";
  }
  ~TempDir() {
    if (!path.empty() && system(("rm -rf '" + path + "'").c_str()) != 0) perror("rm");
  }
  // Writes a file in it; gives the file's path.
  std::string Add(const std::string& name, const std::string& text) const {
    std::ofstream(path + "/" + name) << text;
    return path + "/" + name;
  }
};

// A root under a fresh name for the scope of a test, closed at its end.
struct Root {
  std::string name;
  explicit Root(const std::string& stem) : name(NewRoot(stem)) {}
  ~Root() { Lib().Call(name, "AClose", host::Value::Text(".")); }
  operator const std::string&() const { return name; }
};

}  // namespace pelkotest
