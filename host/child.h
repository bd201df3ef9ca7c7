// A child process on pipes: what the host programs and the tests start
// when they need a second process of their own.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace host {

struct Child {
  pid_t pid = -1;
  int in = -1;   // its standard input
  int out = -1;  // its standard output and errors
};

// Runs the program at path with argv (argv[0] included) and the variables
// of env set; pid stays -1 when it could not be started.
Child Spawn(const std::string& path, const std::vector<std::string>& argv,
            const std::vector<std::pair<std::string, std::string>>& env);

}  // namespace host
