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

}  // namespace
