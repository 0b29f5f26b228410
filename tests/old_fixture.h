// For the tests that are not written anew yet.
#include "tests/bundle_fixture.h"

struct OldFixture : BundleFixture {
  OldFixture() { setenv("K", (bin + "/kestrel").c_str(), 1); }

  std::string start(const std::string& line, int status = 0) {
    const Process process = launch(line);
    EXPECT_EQ(process.ending, exited(status)) << line << "\n" << process;
    output = process.output;
    return process.log;
  }

  std::string output;
};
