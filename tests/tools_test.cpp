// What packagers run: tools/Bundle.java.
#include "tests/bundle_fixture.h"

using testing::AllOf, testing::EndsWith, testing::HasSubstr;

namespace {

struct Bundle : BundleFixture {
  Bundle() { setenv("K", (bin + "/kestrel").c_str(), 1); }

  std::string outputOf(const std::string& line, int status = 0) {
    const Process process = run("cd $ROOT || exit; " + line);
    EXPECT_EQ(process.ending, exited(status)) << line << "\n" << process;
    return process.output;
  }
};

}  // namespace
