package bundler;

import java.io.IOException;
import java.lang.module.ModuleFinder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import java.util.zip.ZipOutputStream;

/** The Java runtime of a bundle: made by jlink from this JDK, copied, or a link to one. */
final class JavaRuntime {
  private static final int OLDEST_VERSION = 17;
  private static final Path JDK = Path.of(System.getProperty("java.home"));
  private static final String FAST_START = "-J-XX:TieredStopAtLevel=1"; // the tools run briefly
  private static final Pattern VERSION = Pattern.compile("JAVA_VERSION=\"([0-9]+)");
  private static final Pattern MODULE_LIST = Pattern.compile("[A-Za-z0-9_.]+(,[A-Za-z0-9_.]+)*");
  private static final Pattern DEBUG_FILE = Pattern.compile(".*\\.(debuginfo|diz|dSYM)");
  private static final long MOST_CLASS_BYTES = 2L << 30;

  private final Options options;
  /** The runtime that the user gives, if there is one: its folder with bin and lib. */
  private final Optional<Path> given;
  /** The Java version; nothing if the bundle has no runtime of its own. */
  final Optional<Integer> version;

  /** @param codeName of native code that suits the bundle */
  JavaRuntime(Options options, String codeName) throws IOException {
    this.options = options;
    given = options.path("--runtime-image").map(JavaRuntime::homeIn);
    version = switch (options.command) {
      case BUNDLE -> Optional.of(
          given.isPresent() ? versionOf(given.get()) : Runtime.version().feature());
      case MACOS -> given.isPresent() ? Optional.of(versionOf(given.get())) : Optional.empty();
      case TRIAL -> Optional.empty();
    };
    if (given.isPresent() && version.isPresent()) {
      Path library = given.get().resolve(
          codeName.endsWith("Macs") ? "lib/libjli.dylib" : "lib/server/libjvm.so");
      if (Files.notExists(library)) {
        throw new UserError(given.get() + " is not a Java runtime for this bundle, since "
            + library + " is missing");
      }
      NativeCode.check(library, codeName);
      Path program = given.get().resolve("bin/java");
      boolean isRun = options.command == Options.Command.BUNDLE && !options.has("--no-archive");
      if (isRun && !Files.isExecutable(program)) {
        throw new UserError(program + " is missing, which only --no-archive does without");
      }
    }
    for (String module : addedModules()) {
      if (ModuleFinder.ofSystem().find(module).isEmpty()) {
        throw new UserError("--add-modules: " + JDK + " has no module " + module);
      }
    }
  }

  /** A JDK's folder, or its subfolder Contents/Home where it is packed for Macs. */
  private static Path homeIn(Path folder) {
    Path home = folder.resolve("Contents/Home");
    return Files.isDirectory(home) ? home : folder;
  }

  private static int versionOf(Path home) throws IOException {
    Matcher matcher = VERSION.matcher(FileTrees.readIfExists(home.resolve("release")));
    if (!matcher.find()) {
      throw new UserError(home + " is not a Java runtime: its file `release` names no version");
    }
    int version = Integer.parseInt(matcher.group(1));
    if (version < OLDEST_VERSION) {
      throw new UserError(home + " is older than JDK " + OLDEST_VERSION);
    }
    return version;
  }

  private List<String> addedModules() {
    Optional<String> names = options.checked(
        "--add-modules", MODULE_LIST.pattern(), "names of modules, separated by commas");
    return names.isPresent() ? List.of(names.get().split(",")) : List.of();
  }

  /** Adds the runtime to a bundle that already contains the jars. */
  void addTo(Layout bundle, WorkFolder work) throws IOException {
    Files.createDirectories(bundle.runtimeContents().getParent());
    if (options.command == Options.Command.TRIAL) {
      makeLinks(bundle);
    } else if (given.isPresent()) {
      copyTo(bundle);
    } else if (options.command == Options.Command.BUNDLE) {
      runJlink(bundle, work);
    }
    Path library = bundle.launcherLibrary();
    if (options.command == Options.Command.BUNDLE && Files.notExists(library)) {
      // On Linux the JVM's own library exports the function that the launcher calls.
      Files.createSymbolicLink(library, Path.of("server/libjvm.so"));
    }
  }

  private void makeLinks(Layout bundle) throws IOException {
    Path home = given.orElseThrow(() -> new UsageError("--runtime-image is missing"));
    if (Files.exists(home.resolve("lib/libjli.dylib"))) {
      Files.createDirectory(bundle.runtimeContents());
      Files.createSymbolicLink(bundle.runtimeHome(), home);
    } else {
      Files.createDirectories(bundle.launcherLibrary().getParent());
      Files.createSymbolicLink(bundle.launcherLibrary(), home.resolve("lib/server/libjvm.so"));
    }
  }

  private void copyTo(Layout bundle) throws IOException {
    Path home = given.orElseThrow();
    if (home.endsWith("Contents/Home")) { // with what a JDK for Macs has around it
      FileTrees.copy(home.getParent(), bundle.runtimeContents());
    } else {
      Files.createDirectory(bundle.runtimeContents());
      FileTrees.copy(home, bundle.runtimeHome());
    }
    for (Path path : FileTrees.all(bundle.runtimeHome())) { // what only the JVM's debuggers read
      if (DEBUG_FILE.matcher(path.getFileName().toString()).matches()) {
        FileTrees.delete(path);
      }
    }
  }

  private void runJlink(Layout bundle, WorkFolder work) throws IOException {
    // java.desktop: the launcher opens its packages; jdk.jdwp.agent: a debugger's port needs it.
    Set<String> modules = new TreeSet<>(List.of("java.base", "java.desktop", "jdk.jdwp.agent"));
    Output.say("looking for the modules that the jars use");
    modules.addAll(usedModules(bundle, work));
    modules.addAll(addedModules());
    String names = String.join(",", modules);
    Output.say("linking a runtime with modules " + names);
    Files.createDirectory(bundle.runtimeContents());
    Program.Result jlink = tool(work, "jlink", List.of("--add-modules", names,
        "--no-header-files", "--no-man-pages", "--exclude-files=**.debuginfo,**.diz",
        "--output", bundle.runtimeHome().toString()));
    if (jlink.status() != Program.SUCCESS) {
      throw new UserError("jlink of " + JDK + " fails:" + jlink.excerpt());
    }
  }

  private List<String> usedModules(Layout bundle, WorkFolder work) throws IOException {
    Program.Result jdeps =
        jdeps(bundle, work, List.of("--ignore-missing-deps", "--print-module-deps"));
    String output = jdeps.output().strip();
    String modules = output.substring(output.lastIndexOf('\n') + 1);
    if (jdeps.status() != Program.SUCCESS || !MODULE_LIST.matcher(modules).matches()) {
      Output.warn("jdeps cannot analyse the jars, so all of Java SE is included:"
          + jdeps.excerpt());
      return List.of("java.se", "jdk.unsupported");
    }
    return List.of(modules.split(","));
  }

  /** Tells the user if the jars use windows, which do not open on a Mac. */
  void warnOfWindows(Layout bundle, WorkFolder work) throws IOException {
    Program.Result jdeps =
        jdeps(bundle, work, List.of("--regex", "(java\\.awt|javax\\.swing|javafx\\.stage).*"));
    if (jdeps.status() == Program.SUCCESS && !jdeps.output().isBlank()) {
      Output.warn("the jars use AWT, Swing or JavaFX, whose windows do not open on a Mac");
    }
  }

  /** Lets jdeps read the bundle's jars. */
  private Program.Result jdeps(Layout bundle, WorkFolder work, List<String> request)
      throws IOException {
    Path folder = work.emptyFolder("classes");
    List<String> names = new ArrayList<>();
    long size = 0;
    for (Path jar : FileTrees.entries(bundle.jars())) {
      Path classes = folder.resolve(jar.getFileName());
      size += copyClasses(jar, classes, MOST_CLASS_BYTES - size);
      names.add(classes.toString());
    }
    List<String> arguments = new ArrayList<>(List.of("-q", "--multi-release",
        Integer.toString(Runtime.version().feature()),
        "--class-path", String.join(":", names)));
    arguments.addAll(request);
    arguments.addAll(names);
    return tool(work, "jdeps", arguments);
  }

  /**
   * Copies what jdeps needs, and returns its size in bytes. The launcher puts all jars on the class
   * path, where the JVM ignores module descriptors; with them, jdeps fails if a module that one of
   * them requires is missing.
   */
  private static long copyClasses(Path jar, Path target, long most) throws IOException {
    long size = 0;
    try (ZipFile zip = new ZipFile(jar.toFile());
        ZipOutputStream copy = new ZipOutputStream(Files.newOutputStream(target))) {
      copy.setLevel(1); // it is read once
      Set<String> names = new HashSet<>();
      for (ZipEntry entry : Collections.list(zip.entries())) {
        String name = entry.getName();
        boolean isNeeded = name.equals("META-INF/MANIFEST.MF")
            || (name.endsWith(".class") && !name.endsWith("module-info.class"));
        if (isNeeded && names.add(name)) { // some jars have an entry twice
          size += entry.getSize();
          if (size > most) {
            throw new UserError(
                "the jars contain more than " + MOST_CLASS_BYTES + " bytes of classes: " + jar);
          }
          copy.putNextEntry(new ZipEntry(name));
          zip.getInputStream(entry).transferTo(copy);
        }
      }
    }
    return size;
  }

  private Program.Result tool(WorkFolder work, String name, List<String> arguments)
      throws IOException {
    List<String> all = new ArrayList<>(List.of(FAST_START));
    all.addAll(arguments);
    Path program = JDK.resolve("bin").resolve(name);
    return new Program(work, options.has("--verbose"), program, all).run();
  }

  /** Deletes the programs of a runtime that jlink has made: an application needs none to run. */
  void removePrograms(Layout bundle) {
    if (given.isEmpty() && !options.has("--keep-java")) {
      FileTrees.delete(bundle.runtimeHome().resolve("bin"));
    }
  }
}
