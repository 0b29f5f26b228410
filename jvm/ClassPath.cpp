#include "jvm/ClassPath.h"

#include <dirent.h>

#include "logging/Logging.h"
#include "platform/InstallDir.h"

const char CLASSPATH_SEPARATOR[] = ":";
const char CLASSPATH_SEPARATOR_FOR_LOGS[] = "\n";

std::string collectJars(const std::string& dir) {
  std::string classPath;
  DIR* directory = opendir(dir.c_str());
  if (directory == nullptr) {
    LOG_RECORD(ERROR, "collectJars") << "Directory " << dir << " is missing or not accessible";
    return classPath;
  }
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (!endsWith(name, ".jar")) continue;
    if (!classPath.empty()) classPath += CLASSPATH_SEPARATOR;
    classPath.append(dir).append(name);
  }
  closedir(directory);
  return classPath;
}

bool endsWith(const std::string& s, const std::string& suffix) { return s.ends_with(suffix); }

std::string string_replace(std::string s, const std::string& from, const std::string& to) {
  if (from.empty()) return s;
  // In place; linear when both texts have the same length, as the separators do.
  for (std::size_t i = 0; (i = s.find(from, i)) != std::string::npos; i += to.size()) {
    s.replace(i, from.size(), to);
  }
  return s;
}

void addClassPathOptions(JVMOptions& options) {
  // The trailing slash and the ".." are kept wherever this path is used.
  const std::string installDir = OS::getApplicationInstallDir();
  const std::string libraryDir = installDir + "/../lib/";
  const std::string classPath = collectJars(libraryDir);
  LOG_RECORD(DEBUG, "startJVM") << "Using class path: "
                                << string_replace(classPath, CLASSPATH_SEPARATOR,
                                                  CLASSPATH_SEPARATOR_FOR_LOGS);

  addOption(options, "-Dkestrel.jars.path=" + libraryDir);
  // JNA must load its native library from the install directory only: it must not unpack one from a
  // jar, use the system's copy or search the class path.
  addOption(options, "-Djna.nounpack=true");
  addOption(options, "-Djna.nosys=true");
  addOption(options, "-Djna.noclasspath=true");
  addOption(options, "-Djava.class.path=" + classPath);
  addOption(options, "-Djna.library.path=" + installDir);
  addOption(options, "-Djna.boot.library.path=" + installDir);
  addOption(options, "-Dplume.library.path=" + installDir);
  addOption(options, "-Duser.dir=" + installDir);
}
