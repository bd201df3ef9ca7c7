// A fresh empty file under /tmp for a test; the test removes it.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

inline std::string TempFile(const char* stem) {
  std::string name = std::string("/tmp/") + stem + "XXXXXX";
  int fd = mkstemp(&name[0]);
  EXPECT_GE(fd, 0) << name;
  if (fd >= 0) close(fd);
  return name;
}
