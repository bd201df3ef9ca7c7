// pelkohost: a stand-in for the interpreter. It loads the library the way the
// interpreter does and drives it through its exports.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/demo.h"
#include "host/library.h"
#include "host/linkcmd.h"
#include "host/serve.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: pelkohost version         the library's version\n"
          "       pelkohost demo [SCENE...] the end-to-end tour, or some of its scenes\n"
          "       pelkohost scenes          the scenes of the tour\n"
          "       pelkohost serve [DIR] [--address A] [--port N] [--cert FILE --key FILE]\n"
          "                                 a web server for DIR, with a WebSocket echo\n"
          "       pelkohost link SETTING [--config FILE]\n"
          "                                 one end of a debug link session\n"
          "The library is PELKO_LIBRARY, else ../lib/pelko31_64.so beside this program,\n"
          "else %s\n",
          PELKO_BUILT_LIBRARY);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  std::string command = argv[1];
  if (command == "scenes") {
    for (const demo::Scene& s : demo::Scenes()) printf("%-10s %s\n", s.name, s.title);
    return 0;
  }
  serve::Options options;
  if (command == "serve" && !serve::ParseArgs(argc - 2, argv + 2, &options)) return serve::Usage();
  linkcmd::Options linkOptions;
  if (command == "link" && !linkcmd::ParseArgs(argc - 2, argv + 2, &linkOptions)) return linkcmd::Usage();
  if (command != "version" && command != "demo" && command != "serve" && command != "link") return Usage();
  std::string error;
  std::string path = host::FindLibrary(PELKO_BUILT_LIBRARY);
  std::unique_ptr<host::Library> lib = host::Library::Open(path, &error);
  if (!lib) {
    fprintf(stderr, "pelkohost: cannot load %s: %s\n", path.c_str(), error.c_str());
    return 1;
  }
  if (command == "version") {
    printf("%s\n", lib->VersionText().c_str());
    return 0;
  }
  if (command == "serve") return serve::Run(*lib, options);
  if (command == "link") return linkcmd::Run(*lib, linkOptions);
  return demo::Run(*lib, std::vector<std::string>(argv + 2, argv + argc));
}
