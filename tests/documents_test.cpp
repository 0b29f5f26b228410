// What the sources and the documents have to agree on.
#include <set>

#include "tests/bundle_fixture.h"

namespace fs = std::filesystem;

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
  EXPECT_TRUE(variables.contains("TMPDIR"));
  const std::set<std::string> documented =
      allMatches(contentOf(PROJECT "/README.md"), "`([A-Z_]+)`");
  for (const std::string& variable : variables) {
    EXPECT_TRUE(documented.contains(variable)) << variable << " is not in README.md";
  }
}

TEST(Documents, TroubleshootingHasEachFailureOfTheJavaEntry) {
  const std::string source = contentOf(PROJECT "/java_entry/KestrelJVMApp.cpp");
  std::smatch failures;
  ASSERT_TRUE(std::regex_search(source, failures, std::regex("enum Failure \\{([^}]+)\\}")));
  const std::set<std::string> statuses = allMatches(failures[1], "= ([0-9]+)");
  EXPECT_TRUE(statuses.contains("103"));
  const std::set<std::string> documented =
      allMatches(contentOf(PROJECT "/docs/troubleshooting.md"), R"(\b([0-9]+)\b)");
  for (const std::string& status : statuses) {
    EXPECT_TRUE(documented.contains(status)) << status << " is not in docs/troubleshooting.md";
  }
}

}  // namespace
