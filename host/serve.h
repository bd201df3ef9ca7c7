// pelkohost serve: the static web and WebSocket echo server.
#pragma once

#include <string>

#include "host/library.h"

namespace serve {

struct Options {
  std::string dir = ".";
  std::string address = "127.0.0.1";
  std::string port = "8000";
  std::string cert, key;
};

// Reads the words after "serve"; false when they don't make sense.
bool ParseArgs(int argc, char** argv, Options* o);
int Usage();
// Serves until Ctrl-C; 0 then, 1 when it could not start.
int Run(host::Library& lib, const Options& o);

}  // namespace serve
