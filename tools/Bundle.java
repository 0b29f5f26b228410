import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.BufferedOutputStream;
import java.io.Closeable;
import java.io.File;
import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.ClosedByInterruptException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermission;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Comparator;
import java.util.HashSet;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import java.util.zip.ZipOutputStream;

/**
 * Makes application bundles; docs/bundle.md and docs/macos.md describe what it does. It runs from
 * its source on JDK 17 or later: {@code java Bundle.java}.
 *
 * <p>A bundle is made in a folder beside its target and moved into place when it is complete. After
 * an error or a signal the target is what it was before.
 */
public final class Bundle {
  private static final String USAGE = """
      usage: java Bundle.java bundle TARGET.app LAUNCHER ITEM... [-- ARG...]
         or: java Bundle.java macos TARGET.app LAUNCHER ITEM...
         or: java Bundle.java check bundle|macos [ITEM...]
      An ITEM is a jar, a native library or a folder that contains some of these.""";
  private static final String ENTRY_CLASS = "com/norvale/app/daemon/entry/NativeLauncher";
  private static final int SUCCESS = 0;
  private static final int FAILURE = 1;

  private Bundle() {}

  public static void main(String[] args) {
    Thread worker = Thread.currentThread();
    CompletableFuture<Void> finished = new CompletableFuture<>();
    // A signal interrupts the worker, which then kills its child processes, restores the target and
    // deletes its work folder. The hook keeps this JVM alive until that is done.
    Runtime.getRuntime().addShutdownHook(new Thread(() -> {
      worker.interrupt();
      finished.join();
    }));
    int status = FAILURE;
    try {
      status = runAndReport(List.of(args));
    } finally {
      finished.complete(null);
    }
    System.exit(status); // if a signal is already ending this JVM, the signal sets the status
  }

  /** Returns the exit status. */
  private static int runAndReport(List<String> args) {
    try {
      dispatch(args);
      return SUCCESS;
    } catch (InterruptedException | ClosedByInterruptException e) {
      return FAILURE; // a signal, which needs no message
    } catch (Exception e) {
      // Ctrl-C also ends the child processes, so a failure of theirs needs no message either.
      if (!Thread.currentThread().isInterrupted()) {
        System.err.println("bundle: " + (e instanceof UserError ? e.getMessage() : e.toString()));
      }
      return FAILURE;
    }
  }

  private static void dispatch(List<String> args) throws IOException, InterruptedException {
    int separator = args.indexOf("--");
    boolean hasSeparator = separator >= 0;
    List<String> words = hasSeparator ? args.subList(0, separator) : args;
    List<String> applicationArguments =
        hasSeparator ? args.subList(separator + 1, args.size()) : List.of();

    String command = words.isEmpty() ? "" : words.get(0);
    if (command.equals("bundle") && words.size() > 3) {
      makeBundle(words.get(1), words.get(2), words.subList(3, words.size()), applicationArguments);
    } else if (command.equals("macos") && words.size() > 3 && !hasSeparator) {
      makeMacBundle(words.get(1), words.get(2), words.subList(3, words.size()));
    } else if (command.equals("check") && words.size() > 1 && !hasSeparator) {
      check(words.get(1), words.subList(2, words.size()));
    } else {
      throw new UserError(USAGE);
    }
  }

  /** Reports what is wrong with the settings and items of a command, without making anything. */
  private static void check(String command, List<String> items) throws IOException {
    switch (command) {
      case "bundle" -> {
        recordingLimit();
        givenRuntime();
      }
      case "macos" -> givenMacRuntime();
      default -> throw new UserError(USAGE);
    }
    if (!items.isEmpty()) {
      ApplicationFiles.find(items);
    }
  }

  /** Makes a bundle for this machine with a runtime that is prepared for the application. */
  private static void makeBundle(String targetName, String launcherName, List<String> items,
      List<String> applicationArguments) throws IOException, InterruptedException {
    Path target = targetPath(targetName);
    Path launcher = absolutePath(launcherName);
    Duration recordingLimit = recordingLimit();
    Optional<Path> givenRuntime = givenRuntime();
    ApplicationFiles files = ApplicationFiles.find(items);

    try (WorkFolder work = new WorkFolder(target)) {
      Layout bundle = new Layout(work.bundle());
      assemble(bundle, launcher, files);
      if (givenRuntime.isPresent()) {
        JavaRuntime.copy(givenRuntime.get(), bundle);
      } else {
        JavaRuntime.link(bundle, work);
      }
      JavaRuntime.addLauncherLibrary(bundle);

      int version = JavaRuntime.version(bundle.runtimeHome());
      ClassArchive archive = new ClassArchive(work, version, applicationArguments);
      archive.findOptions(bundle);
      archive.recordClasses(bundle, recordingLimit);
      archive.write(bundle);
      work.putInPlace();
      archive.proveUse(new Layout(target));
      work.keepBundle();
    }
    say("the bundle is " + target);
  }

  /** Makes a bundle for Macs around a launcher that was built for them; the runtime is optional. */
  private static void makeMacBundle(String targetName, String launcherName, List<String> items)
      throws IOException, InterruptedException {
    Path target = targetPath(targetName);
    Path launcher = absolutePath(launcherName);
    Optional<Path> givenRuntime = givenMacRuntime();
    ApplicationFiles files = ApplicationFiles.find(items);

    try (WorkFolder work = new WorkFolder(target)) {
      Layout bundle = new Layout(work.bundle());
      assemble(bundle, launcher, files);
      if (givenRuntime.isPresent()) {
        JavaRuntime.copy(givenRuntime.get(), bundle);
      }
      work.putInPlace();
      work.keepBundle();
    }
    say("the bundle is " + target);
  }

  /** Copies everything but the Java runtime into a bundle. */
  private static void assemble(Layout bundle, Path launcher, ApplicationFiles files)
      throws IOException, InterruptedException {
    if (!Files.isRegularFile(launcher) || !Files.isExecutable(launcher)) {
      throw new UserError(launcher + " is not an executable file");
    }
    Files.createDirectories(bundle.launcher().getParent());
    Files.createDirectories(bundle.jars());
    FileTrees.copy(launcher, bundle.launcher());
    if (launcher.endsWith("Contents/MacOS/kestrel")) { // built into the skeleton of a bundle
      Path skeleton = launcher.getParent().getParent();
      for (String name : List.of("Info.plist", "Resources")) {
        if (Files.exists(skeleton.resolve(name))) {
          FileTrees.copy(skeleton.resolve(name), bundle.contents().resolve(name));
        }
      }
    }
    for (Path jar : files.jars) {
      FileTrees.copy(jar, bundle.jars().resolve(jar.getFileName()));
    }
    for (Path library : files.libraries) {
      FileTrees.copy(library, bundle.launcher().resolveSibling(library.getFileName()));
    }
  }

  private static Path targetPath(String name) {
    Path target = absolutePath(name).normalize();
    // A colon in it would end an entry of the class path.
    if (!target.toString().matches("[^:]*\\.app")) {
      throw new UserError("the bundle's path must end in .app and contain no colon: " + target);
    }
    if (Files.exists(target) && !Files.isDirectory(target.resolve("Contents"))) {
      throw new UserError(target + " exists and is not a bundle");
    }
    return target;
  }

  private static Path absolutePath(String name) {
    if (name.isEmpty()) {
      throw new UserError("empty file name");
    }
    return Path.of(name).toAbsolutePath();
  }

  private static Duration recordingLimit() {
    String seconds = environment("KESTREL_RECORD_SECONDS").orElse("20");
    if (!seconds.matches("[1-9][0-9]{0,4}")) {
      throw new UserError("KESTREL_RECORD_SECONDS must be a number from 1 to 99999: " + seconds);
    }
    return Duration.ofSeconds(Long.parseLong(seconds));
  }

  private static Optional<Path> givenRuntime() throws IOException {
    Optional<Path> runtime = environment("KESTREL_RUNTIME").map(Bundle::absolutePath);
    if (runtime.isPresent()) {
      Path home = JavaRuntime.homeIn(runtime.get());
      if (!Files.isExecutable(home.resolve("bin/java"))) {
        throw new UserError("KESTREL_RUNTIME=" + runtime.get() + " is not a Java runtime");
      }
      JavaRuntime.version(home); // which must be known
    }
    return runtime;
  }

  private static Optional<Path> givenMacRuntime() throws IOException {
    Optional<Path> runtime = environment("KESTREL_MACOS_RUNTIME").map(Bundle::absolutePath);
    if (runtime.isPresent()) {
      JavaRuntime.checkForMac(JavaRuntime.homeIn(runtime.get()));
    }
    return runtime;
  }

  /** The value of an environment variable; one that is blank counts as unset. */
  private static Optional<String> environment(String name) {
    return Optional.ofNullable(System.getenv(name)).filter(value -> !value.isBlank());
  }

  private static String firstGroup(Pattern pattern, String text, String errorIfMissing) {
    Matcher matcher = pattern.matcher(text);
    if (!matcher.find()) {
      throw new UserError(errorIfMissing);
    }
    return matcher.group(1);
  }

  private static void stopIfInterrupted() throws InterruptedException {
    if (Thread.interrupted()) {
      throw new InterruptedException();
    }
  }

  private static void say(String text) {
    System.out.println("bundle: " + text);
  }

  /** An error that the user can correct; its message is printed as it is. */
  private static final class UserError extends RuntimeException {
    private static final long serialVersionUID = 1;

    UserError(String message) {
      super(message);
    }
  }

  /** Where things are in a bundle. */
  private record Layout(Path root) {
    Path contents() {
      return root.resolve("Contents");
    }

    Path launcher() {
      return contents().resolve("MacOS/kestrel");
    }

    Path jars() {
      return contents().resolve("lib");
    }

    Path runtime() {
      return contents().resolve("jre");
    }

    Path runtimeHome() {
      return runtime().resolve("Contents/Home");
    }
  }

  /** The application's jars and native libraries, as the command line names them. */
  private static final class ApplicationFiles {
    private static final Pattern LIBRARY = Pattern.compile(".*\\.(so|dylib|jnilib)");
    private static final Pattern ENTRY =
        Pattern.compile("(META-INF/versions/[0-9]+/)?" + ENTRY_CLASS + "\\.class");

    final List<Path> jars = new ArrayList<>();
    final List<Path> libraries = new ArrayList<>();

    static ApplicationFiles find(List<String> items) throws IOException {
      ApplicationFiles files = new ApplicationFiles();
      for (String item : items) {
        Path path = absolutePath(item);
        if (Files.isDirectory(path)) {
          files.addFolder(path);
        } else if (!files.add(path)) {
          throw new UserError(path + " is neither a jar, nor a native library, nor a folder");
        }
      }
      files.checkNames();
      files.checkEntryClass();
      return files;
    }

    private void addFolder(Path folder) throws IOException {
      boolean found = false;
      for (Path file : FileTrees.entries(folder)) {
        if (!FileTrees.isMacMetadata(file) && !Files.isDirectory(file)) {
          found |= add(file);
        }
      }
      if (!found) {
        throw new UserError("no jar or native library in " + folder);
      }
    }

    /** Returns false for any other kind of file. */
    private boolean add(Path file) {
      String name = file.getFileName().toString();
      if (name.endsWith(".jar")) {
        jars.add(file);
      } else if (LIBRARY.matcher(name).matches()) {
        libraries.add(file);
      } else {
        return false;
      }
      if (!Files.isRegularFile(file)) {
        throw new UserError(file + " does not exist or is not a file");
      }
      return true;
    }

    private void checkNames() {
      for (List<Path> files : List.of(jars, libraries)) {
        Set<String> names = new HashSet<>();
        for (Path file : files) {
          String name = file.getFileName().toString();
          if (name.contains(":")) { // which separates the entries of a class path
            throw new UserError("a file's name must not contain a colon: " + file);
          }
          // A Mac's file system usually ignores case.
          if (!names.add(name.toLowerCase(Locale.ROOT))) {
            throw new UserError("two files are named " + name);
          }
        }
      }
    }

    private void checkEntryClass() {
      List<Path> withEntry = new ArrayList<>();
      for (Path jar : jars) {
        if (containsEntryClass(jar)) {
          withEntry.add(jar);
        }
      }
      if (withEntry.isEmpty()) {
        throw new UserError("no jar contains " + ENTRY_CLASS + ".class");
      }
      if (withEntry.size() > 1) {
        throw new UserError("more than one jar contains " + ENTRY_CLASS + ".class: " + withEntry);
      }
    }

    private static boolean containsEntryClass(Path jar) {
      try (ZipFile zip = new ZipFile(jar.toFile())) {
        return zip.stream().anyMatch(entry -> ENTRY.matcher(entry.getName()).matches());
      } catch (IOException e) {
        throw new UserError(jar + " is not a jar or is truncated: " + e.getMessage());
      }
    }
  }

  /** The Java runtime in a bundle: linked for it, or copied into it. */
  private static final class JavaRuntime {
    private static final String JDK_BIN = System.getProperty("java.home") + "/bin/";
    private static final String FAST_START = "-J-XX:TieredStopAtLevel=1"; // halves a tool's time
    private static final Pattern VERSION = Pattern.compile("JAVA_VERSION=\"([0-9]+)");
    private static final Pattern MODULE_LIST = Pattern.compile("[A-Za-z0-9_.,]+");

    static int version(Path home) throws IOException {
      String release = FileTrees.read(home.resolve("release"));
      String error = home + " is not a Java runtime: its file `release` names no version";
      return Integer.parseInt(firstGroup(VERSION, release, error));
    }

    /** A JDK's folder, or its subfolder Contents/Home where it is packed for Macs. */
    static Path homeIn(Path folder) {
      Path home = folder.resolve("Contents/Home");
      return Files.isDirectory(home) ? home : folder;
    }

    static void checkForMac(Path home) throws IOException {
      Path library = home.resolve("lib/libjli.dylib");
      if (!Files.isRegularFile(library)) {
        throw new UserError("not a macOS Java runtime: " + library + " is missing");
      }
      String architecture = environment("KESTREL_MACOS_ARCH").orElse("x86_64");
      if (!MachO.isLibraryFor(architecture, library)) {
        throw new UserError(library + " is not a library for " + architecture + " Macs");
      }
    }

    static void copy(Path source, Layout bundle) throws IOException, InterruptedException {
      Path contents = bundle.runtimeHome().getParent();
      if (homeIn(source).equals(source)) {
        Files.createDirectories(contents);
        FileTrees.copy(source, bundle.runtimeHome());
      } else {
        Files.createDirectories(contents.getParent());
        FileTrees.copy(source.resolve("Contents"), contents);
      }
    }

    /** Links a runtime with the modules that the bundle's jars use. */
    static void link(Layout bundle, WorkFolder work) throws IOException, InterruptedException {
      say("looking for the modules that the jars use");
      // java.desktop: the launcher opens its packages; jdk.jdwp.agent: a debugger's port needs it.
      Set<String> modules =
          new TreeSet<>(List.of("java.base", "java.desktop", "jdk.jdwp.agent"));
      modules.addAll(modulesUsedBy(FileTrees.entries(bundle.jars()), work));
      environment("KESTREL_MODULES")
          .ifPresent(names -> modules.addAll(List.of(names.strip().split("[,\\s]+"))));
      String names = String.join(",", modules);
      say("linking a runtime with modules " + names);
      Files.createDirectories(bundle.runtimeHome().getParent());
      ChildProcess jlink = new ChildProcess(work, JDK_BIN + "jlink", FAST_START,
          "--add-modules", names, "--no-header-files", "--no-man-pages",
          "--exclude-files=**.debuginfo,**.diz", "--output", bundle.runtimeHome().toString());
      if (jlink.run() != SUCCESS) {
        throw new UserError("jlink: " + jlink.lastError());
      }
    }

    private static List<String> modulesUsedBy(List<Path> jars, WorkFolder work)
        throws IOException, InterruptedException {
      // The launcher puts all jars on the class path, where the JVM ignores module descriptors.
      // With them, jdeps fails if a module that one of them requires is missing.
      Path plainJars = Files.createDirectory(work.path("jars"));
      List<String> names = new ArrayList<>();
      for (Path jar : jars) {
        Path plain = plainJars.resolve(jar.getFileName());
        copyWithoutModuleDescriptors(jar, plain);
        names.add(plain.toString());
      }
      ChildProcess jdeps = new ChildProcess(work, JDK_BIN + "jdeps", FAST_START, "-q",
          "--ignore-missing-deps", "--print-module-deps", "--multi-release",
          Integer.toString(Runtime.version().feature()));
      jdeps.addArguments(List.of("--class-path", String.join(File.pathSeparator, names)));
      jdeps.addArguments(names);
      int status = jdeps.run();
      String modules = jdeps.lastLine();
      if (status != SUCCESS || !MODULE_LIST.matcher(modules).matches()) {
        say("jdeps cannot analyse the jars; including all of Java SE: " + jdeps.lastError());
        return List.of("java.se", "jdk.unsupported");
      }
      return List.of(modules.split(","));
    }

    private static void copyWithoutModuleDescriptors(Path jar, Path target)
        throws IOException, InterruptedException {
      try (ZipFile zip = new ZipFile(jar.toFile());
          ZipOutputStream copy =
              new ZipOutputStream(new BufferedOutputStream(Files.newOutputStream(target)))) {
        copy.setLevel(0); // it is read once
        Set<String> names = new HashSet<>();
        for (ZipEntry entry : Collections.list(zip.entries())) {
          stopIfInterrupted();
          boolean isNew = names.add(entry.getName()); // some jars have an entry twice
          if (isNew && !entry.getName().endsWith("module-info.class")) {
            copy.putNextEntry(new ZipEntry(entry.getName()));
            zip.getInputStream(entry).transferTo(copy);
          }
        }
      }
    }

    /** Adds the library that the launcher loads, which only runtimes for Macs have. */
    static void addLauncherLibrary(Layout bundle) throws IOException {
      Path library = bundle.runtimeHome().resolve("lib/libjli.dylib");
      if (Files.notExists(library)) {
        // On Linux the JVM's own library exports the function that the launcher calls.
        Files.createSymbolicLink(library, Path.of("server/libjvm.so"));
      }
    }
  }

  /** The head of a Mach-O file, as Apple's mach-o/loader.h and mach-o/fat.h describe it. */
  private static final class MachO {
    private static final int MAGIC_64 = 0xFEEDFACF;
    private static final int UNIVERSAL_MAGIC = 0xCAFEBABE;
    private static final int X86_64 = 0x01000007;
    private static final int ARM64 = 0x0100000C;
    private static final int DYNAMIC_LIBRARY = 6;
    private static final int HEAD_SIZE = 16; // magic, processor, its subtype, type of file
    private static final int UNIVERSAL_HEAD_SIZE = 8; // magic, number of parts
    private static final int PART_SIZE = 20; // processor, subtype, offset, size, alignment
    private static final int MOST_PARTS = 20; // a Java class has the same magic and more "parts"

    static boolean isLibraryFor(String architecture, Path file) throws IOException {
      int processor = architecture.equals("arm64") ? ARM64 : X86_64;
      try (FileChannel channel = FileChannel.open(file)) {
        ByteBuffer head = read(channel, 0, UNIVERSAL_HEAD_SIZE, ByteOrder.BIG_ENDIAN);
        if (head.limit() < UNIVERSAL_HEAD_SIZE || head.getInt(0) != UNIVERSAL_MAGIC) {
          return isLibraryAt(0, channel, processor);
        }
        int parts = head.getInt(4);
        if (parts < 1 || parts > MOST_PARTS) {
          return false;
        }
        ByteBuffer table =
            read(channel, UNIVERSAL_HEAD_SIZE, parts * PART_SIZE, ByteOrder.BIG_ENDIAN);
        for (int at = 0; at + PART_SIZE <= table.limit(); at += PART_SIZE) {
          long offset = Integer.toUnsignedLong(table.getInt(at + 8));
          if (table.getInt(at) == processor && isLibraryAt(offset, channel, processor)) {
            return true;
          }
        }
        return false;
      }
    }

    private static boolean isLibraryAt(long offset, FileChannel channel, int processor)
        throws IOException {
      ByteBuffer head = read(channel, offset, HEAD_SIZE, ByteOrder.LITTLE_ENDIAN);
      return head.limit() == HEAD_SIZE && head.getInt(0) == MAGIC_64
          && head.getInt(4) == processor && head.getInt(12) == DYNAMIC_LIBRARY;
    }

    /** Fewer bytes than asked for at the end of the file. */
    private static ByteBuffer read(FileChannel channel, long offset, int size, ByteOrder order)
        throws IOException {
      ByteBuffer bytes = ByteBuffer.allocate(size).order(order);
      channel.read(bytes, offset);
      return bytes.flip();
    }
  }

  /**
   * The class data sharing archive of a bundle's runtime: the JDK classes that the application
   * loads, parsed and, if the JVM can, linked. Classes of the application's jars stay out: those in
   * an archive name the place where it was written as their code source.
   */
  private static final class ClassArchive {
    private static final Duration LAUNCH_LIMIT = Duration.ofSeconds(120);
    // "... startJVM JVM Args: ", then each option on a line after a tab; then a tab alone.
    private static final Pattern OPTIONS =
        Pattern.compile("startJVM JVM Args: *\n\t(.*?)\n\t\n", Pattern.DOTALL);
    private static final Pattern ARCHIVE_NAME = Pattern.compile("trying to map .*/([^/\n]*\\.jsa)");
    private static final Pattern CANNOT_START = Pattern.compile("(?m)^(# A fatal error has been"
        + "|Error: (LinkageError|Could not (find or load main|create the Java)|Main method not))");
    // These are in the list of options, but are the launcher's own functions.
    private static final Set<String> HOOKS = Set.of("vfprintf", "exit", "abort");

    private final WorkFolder work;
    private final List<String> arguments;
    private final int version;
    private final String logArchiveUse;
    private boolean linksClasses;
    // Set by findOptions(), which must be called first.
    private List<String> options;
    private String archiveName;

    ClassArchive(WorkFolder work, int version, List<String> arguments) {
      this.work = work;
      this.version = version;
      this.arguments = arguments;
      linksClasses = version >= 24; // older JVMs cannot; 28 accepts the option and does not link
      logArchiveUse = version < 24 ? "-Xlog:cds" : "-Xlog:cds,aot";
    }

    /** Launches the bundle to learn which options it passes and which archive the JVM looks for. */
    void findOptions(Layout bundle) throws IOException, InterruptedException {
      ChildProcess application = launchUpToMain(bundle, logArchiveUse);
      if (!application.reachedMain()) {
        if (application.output().contains("UseCompactObjectHeaders")) {
          throw new UserError("JDK " + version + " does not support -XX:+UseCompactObjectHeaders:"
              + " use JDK 24 or later, or set KESTREL_AGGRESSIVE_OPTIMIZATIONS=0, both here and"
              + " whenever the bundle is launched");
        }
        throw new UserError("the application does not start: " + application.lastError());
      }
      options = new ArrayList<>();
      String text = firstGroup(OPTIONS, application.log(), "the log shows no JVM options");
      for (String option : text.split("\n\t")) {
        if (!HOOKS.contains(option) && !option.equals(logArchiveUse)) {
          options.add(option);
        }
      }
      archiveName = firstGroup(ARCHIVE_NAME, application.log(),
          "cannot find out where the JVM expects its archive");
    }

    /** Runs the application under the runtime's own java, where it can exit of its own accord. */
    void recordClasses(Layout bundle, Duration limit) throws IOException, InterruptedException {
      say("recording the loaded classes, for " + limit.toSeconds()
          + " s or until the application exits");
      ChildProcess java = java(bundle);
      java.addArguments(options);
      java.addArguments(List.of("-Xshare:off", "-XX:DumpLoadedClassList=" + classList(),
          // Under java the -Xss of the options would also apply to main's thread: too little there.
          "-Xss8m", ENTRY_CLASS));
      java.addArguments(List.of(bundle.launcher().toString())); // args[0], as from the launcher
      java.addArguments(arguments);
      int status = java.run(limit);
      if (CANNOT_START.matcher(java.output()).find()) {
        throw new UserError("the application does not start: " + java.lastError());
      }
      boolean isExpected = status == SUCCESS || status == ChildProcess.TERMINATED;
      say("the application exited with status " + status
          + (isExpected ? "" : ": " + java.lastError()));

      // A process that had to be killed may have left half a line.
      String list = FileTrees.read(classList());
      int end = list.lastIndexOf('\n') + 1;
      if (end == 0) {
        throw new UserError("no classes were recorded: " + java.lastError());
      }
      Files.writeString(classList(), list.substring(0, end));
    }

    /** Writes the archive to where the JVM looks for it, in place of an earlier one. */
    void write(Layout bundle) throws IOException, InterruptedException {
      say("writing the class archive");
      Path newArchive = work.path("archive");
      ChildProcess java = java(bundle);
      java.addArguments(options);
      // All classes are in memory at once, hence the sizes.
      java.addArguments(List.of("-Xms1g", "-Xmx1g", "-XX:CompressedClassSpaceSize=1g"));
      // The empty class path, which replaces the one in the options, keeps the jars out.
      java.addArguments(List.of("-Djava.class.path=", "-Xshare:dump",
          "-XX:SharedClassListFile=" + classList(), "-XX:SharedArchiveFile=" + newArchive));
      if (linksClasses) {
        java.addArguments(List.of("-XX:+AOTClassLinking"));
      }
      java.run(); // whatever its status, it is the archive that counts
      if (!Files.exists(newArchive)) {
        throw new UserError("the JVM writes no archive: " + java.lastError());
      }
      Files.move(newArchive, archiveFile(bundle), StandardCopyOption.REPLACE_EXISTING);
      FileTrees.makeReadableForAll(archiveFile(bundle));
    }

    /**
     * Launches the bundle from where it will stay, to prove that the JVM uses the archive: with
     * -Xshare:on, a JVM that cannot use it does not start. Some JVMs cannot use linked classes of
     * some modules; then the archive is written again without linking.
     */
    void proveUse(Layout bundle) throws IOException, InterruptedException {
      ChildProcess application = launchUpToMain(bundle, "-Xshare:on " + logArchiveUse);
      if (!application.reachedMain() && linksClasses) {
        say("the JVM does not start with linked classes; writing the archive without them");
        linksClasses = false;
        write(bundle);
        application = launchUpToMain(bundle, "-Xshare:on " + logArchiveUse);
      }
      if (!application.reachedMain()) {
        throw new UserError("the JVM does not use its archive: " + application.lastError());
      }
      String log = application.log();
      say("archive in use: " + archiveName + ", " + (Files.size(archiveFile(bundle)) >> 20) + " MiB"
          + " (linked classes: " + yesOrNo(log.contains("AOT-linked classes: true"))
          + ", full module graph: " + yesOrNo(log.contains("full module graph: enabled")) + ")");
    }

    private ChildProcess launchUpToMain(Layout bundle, String jvmOptions)
        throws IOException, InterruptedException {
      ChildProcess application = new ChildProcess(work, bundle.launcher().toString());
      application.addArguments(arguments);
      application.addJvmOptions(jvmOptions);
      application.stopAtMain();
      application.run(LAUNCH_LIMIT);
      return application;
    }

    private ChildProcess java(Layout bundle) {
      return new ChildProcess(work, bundle.runtimeHome().resolve("bin/java").toString());
    }

    private Path archiveFile(Layout bundle) {
      return bundle.runtimeHome().resolve("lib/server").resolve(archiveName);
    }

    private Path classList() {
      return work.path("classes");
    }

    private static String yesOrNo(boolean value) {
      return value ? "yes" : "no";
    }
  }

  /**
   * A program that runs to its end, to the application's main, or until its time is over. Its
   * output and log can be read until the next program runs.
   */
  private static final class ChildProcess {
    static final int TERMINATED = 143; // the exit status after SIGTERM
    private static final Duration UNLIMITED = Duration.ofDays(365); // in effect
    private static final Duration TIME_TO_EXIT = Duration.ofSeconds(10);
    private static final long MOST_OUTPUT = 1 << 20; // bytes
    // They would change what is recorded, or stop the program until a debugger attaches.
    private static final List<String> REMOVED_VARIABLES =
        List.of("CLASSPATH", "NORVALED_DEBUG_PORT", "KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE",
            "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "JAVA_TOOL_OPTIONS");

    private final Path outputFile;
    private final Path logs;
    private final ProcessBuilder builder;
    private final Set<ProcessHandle> descendants = new LinkedHashSet<>(); // some may outlive it
    private boolean stopsAtMain = false;

    ChildProcess(WorkFolder work, String program, String... arguments) {
      outputFile = work.path("output");
      logs = work.path("logs");
      builder = new ProcessBuilder(program);
      addArguments(List.of(arguments));
      builder.redirectInput(new File("/dev/null"));
      builder.redirectErrorStream(true);
      builder.redirectOutput(Redirect.appendTo(outputFile.toFile()));
      builder.environment().keySet().removeAll(REMOVED_VARIABLES);
      builder.environment().put("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.toString());
    }

    void addArguments(List<String> arguments) {
      builder.command().addAll(arguments);
    }

    /** JVM options for the launcher, after those that the user has set. */
    void addJvmOptions(String options) {
      builder.environment().merge("NORVALED_JVM_ARGS", options, (old, added) -> old + " " + added);
    }

    /** Lets run() end the launcher as soon as it calls the application's main. */
    void stopAtMain() {
      stopsAtMain = true;
    }

    int run() throws IOException, InterruptedException {
      return run(UNLIMITED);
    }

    /**
     * Runs the program and returns its exit status. When the limit is over, the program is asked to
     * exit, and killed if it does not; it is also killed when it reaches main after stopAtMain().
     * Processes that it has started do not outlive this call.
     */
    int run(Duration limit) throws IOException, InterruptedException {
      FileTrees.delete(logs);
      Files.writeString(outputFile, "");
      Process process = builder.start();
      try {
        long deadline = System.nanoTime() + limit.toNanos();
        if (!waitForEnd(process, deadline)) {
          process.destroy();
          waitForEnd(process, deadline + TIME_TO_EXIT.toNanos());
        }
      } finally {
        killAll(process);
      }
      return process.exitValue();
    }

    /** Returns true if the process has exited or reached main, false if the deadline has passed. */
    private boolean waitForEnd(Process process, long deadline)
        throws IOException, InterruptedException {
      while (System.nanoTime() < deadline) {
        if (process.waitFor(20, TimeUnit.MILLISECONDS) || (stopsAtMain && reachedMain())) {
          return true;
        }
        process.descendants().forEach(descendants::add);
        // An application that writes without end must not fill the disk.
        if (Files.size(outputFile) > MOST_OUTPUT) {
          Files.writeString(outputFile, "");
        }
      }
      return false;
    }

    private void killAll(Process process) {
      process.descendants().forEach(descendants::add);
      process.destroyForcibly();
      process.onExit().join(); // unlike waitFor(), it is not ended by an interrupt
      for (ProcessHandle descendant : descendants) {
        descendant.descendants().forEach(ProcessHandle::destroyForcibly);
        descendant.destroyForcibly();
      }
    }

    boolean reachedMain() throws IOException {
      return log().contains("JVM calling main");
    }

    /** Standard output and standard error. */
    String output() throws IOException {
      return FileTrees.read(outputFile);
    }

    /** The native log, if the program was the launcher. */
    String log() throws IOException {
      return FileTrees.read(logs.resolve("kestrel-native.log"));
    }

    String lastLine() throws IOException {
      String text = output().strip();
      return text.substring(text.lastIndexOf('\n') + 1);
    }

    /** The last line that names an error, or else the last line, of the log and the output. */
    String lastError() throws IOException {
      // Of the log only what the JVM and the dynamic loader said is of use. The heads of these
      // records are cut off, so that isNoise() keeps them.
      String messages =
          log().replaceAll(".*(jvm_vprintf JVM:|resolveJNICreateFunction) ", "") + output();
      String last = "no error message";
      String lastNamed = null;
      for (String line : messages.split("\n")) {
        if (isNoise(line)) {
          continue;
        }
        last = line.strip();
        if (line.matches(".*(Exception|Error|SIG).*")) {
          lastNamed = last;
        }
      }
      return lastNamed != null ? lastNamed : last;
    }

    private static boolean isNoise(String line) {
      return line.matches("[#\\s]*") // a crash report's empty lines
          || line.matches("\\s+(at |-).*") // stack frames
          || line.toLowerCase(Locale.ROOT).contains("warning")
          || line.contains("---- (native)");
    }
  }

  /**
   * A folder beside the target in which a bundle is made, so that putting it in place is a rename.
   * Closing it deletes the folder and, unless keepBundle() was called, restores the target. If this
   * process is killed, the next one deletes the folder and restores an earlier bundle.
   */
  private static final class WorkFolder implements Closeable {
    private static final Pattern NAME = Pattern.compile("\\.bundle-([0-9]{1,10})-.*");
    private static final String PREVIOUS = ".previous";

    private final Path target;
    private final Path folder;
    private boolean isPlaced = false;
    private boolean isKept = false;

    WorkFolder(Path target) throws IOException {
      this.target = target;
      Path parent = Files.createDirectories(target.getParent());
      cleanUpAfterKilled(parent);
      folder = Files.createTempDirectory(parent, ".bundle-" + ProcessHandle.current().pid() + "-");
    }

    private static void cleanUpAfterKilled(Path parent) throws IOException {
      for (Path folder : FileTrees.entries(parent)) {
        Matcher matcher = NAME.matcher(folder.getFileName().toString());
        if (matcher.matches() && ProcessHandle.of(Long.parseLong(matcher.group(1))).isEmpty()) {
          restorePrevious(folder, parent);
          FileTrees.delete(folder);
        }
      }
    }

    private static void restorePrevious(Path folder, Path parent) throws IOException {
      for (Path path : FileTrees.entries(folder)) {
        String name = path.getFileName().toString();
        if (name.endsWith(PREVIOUS)) {
          Path target = parent.resolve(name.substring(0, name.length() - PREVIOUS.length()));
          FileTrees.delete(target); // a bundle that was put in place but not proven
          Files.move(path, target);
        }
      }
    }

    Path path(String name) {
      return folder.resolve(name);
    }

    /** Where the bundle is made. */
    Path bundle() {
      return folder.resolve(target.getFileName());
    }

    private Path previous() {
      return folder.resolve(target.getFileName() + PREVIOUS);
    }

    void putInPlace() throws IOException {
      FileTrees.makeReadableForAll(bundle());
      if (Files.exists(target)) {
        Files.move(target, previous());
      }
      Files.move(bundle(), target);
      isPlaced = true;
    }

    void keepBundle() throws IOException {
      isKept = true;
      if (Files.exists(previous())) {
        Files.move(previous(), path("replaced")); // without the suffix, nobody restores it
      }
    }

    @Override
    public void close() throws IOException {
      if (isPlaced && !isKept) {
        FileTrees.delete(target);
      }
      restorePrevious(folder, target.getParent());
      FileTrees.delete(folder);
    }
  }

  /** Reads, copies and deletes files, and folders with all that they contain. */
  private static final class FileTrees {
    // What only a debugger of the JVM itself reads.
    private static final Pattern DEBUG_FILE = Pattern.compile(".*\\.(debuginfo|diz|dSYM)");

    /** What the Finder, or an archiver on a Mac, adds to folders. */
    static boolean isMacMetadata(Path path) {
      String name = path.getFileName().toString();
      return name.equals(".DS_Store") || name.startsWith("._");
    }

    /** The entries of a folder, sorted. */
    static List<Path> entries(Path folder) throws IOException {
      try (Stream<Path> paths = Files.list(folder)) {
        return paths.sorted().toList();
      }
    }

    /** The text of a file, or nothing if it does not exist. */
    static String read(Path file) throws IOException {
      return Files.exists(file) ? new String(Files.readAllBytes(file), UTF_8) : "";
    }

    /** Copies a file or a folder but for debugging files and a Mac's metadata. */
    static void copy(Path source, Path target) throws IOException, InterruptedException {
      Path root = source.toRealPath();
      copyWithin(root, root, target);
    }

    /** Copies {@code path}, which is {@code root} or inside it. */
    private static void copyWithin(Path root, Path path, Path target)
        throws IOException, InterruptedException {
      stopIfInterrupted();
      if (isMacMetadata(path) || DEBUG_FILE.matcher(path.getFileName().toString()).matches()) {
        return;
      }
      if (Files.isSymbolicLink(path)) {
        copyLink(root, path, target);
      } else if (Files.isDirectory(path)) {
        Files.createDirectory(target);
        for (Path entry : entries(path)) {
          copyWithin(root, entry, target.resolve(entry.getFileName()));
        }
      } else {
        Files.copy(path, target, StandardCopyOption.COPY_ATTRIBUTES);
      }
    }

    /** A link that leads out of the folder, such as a JDK's to /etc, becomes what it leads to. */
    private static void copyLink(Path root, Path link, Path target)
        throws IOException, InterruptedException {
      Path destination = Files.readSymbolicLink(link);
      boolean staysInside = !destination.isAbsolute()
          && link.resolveSibling(destination).normalize().startsWith(root);
      if (staysInside) {
        Files.createSymbolicLink(target, destination);
      } else if (Files.exists(link)) {
        copy(link, target);
      } else {
        throw new UserError(link + " is a link to " + destination + ", which does not exist");
      }
    }

    static void delete(Path root) throws IOException {
      if (Files.notExists(root, LinkOption.NOFOLLOW_LINKS)) {
        return;
      }
      try (Stream<Path> walk = Files.walk(root)) {
        for (Path path : walk.sorted(Comparator.reverseOrder()).toList()) { // children first
          Files.delete(path);
        }
      }
    }

    /** Lets everybody read all files, and execute those that their owner may execute. */
    static void makeReadableForAll(Path root) throws IOException {
      try (Stream<Path> walk = Files.walk(root)) {
        for (Path path : walk.toList()) {
          if (Files.isSymbolicLink(path)) {
            continue;
          }
          Set<PosixFilePermission> permissions = Files.getPosixFilePermissions(path);
          permissions.addAll(Set.of(PosixFilePermission.OWNER_READ, PosixFilePermission.GROUP_READ,
              PosixFilePermission.OTHERS_READ));
          if (permissions.contains(PosixFilePermission.OWNER_EXECUTE)) {
            permissions.addAll(Set.of(PosixFilePermission.GROUP_EXECUTE,
                PosixFilePermission.OTHERS_EXECUTE));
          }
          Files.setPosixFilePermissions(path, permissions);
        }
      }
    }
  }
}
