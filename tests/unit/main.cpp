// Runs the tests of one module, in the sandbox only: some of them remove and create the shared
// memory of a service that may be running outside.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const char* const sandbox = std::getenv("NIMBUS_SANDBOX");
  if (!testing::GTEST_FLAG(list_tests) && (sandbox == nullptr || std::strcmp(sandbox, "1") != 0)) {
    std::fprintf(stderr, "the unit tests run in the sandbox only: tools/sandbox/enter %s\n",
                 argv[0]);
    return EXIT_FAILURE;
  }
  return RUN_ALL_TESTS();
}
