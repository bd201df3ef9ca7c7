// pelkohost link: one end of a debug link session, driven from the terminal.
#pragma once

#include <string>

#include "host/library.h"

namespace linkcmd {

struct Options {
  std::string setting;  // the ZUNO_INIT line
  std::string config;   // the ini file, or empty for the default
};

// Reads the words after "link"; false when they don't make sense.
bool ParseArgs(int argc, char** argv, Options* o);
int Usage();
// Holds the session until end of input or Ctrl-C; 0 then, 1 when the link
// could not start.
int Run(host::Library& lib, const Options& o);

}  // namespace linkcmd
