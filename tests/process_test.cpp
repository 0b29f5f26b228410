// Starts of the launcher: command line, environment and bundle in; the log, the JVM's calls, output
// and exit status out.
#include <vector>

#include "tests/bundle_fixture.h"

namespace {

struct Launcher : BundleFixture {};

// From the first `words` on.
std::string from(const std::string& text, const std::string& words) {
  const std::size_t begin = text.find(words);
  return begin == std::string::npos ? text : text.substr(begin);
}

// Up to the end of the first `words`.
std::string upTo(const std::string& text, const std::string& words) {
  const std::size_t begin = text.find(words);
  return begin == std::string::npos ? text : text.substr(0, begin + words.size());
}

TEST_F(Launcher, EndsAsTheJavaEntryDoes) {
  const std::string success = R"( operator() JVM calling main
> AttachCurrentThread
> FindClass(com/norvale/app/daemon/entry/NativeLauncher)
> GetStaticMethodID(main([Ljava/lang/String;)V)
> FindClass(java/lang/String)
> NewObjectArray(2)
> NewStringUTF(<install>/kestrel)
> SetObjectArrayElement(0)
> NewStringUTF(two words)
> SetObjectArrayElement(1)
> CallStaticIntMethod
> ExceptionOccurred
 operator() JVM main ended
 operator() JVM started successfully
)";
  const std::string printing = R"(> ExceptionOccurred
> FindClass(java/lang/Throwable)
> GetMethodID(printStackTrace()V)
> CallVoidMethod
> DeleteLocalRef
> ExceptionClear
)";
  const std::string classMissing = " callMainMethod Failed to find  NativeLauncher  class\n";
  const std::string mainThrew = " callMainMethod Method ' main ' failed with exception!\n";
  struct Row {
    std::string script;
    int status;
    std::string lastAsInSuccess;  // the last line that is the same
    std::string then;
  };
  const std::vector<Row> rows = {
      {"status=0", 0, "started successfully\n", ""},
      {"status=1", 0, "main ended\n", " operator() JVM exit after startup is set, exiting\n"},
      {"status=-1", 255, "main ended\n", ""},
      {"status=7", 7, "ExceptionOccurred\n", ""},
      {"attach=-5", 103, "AttachCurrentThread\n",
       " callMainMethod Failed to attach native thread to JVM\n"},
      {"NativeLauncher=throws", 104, "/NativeLauncher)\n",
       classMissing + printing +
           " callMainMethod Finding  NativeLauncher  class failed with exception!\n"},
      {"NativeLauncher=missing", 105, "/NativeLauncher)\n", classMissing + "> ExceptionOccurred\n"},
      {"main=throws", 106, ")V)\n",
       " callMainMethod Failed to find method ' main ' on  NativeLauncher\n"},
      {"status=2 call=throws", 107, "CallStaticIntMethod\n",
       " callMainMethod Failed to invoke method ' main ' on the  NativeLauncher\n"},
      {"call=throws", 108, "CallStaticIntMethod\n", printing + mainThrew},
      {"call=throws Throwable=missing", 108, "CallStaticIntMethod\n",
       upTo(printing, "Throwable)\n") + " checkFailureAndLog Failed to find Throwable class\n" +
           mainThrew},
      {"call=throws printStackTrace=missing", 108, "CallStaticIntMethod\n",
       upTo(printing, ")V)\n") +
           " checkFailureAndLog Failed to find Throwable#printStackTrace class\n" + mainThrew},
  };
  for (const Row& row : rows) {
    std::string expected = upTo(success, row.lastAsInSuccess) + row.then;
    if (row.status >= 2 && row.status != 255) {
      expected += R"( operator() JVM main ended
 reportFatalAndExit Failed to initialize Kestrel JVM application: )" +
                  std::to_string(row.status) + "\n";
    }
    const Start ended = start("SCRIPTED_JVM='" + row.script + "' exec $K 'two words'", row.status);
    EXPECT_EQ(from(ended.log, " operator() JVM calling main"), expected) << row.script;
  }
}

}  // namespace
