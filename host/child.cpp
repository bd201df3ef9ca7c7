#include "host/child.h"

#include <unistd.h>

#include <cstdlib>

namespace host {

Child Spawn(const std::string& path, const std::vector<std::string>& argv,
            const std::vector<std::pair<std::string, std::string>>& env) {
  Child c;
  int i[2], o[2];
  if (pipe(i) != 0) return c;
  if (pipe(o) != 0) {
    close(i[0]);
    close(i[1]);
    return c;
  }
  c.pid = fork();
  if (c.pid == 0) {
    dup2(i[0], 0);
    dup2(o[1], 1);
    dup2(o[1], 2);
    close(i[1]);
    close(o[0]);
    for (const auto& v : env) setenv(v.first.c_str(), v.second.c_str(), 1);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back((char*)a.c_str());
    args.push_back(nullptr);
    execv(path.c_str(), args.data());
    _exit(127);
  }
  close(i[0]);
  close(o[1]);
  c.in = i[1];
  c.out = o[0];
  return c;
}

}  // namespace host
