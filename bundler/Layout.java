package bundler;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** Where things are in a bundle; nothing else knows it. */
record Layout(Path root) {
  /** The name of the executable. */
  static final String LAUNCHER = "kestrel";

  Path contents() {
    return root.resolve("Contents");
  }

  Path launcher() {
    return contents().resolve("MacOS").resolve(LAUNCHER);
  }

  Path jars() {
    return contents().resolve("lib");
  }

  Path resources() {
    return contents().resolve("Resources");
  }

  Path runtimeContents() {
    return contents().resolve("jre/Contents");
  }

  Path runtimeHome() {
    return runtimeContents().resolve("Home");
  }

  /** The library of the Java runtime that the launcher loads. */
  Path launcherLibrary() {
    return runtimeHome().resolve("lib/libjli.dylib");
  }

  /** Refuses what must not be replaced by a bundle. */
  static void checkReplaceable(Path path) {
    if (path.toString().contains(":")) { // which would end an entry of the class path
      throw new UserError("the bundle's path must not contain a colon: " + path);
    }
    if (Files.isSymbolicLink(path)) {
      throw new UserError(path + " is a link; remove it");
    }
    if (Files.exists(path) && !Files.isDirectory(new Layout(path).contents())) {
      throw new UserError(path + " exists and is not a bundle");
    }
  }

  /** Puts everything but the Java runtime into the bundle. */
  void assemble(Path launcher, ApplicationFiles files, InfoPlist plist) throws IOException {
    Files.createDirectories(launcher().getParent());
    Files.createDirectories(jars());
    FileTrees.copy(launcher, launcher());
    for (Path jar : files.jars) {
      FileTrees.copy(jar, jars().resolve(jar.getFileName()));
    }
    if (files.entry.isPresent()) {
      files.entry.get().writeJar(jars().resolve(ApplicationFiles.ENTRY_JAR));
    }
    for (Path library : files.libraries) {
      FileTrees.copy(library, launcher().resolveSibling(library.getFileName()));
    }
    if (!files.resources.isEmpty()) {
      Files.createDirectories(resources());
    }
    for (Path resource : files.resources) {
      FileTrees.copy(resource, resources().resolve(resource.getFileName()));
    }
    plist.write(contents().resolve("Info.plist"));
  }
}
