// What the sources and the documents have to agree on.
#include "tests/bundle_fixture.h"

namespace {

using Documents = BundleFixture;

TEST_F(Documents, ReadmeHasEachEnvironmentVariable) {
  EXPECT_EQ(outputOf(R"sh(cd "$PROJECT"
      cat launcher/*.cpp java_entry/*.cpp jvm/*.cpp logging/*.cpp platform/*.cpp |
        sed -n 's/.*getenv("\([A-Z_]*\)").*/\1/p' >$ROOT/variables
      grep -q TMPDIR $ROOT/variables || echo 'no variables found'
      while read -r name; do grep -q "\`$name\`" README.md || echo "$name"; done <$ROOT/variables)sh"),
            "");
}

TEST_F(Documents, TroubleshootingHasEachFailureOfTheJavaEntry) {
  EXPECT_EQ(outputOf(R"sh(cd "$PROJECT"
      sed -n '/^enum Failure/,/}/s/.* = \([0-9]*\),/\1/p' java_entry/KestrelJVMApp.cpp >$ROOT/statuses
      grep -q 103 $ROOT/statuses || echo 'no statuses found'
      while read -r status; do
        grep -q "^- Status: .*$status" docs/troubleshooting.md || echo "$status"
      done <$ROOT/statuses)sh"),
            "");
}

}  // namespace
