// What of the JVM's creation no start of the launcher reaches: file-local functions, the args file,
// failing system calls.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

namespace {

long pageSize = 0;
bool isMemoryOut = false;
int freed = 0;

long fakeSysconf(int name) { return name == _SC_PAGESIZE ? pageSize : -1; }
void* fakeMalloc(std::size_t size) { return isMemoryOut ? nullptr : std::malloc(size); }

void countedFree(void* block) {
  ++freed;
  std::free(block);
}

}  // namespace

#include <gtest/gtest.h>

#include "bundle.h"
#define malloc fakeMalloc
#include "jvm/JVMOptions.cpp"
#undef malloc
#define free countedFree
#define sysconf fakeSysconf
#include "jvm/KestrelJVMHost.cpp"
#undef sysconf
#undef free

namespace {

TEST(StackSize, IsEightPagesButNotBelowTheFloor) {
  const std::pair<long, const char*> rows[] = {
      {4096, "-Xss384k"},  {16384, "-Xss384k"}, {50000, "-Xss384k"}, {50176, "-Xss392k"},
      {65536, "-Xss512k"}, {1000, "-Xss384k"},  {0, "-Xss384k"},     {-1, "-Xss384k"}};
  for (const auto& [bytes, option] : rows) {
    pageSize = bytes;
    EXPECT_EQ(computeStackSizeOpt(), option) << bytes;
  }
}

// Each test is a process of its own, with a log and a scripted JVM of its own.
class Host : public testing::Test {
 protected:
  Host() {
    setEnvironment(bundle.ownEnvironment());
    setenv("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", bundle.bin.c_str(), 1);
    initialize_logging(false);
  }
  std::string messages() const { return messagesOf(readFile(bundle.log)); }

  // The options that a start gives the JVM before those of the class path.
  std::string userOptions(const std::string& argsFile = "") const {
    fs::remove(bundle.root / "calls");
    EXPECT_NE(KestrelJVMHost::startJVM(argsFile), nullptr);
    const std::string calls = readFile(bundle.root / "calls");
    return calls.substr(0, calls.find(" -Dkestrel.jars.path=")).substr(sizeof "CreateJavaVM");
  }

  const Bundle bundle;
};

int print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = jvm_vprintf(nullptr, format, arguments);
  va_end(arguments);
  return length;
}

TEST_F(Host, HooksWriteTheJvmsWordsIntoTheLog) {
  EXPECT_EQ(print("%s occurred\n", "Error"), 15);
  EXPECT_EQ(print("%s", std::string(2000, 'x').c_str()), 2000);
  jvm_exit(3);
  jvm_abort();
  EXPECT_EQ(messages(),
            " jvm_vprintf JVM:  Error occurred\n\n jvm_vprintf JVM:  " + std::string(1019, 'x') +
                "\n jvm_exit JVM: exit( 3 )\n jvm_abort JVM: abort()\n");
}

TEST_F(Host, DebugPortIsReadAsANumber) {
  const std::string agent = "-Xmx160m -agentlib:jdwp=transport=dt_socket,server=y,suspend=";
  const std::string any = agent + "n,address=*:0", wait = agent + "y,address=*:";
  const std::string anyPort = "n on any available port\n", onPort = "y on port  ";
  const std::string rows[][4] = {// the value, the options, the value left behind, the record
                                 {"5005x", wait + "5005", "0", onPort + "5005\n"},
                                 {" 05005", wait + "5005", "0", onPort + "5005\n"},
                                 {"-5", wait + "-5", "0", onPort + "-5\n"},
                                 {"0", any, "0", anyPort},
                                 {"abc", any, "abc", anyPort},
                                 {" ", any, " ", anyPort},
                                 {"99999999999", any, "99999999999", anyPort},
                                 {"", "-Xmx160m", "", ""}};
  for (const auto& [value, options, left, record] : rows) {
    fs::remove(bundle.log);
    setenv("NORVALED_DEBUG_PORT", value.c_str(), 1);
    EXPECT_EQ(userOptions(), options);
    EXPECT_EQ(std::getenv("NORVALED_DEBUG_PORT"), left);
    const std::string logged = from(readFile(bundle.log), "Enabling JDWP with suspend=");
    EXPECT_EQ(logged.substr(0, logged.find('\n') + 1),
              record.empty() ? "" : "Enabling JDWP with suspend=" + record);
  }
}

TEST_F(Host, UsersOptionsKeepTheirOrder) {
  const fs::path file = bundle.root / "args";
  writeFile(file, "-Xmx2g -x\n\n  -Da=1\r");
  setenv("NORVALED_DEBUG_PORT", "0", 1);
  setenv("NORVALED_JVM_ARGS", "  -Db=2\t-Xms64m \v\f\r\n", 1);
  EXPECT_EQ(userOptions(file),
            "-Xmx160m -Xmx2g -x    -Da=1\r -agentlib:jdwp=transport=dt_socket,"
            "server=y,suspend=n,address=*:0 -Db=2 -Xms64m");
  EXPECT_TRUE(contains(messages(), " startJVM Adding JVM args from NORVALED_JVM_ARGS:    -Db=2\t"));
  setenv("NORVALED_DEBUG_PORT", "", 1);
  setenv("NORVALED_JVM_ARGS", "", 1);
  writeFile(file, "-Dlast\n");
  fs::remove(bundle.log);
  EXPECT_EQ(userOptions(file), "-Xmx160m -Dlast");
  EXPECT_FALSE(contains(readFile(bundle.log), "NORVALED_JVM_ARGS"));

  fs::remove(file);
  fs::remove(bundle.root / "calls");
  EXPECT_EQ(KestrelJVMHost::startJVM(file), nullptr);
  EXPECT_TRUE(contains(readFile(bundle.log),
                       " startJVM Unable to open jvm args file:  " + file.string() + "\n"));
  EXPECT_FALSE(fs::exists(bundle.root / "calls"));
}

TEST_F(Host, OptionsAreReleasedOnlyBehindACreation) {
  userOptions();
  const std::string args = from(messages(), " startJVM JVM Args:");
  EXPECT_EQ(freed, std::count(args.begin(), args.end(), '\t') - 1);
#ifdef __linux__  // where a lazily loaded library stays apart unless it is asked for
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), nullptr);
#endif
  freed = 0;
  setenv("SCRIPTED_JVM", "create=-1", 1);
  EXPECT_EQ(KestrelJVMHost::startJVM(""), nullptr);
  EXPECT_EQ(freed, 0);
}

TEST_F(Host, OutOfMemoryForOptionsReachesTheJvm) {
  isMemoryOut = true;
  EXPECT_EQ(userOptions().find("(null) (null) "), 0U);
  EXPECT_TRUE(contains(messages(), " startJVM JVM Args: \n\t\n\t\n"));
}

}  // namespace
