package bundler;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
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

/** The Java runtime of a bundle: linked for it from this JDK, or copied into it. */
final class JavaRuntime {
  private static final Path JDK_TOOLS = Path.of(System.getProperty("java.home"), "bin");
  private static final String FAST_START = "-J-XX:TieredStopAtLevel=1"; // for tools that run briefly
  private static final Pattern VERSION = Pattern.compile("JAVA_VERSION=\"([0-9]+)");
  private static final Pattern MODULE_LIST = Pattern.compile("[A-Za-z0-9_.]+(,[A-Za-z0-9_.]+)*");
  private static final long MOST_CLASS_BYTES = 2L << 30;

  private final Options options;
  /** The runtime that the user gives, if there is one: its folder with bin and lib. */
  private final Optional<Path> given;

  JavaRuntime(Options options, String platform) throws IOException {
    this.options = options;
    given = options.path("--runtime-image").map(JavaRuntime::homeIn);
    if (given.isPresent()) {
      checkGiven(given.get(), platform);
    }
    for (String module : addedModules()) {
      if (ModuleFinder.ofSystem().find(module).isEmpty()) {
        throw new UserError("--add-modules: there is no module " + module + " in the JDK "
            + JDK_TOOLS.getParent());
      }
    }
  }

  /** A JDK's folder, or its subfolder Contents/Home where it is packed for Macs. */
  private static Path homeIn(Path folder) {
    Path home = folder.resolve("Contents/Home");
    return Files.isDirectory(home) ? home : folder;
  }

  private void checkGiven(Path home, String platform) throws IOException {
    Path program = home.resolve("bin/java");
    Path library = home.resolve("lib/libjli.dylib");
    switch (options.command) {
      case BUNDLE -> {
        version(); // which must be known
        if (!options.has("--no-archive") && !Files.isExecutable(program)) {
          throw new UserError(program + " is missing, which only --no-archive does without");
        }
      }
      case MACOS -> {
        version();
        String code = Files.isRegularFile(library) ? NativeCode.in(library) : NativeCode.NONE;
        if (!code.equals(platform) && !code.equals(NativeCode.UNIVERSAL)) {
          throw new UserError(library + " must contain " + platform + ", but contains " + code
              + "; --arch chooses the processor");
        }
      }
      default -> { } // a link to any runtime
    }
  }

  private List<String> addedModules() {
    Optional<String> names = options.last(
        "--add-modules", MODULE_LIST.pattern(), "names of modules, separated by commas");
    return names.isPresent() ? List.of(names.get().split(",")) : List.of();
  }

  /** The Java version of the bundle's runtime, or nothing if it has none of its own. */
  Optional<Integer> version() throws IOException {
    if (options.command == Options.Command.LINK
        || (options.command == Options.Command.MACOS && given.isEmpty())) {
      return Optional.empty();
    }
    if (given.isEmpty()) {
      return Optional.of(Runtime.version().feature());
    }
    Matcher matcher = VERSION.matcher(FileTrees.read(given.get().resolve("release")));
    if (!matcher.find()) {
      throw new UserError(
          given.get() + " is not a Java runtime: its file `release` names no version");
    }
    return Optional.of(Integer.parseInt(matcher.group(1)));
  }

  /** Adds the runtime to a bundle that already contains the jars. */
  void addTo(Layout bundle, WorkFolder work) throws IOException {
    if (options.command == Options.Command.LINK) {
      addLinks(bundle);
    } else if (given.isPresent()) {
      copyTo(bundle);
    } else if (options.command == Options.Command.BUNDLE) {
      link(bundle, work);
    }
    Path library = bundle.launcherLibrary();
    if (options.command == Options.Command.BUNDLE && Files.notExists(library)) {
      // On Linux the JVM's own library exports the function that the launcher calls.
      Files.createSymbolicLink(library, Path.of("server/libjvm.so"));
    }
  }

  /** Makes the given runtime that of a bundle for trials, without a copy. */
  private void addLinks(Layout bundle) throws IOException {
    Path home = given.orElseThrow();
    if (Files.exists(home.resolve("lib/libjli.dylib"))) {
      Files.createSymbolicLink(bundle.runtimeHome(), home);
    } else {
      Files.createDirectories(bundle.launcherLibrary().getParent());
      Files.createSymbolicLink(bundle.launcherLibrary(), home.resolve("lib/server/libjvm.so"));
    }
  }

  private void copyTo(Layout bundle) throws IOException {
    Path home = given.orElseThrow();
    Path image = options.path("--runtime-image").orElseThrow();
    if (home.equals(image)) {
      FileTrees.copy(home, bundle.runtimeHome());
    } else { // with what a JDK for Macs has around its Home
      Files.delete(bundle.runtimeHome().getParent());
      FileTrees.copy(home.getParent(), bundle.runtimeHome().getParent());
    }
  }

  /** Links a runtime with the modules that the bundle's jars use. */
  private void link(Layout bundle, WorkFolder work) throws IOException {
    // java.desktop: the launcher opens its packages; jdk.jdwp.agent: a debugger's port needs it.
    Set<String> modules = new TreeSet<>(List.of("java.base", "java.desktop", "jdk.jdwp.agent"));
    Output.say("looking for the modules that the jars use");
    modules.addAll(usedModules(bundle, work));
    modules.addAll(addedModules());
    String names = String.join(",", modules);
    Output.say("linking a runtime with modules " + names);
    Program.Result jlink = tool(work, "jlink", List.of("--add-modules", names,
        "--no-header-files", "--no-man-pages", "--exclude-files=**.debuginfo,**.diz",
        "--output", bundle.runtimeHome().toString()));
    if (jlink.status() != Program.SUCCESS) {
      throw new UserError("jlink fails:" + jlink.excerpt());
    }
  }

  private List<String> usedModules(Layout bundle, WorkFolder work) throws IOException {
    Program.Result jdeps = jdeps(bundle, work, "--ignore-missing-deps", "--print-module-deps");
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
        jdeps(bundle, work, "--regex", "(java\\.awt|javax\\.swing|javafx\\.stage).*");
    if (!jdeps.output().isBlank()) {
      Output.warn("the jars use AWT, Swing or JavaFX, whose windows do not open on a Mac");
    }
  }

  /** Lets jdeps read the bundle's jars. */
  private Program.Result jdeps(Layout bundle, WorkFolder work, String... request)
      throws IOException {
    Path folder = work.emptyFolder("classes");
    List<String> names = new ArrayList<>();
    for (Path jar : FileTrees.entries(bundle.jars())) {
      Path classes = folder.resolve(jar.getFileName());
      copyClasses(jar, classes);
      names.add(classes.toString());
    }
    List<String> arguments = new ArrayList<>(List.of("-q", "--multi-release",
        Integer.toString(Runtime.version().feature()),
        "--class-path", String.join(":", names)));
    arguments.addAll(List.of(request));
    arguments.addAll(names);
    return tool(work, "jdeps", arguments);
  }

  /**
   * Copies what jdeps needs. The launcher puts all jars on the class path, where the JVM ignores
   * module descriptors; with them, jdeps fails if a module that one of them requires is missing.
   */
  private static void copyClasses(Path jar, Path target) throws IOException {
    try (ZipFile zip = new ZipFile(jar.toFile());
        ZipOutputStream copy = new ZipOutputStream(Files.newOutputStream(target))) {
      copy.setLevel(1); // it is read once
      Set<String> names = new HashSet<>();
      long size = 0;
      for (ZipEntry entry : Collections.list(zip.entries())) {
        String name = entry.getName();
        boolean isNeeded = name.equals("META-INF/MANIFEST.MF")
            || (name.endsWith(".class") && !name.endsWith("module-info.class"));
        if (!isNeeded || !names.add(name)) { // some jars have an entry twice
          continue;
        }
        copy.putNextEntry(new ZipEntry(name));
        try (InputStream classFile = zip.getInputStream(entry)) {
          size += copyAtMost(MOST_CLASS_BYTES - size, classFile, copy);
        }
        if (size >= MOST_CLASS_BYTES) {
          throw new UserError(jar + " contains more than "
              + (MOST_CLASS_BYTES >> 30) + " GiB of classes");
        }
      }
    }
  }

  /** Returns the number of bytes. */
  private static long copyAtMost(long most, InputStream from, OutputStream to)
      throws IOException {
    byte[] buffer = new byte[1 << 16];
    long size = 0;
    for (int count; size < most && (count = from.read(buffer)) > 0; size += count) {
      to.write(buffer, 0, count);
    }
    return size;
  }

  private Program.Result tool(WorkFolder work, String name, List<String> arguments)
      throws IOException {
    List<String> all = new ArrayList<>(List.of(FAST_START));
    all.addAll(arguments);
    return new Program(work, options.has("--verbose"), JDK_TOOLS.resolve(name), all).run();
  }

  /** Deletes the programs of a linked runtime: an application needs none to run. */
  void removePrograms(Layout bundle) {
    if (given.isEmpty() && !options.has("--keep-java")) {
      FileTrees.delete(bundle.runtimeHome().resolve("bin"));
    }
  }
}
