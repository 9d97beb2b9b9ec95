// Tests of permissions, which root has all of.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace zel::test {

// Gives away what root may do, for as long as it lives.
class Unprivileged {
 public:
  Unprivileged() { EXPECT_EQ(seteuid(getuid() == 0 ? 65534 : getuid()), 0); }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;
  ~Unprivileged() { EXPECT_EQ(seteuid(getuid()), 0); }
};

// Lets everybody into the directories `temp` and `dir`, and nobody read the latter's file `name`.
inline void sealFile(const std::string& temp, const std::string& dir, const std::string& name) {
  EXPECT_EQ(chmod(temp.c_str(), 0755), 0);
  EXPECT_EQ(chmod(dir.c_str(), 0755), 0);
  EXPECT_EQ(chmod((dir + "/" + name).c_str(), 0), 0);
}

}  // namespace zel::test
