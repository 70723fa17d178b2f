// The main() of the programs that also run as their own children.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "child_process.h"

int main(int argc, char** argv) {
  rememberProgram(argv[0]);
  if (argc > 1 && std::strncmp(argv[1], "child", 5) == 0) {
    return runAsChild(std::vector<std::string>(argv + 1, argv + argc));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
