// What the sources and the documents have to agree on.
#include <set>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;
using testing::IsSupersetOf;

namespace {

// The first group of each match in `text`.
std::set<std::string> allMatches(const std::string& text, const std::string& expression) {
  const std::regex regex(expression);
  std::set<std::string> found;
  for (auto match = std::sregex_iterator(text.begin(), text.end(), regex);
       match != std::sregex_iterator(); ++match) {
    found.insert((*match)[1]);
  }
  return found;
}

TEST(Documents, ReadmeHasEachEnvironmentVariable) {
  std::string sources;
  for (const std::string folder : {"launcher", "java_entry", "jvm", "logging", "platform"}) {
    for (const auto& file : fs::directory_iterator(PROJECT "/" + folder)) {
      sources += contentOf(file.path());
    }
  }
  const std::set<std::string> variables = allMatches(sources, R"re(getenv\("([^"]+)"\))re");
  EXPECT_THAT(variables, IsSupersetOf({"HOME", "TMPDIR", "NORVALED_JVM_ARGS"}));
  EXPECT_THAT(allMatches(contentOf(PROJECT "/README.md"), "`([A-Z_]+)`"), IsSupersetOf(variables));
}

TEST(Documents, TroubleshootingHasEachFailureOfTheJavaEntry) {
  const std::string source = contentOf(PROJECT "/java_entry/KestrelJVMApp.cpp");
  std::smatch failures;
  ASSERT_TRUE(std::regex_search(source, failures, std::regex("enum Failure \\{([^}]+)\\}")));
  const std::set<std::string> statuses = allMatches(failures[1], "= ([0-9]+)");
  EXPECT_THAT(statuses, IsSupersetOf({"103"}));
  EXPECT_THAT(allMatches(contentOf(PROJECT "/docs/troubleshooting.md"), R"(\b([0-9]+)\b)"),
              IsSupersetOf(statuses));
}

}  // namespace
