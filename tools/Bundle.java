import static java.nio.charset.StandardCharsets.*;

import java.io.*;
import java.lang.ProcessBuilder.Redirect;
import java.nio.channels.ClosedByInterruptException;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.regex.*;
import java.util.stream.*;
import java.util.zip.ZipFile;

/** Makes bundles, as docs/bundle.md tells; an error or a signal leaves everything as it was. */
public final class Bundle implements Closeable {
  private static final String USAGE = """
      usage: bundle TARGET.app LAUNCHER JAR-OR-FOLDER... [-- ARG...]
         or: archive APPLICATION.app [-- ARG...]
         or: fill APPLICATION.app RUNTIME-OR-EMPTY-WORD JAR-OR-FOLDER...""";
  private static final String ENTRY = "com/norvale/app/daemon/entry/NativeLauncher";
  private static final String LAUNCHER = "/Contents/MacOS/kestrel";
  private static final String LOG = "logs/kestrel-native.log";
  private static final String TOOLS = System.getProperty("java.home") + "/bin/";
  private static final String QUICK = "-J-XX:TieredStopAtLevel=1"; // half the time for a short run

  private final int seconds = Integer.parseInt(find("^([1-9][0-9]{0,4})$",
      System.getenv().getOrDefault("KESTREL_RECORD_SECONDS", "20"),
      "KESTREL_RECORD_SECONDS is not a number of seconds"));
  private final List<String> arguments;
  private final Path work; // beside the bundle, so that to move things there and back is to rename
  private final Map<Path, Path> replaced = new LinkedHashMap<>();
  private final Path application;
  private final Path home; // of its runtime
  private int version; // of its runtime
  private List<String> options; // that the launcher gives the JVM
  private Path archive; // where the JVM looks for one

  private Bundle(Path place, String command, List<String> arguments) throws IOException {
    work = Files.createTempDirectory(Files.createDirectories(place.getParent()), ".bundle");
    application = command.equals("bundle") ? work.resolve(place.getFileName()) : place;
    home = application.resolve("Contents/jre/Contents/Home");
    this.arguments = arguments;
  }

  public static void main(String[] args) {
    Thread main = Thread.currentThread();
    CompletableFuture<Void> done = new CompletableFuture<>();
    // A signal unwinds what is under way, which ends its processes and deletes what it has made.
    Runtime.getRuntime().addShutdownHook(new Thread(() -> {
      main.interrupt();
      done.join();
    }));
    int status = 1;
    try {
      perform(List.of(args));
      status = 0;
    } catch (InterruptedException | ClosedByInterruptException e) { // the signal has its own status
    } catch (Exception e) { // which Ctrl-C also makes of programs that it ends
      String message = e instanceof IllegalArgumentException ? e.getMessage() : e.toString();
      if (!Thread.interrupted()) System.err.println("bundle: " + message);
    }
    done.complete(null);
    System.exit(status);
  }

  private static void perform(List<String> args) throws Exception {
    int end = args.contains("--") ? args.indexOf("--") : args.size();
    String command = end == 0 ? "" : args.get(0);
    check(command.matches(end > 3 ? "bundle|fill" : end == 2 ? "archive" : "-"), USAGE);
    List<String> jars = end == 2 ? List.of() : findJars(args.subList(3, end));
    Path place = absolute(args.get(1)).normalize();
    check(Files.isDirectory(place.resolve("Contents")) || command.equals("bundle")
        && Files.notExists(place), place + " is not a bundle");
    try (Bundle bundle = new Bundle(place, command, args.stream().skip(end + 1).toList())) {
      switch (command) {
        case "bundle" -> bundle.make(place, absolute(args.get(2)), jars);
        case "archive" -> bundle.prepare();
        default -> bundle.fill(jars, args.get(2));
      }
      bundle.replaced.clear();
    }
    say("the bundle is " + place);
  }

  private void make(Path target, Path program, List<String> jars) throws Exception {
    check(target.toString().matches("[^:\n]*\\.app"), target + " is not a name for a bundle");
    check(program.toFile().isFile() && Files.isExecutable(program), program + " is not a program");
    String runtime = System.getenv().getOrDefault("KESTREL_RUNTIME", "");
    check(runtime.isEmpty() || Files.isExecutable(homeIn(Path.of(runtime)).resolve("bin/java")),
        "KESTREL_RUNTIME=" + runtime + " is not a Java runtime");
    assemble(program, jars, runtime);
    prepare();
    replace(application, target);
  }

  private void fill(List<String> jars, String runtime) throws Exception {
    if (!runtime.isEmpty()) checkMacLibrary(homeIn(Path.of(runtime)));
    addJars(work, jars);
    if (!runtime.isEmpty()) addRuntime(work, Path.of(runtime));
    replace(file("lib"), application.resolve("Contents/lib"));
    replace(file("jre"), application.resolve("Contents/jre"));
  }

  /** Moves what was made, if it was, to its place; what was there is kept until all is well. */
  private void replace(Path made, Path place) throws IOException {
    Path kept = file("replaced" + replaced.size());
    if (replaced.putIfAbsent(place, kept) != null) delete(place);
    if (Files.exists(place, LinkOption.NOFOLLOW_LINKS)) Files.move(place, kept);
    if (Files.exists(made)) Files.move(made, place);
  }

  @Override public void close() throws IOException {
    for (Path place : replaced.keySet()) {
      delete(place);
      if (Files.exists(replaced.get(place))) Files.move(replaced.get(place), place);
    }
    delete(work);
  }

  private static void check(boolean good, String message) {
    if (!good) throw new IllegalArgumentException(message);
  }

  private static Path absolute(String name) {
    check(!name.isEmpty(), "a name is empty");
    return Path.of(name).toAbsolutePath();
  }

  /** The jars given and those in folders given, which must be what the launcher can start. */
  private static List<String> findJars(List<String> given) {
    List<String> jars = new ArrayList<>();
    for (String name : given) {
      File[] inside = absolute(name).toFile().listFiles((folder, file) -> file.endsWith(".jar"));
      check(inside == null || inside.length > 0, "no jar in " + name);
      if (inside == null) jars.add(absolute(name).toString());
      else Stream.of(inside).sorted().map(File::getPath).forEach(jars::add);
    }
    Set<String> names = new HashSet<>();
    for (String jar : jars) { // whatever the case: a Mac's file system takes both for one
      String name = new File(jar).getName();
      check(names.add(name.toLowerCase(Locale.ROOT)), "two jars are named " + name);
    }
    List<String> found = jars.stream().filter(Bundle::hasEntry).toList();
    check(found.size() == 1, "one jar has to hold " + ENTRY + ".class, not these: " + found);
    return jars;
  }

  private static boolean hasEntry(String jar) {
    check(jar.matches(".*/[^:\n]*\\.jar"), jar + " is not a name for a jar on a class path");
    check(new File(jar).isFile(), jar + " does not exist or is not a file");
    Pattern entry = Pattern.compile("(META-INF/versions/[0-9]+/)?" + ENTRY + "\\.class");
    try (ZipFile zip = new ZipFile(jar)) {
      return zip.stream().anyMatch(file -> entry.matcher(file.getName()).matches());
    } catch (IOException e) {
      throw new IllegalArgumentException(jar + " is not a jar, or cut off: " + e.getMessage());
    }
  }

  /** A Mach-O library for one processor, or the table at the head of one for several. */
  private static void checkMacLibrary(Path home) throws IOException {
    Path library = home.resolve("lib/libjli.dylib");
    String name = System.getenv().getOrDefault("KESTREL_MACOS_ARCH", "x86_64");
    String type = name.equals("arm64") ? "\\x0C" : "\\x07";
    check(Files.isRegularFile(library), library + " does not exist: not a Mac's Java runtime");
    check(Files.readString(library, ISO_8859_1).matches(
        "(?s)(\\xCF\\xFA\\xED\\xFE" + type + "\\x00\\x00\\x01.{4}\\x06|\\xCA\\xFE\\xBA\\xBE\\x00{3}"
        + "[\\x01-\\x08](.{20}){0,7}?\\x01\\x00\\x00" + type + ").*"),
        library + " is not a library for " + name + " Macs");
  }

  private void assemble(Path program, List<String> jars, String runtime) throws Exception {
    Path contents = Files.createDirectories(application.resolve("Contents"));
    copy(program, Files.createDirectory(contents.resolve("MacOS")).resolve("kestrel"));
    for (String name : List.of("Info.plist", "Resources")) { // which lie beside a Mac's launcher
      copy(program.getParent().resolveSibling(name), contents.resolve(name));
    }
    addJars(contents, jars);
    if (runtime.isEmpty()) link(jars);
    else addRuntime(contents, Path.of(runtime));
    Path library = home.resolve("lib/libjli.dylib");
    if (System.getProperty("os.name").startsWith("Mac")) checkMacLibrary(home);
    else if (Files.notExists(library)) // the JVM's own library exports the same function
      Files.createSymbolicLink(library, Path.of("server/libjvm.so"));
  }

  /** Where in a folder the runtime lies, which for Macs may be Contents/Home. */
  private static Path homeIn(Path runtime) {
    Path home = runtime.resolve("Contents/Home");
    return Files.isDirectory(home) ? home : runtime;
  }

  /** With their time stamps, by which the JVM knows them, and readable for everybody. */
  private static void addJars(Path contents, List<String> jars) throws Exception {
    Path lib = Files.createDirectory(contents.resolve("lib"));
    for (String jar : jars) {
      Path to = lib.resolve(Path.of(jar).getFileName());
      copy(Path.of(jar), to);
      to.toFile().setReadable(true, false);
    }
  }

  private static void addRuntime(Path contents, Path runtime) throws Exception {
    Path about = Files.createDirectory(contents.resolve("jre")).resolve("Contents");
    if (homeIn(runtime) != runtime) copy(runtime.resolve("Contents"), about);
    else copy(runtime, Files.createDirectory(about).resolve("Home"));
  }

  /** Copies what is there, but for files that only a debugger of the JVM itself reads. */
  private static void copy(Path source, Path target) throws Exception {
    Path from = Files.exists(source) ? source.toRealPath() : source;
    for (Path path : tree(from)) {
      if (Thread.interrupted()) throw new InterruptedException();
      Path to = target.resolve(from.relativize(path).toString());
      boolean isLink = Files.isSymbolicLink(path);
      if (path.toString().matches(".*\\.(debuginfo|diz|dSYM)(/.*)?")) continue;
      if (isLink && Files.readSymbolicLink(path).isAbsolute()) copy(path, to); // as to /etc
      else if (!isLink && Files.isDirectory(path)) Files.createDirectory(to);
      else Files.copy(path, to, StandardCopyOption.COPY_ATTRIBUTES, LinkOption.NOFOLLOW_LINKS);
    }
  }

  private static List<Path> tree(Path root) throws IOException {
    try (Stream<Path> paths = Files.exists(root) ? Files.walk(root) : Stream.empty()) {
      return paths.toList();
    }
  }

  private static void delete(Path root) throws IOException {
    List<Path> paths = tree(root);
    for (int i = paths.size() - 1; i >= 0; i--) Files.delete(paths.get(i));
  }

  private void link(List<String> jars) throws Exception {
    say("looking for the modules that the jars use");
    String modules = "java.base,java.desktop,jdk.jdwp.agent," + modulesOf(jars, jars)
        + System.getenv().getOrDefault("KESTREL_MODULES", "");
    modules = String.join(",", new TreeSet<>(List.of(modules.split("[,\\s]+"))));
    say("linking a runtime of " + modules);
    Files.createDirectories(home.getParent());
    check(run(TOOLS + "jlink", List.of(QUICK, "--add-modules", modules, "--no-header-files",
        "--no-man-pages", "--strip-java-debug-attributes", "--exclude-files=**.debuginfo,**.diz",
        "--output", home.toString())) == 0, "jlink: " + reason());
  }

  /** Some jars can be read only all together, and some not at all: modules with others missing. */
  private String modulesOf(List<String> some, List<String> jars) throws Exception {
    List<String> words = new ArrayList<>(List.of(QUICK, "-q", "--ignore-missing-deps",
        "--print-module-deps", "--multi-release", "" + Runtime.version().feature(),
        "--class-path", String.join(":", jars)));
    words.addAll(some);
    String found = run(TOOLS + "jdeps", words) == 0 ? read("output").strip() : "";
    if (!found.isEmpty()) return found.substring(found.lastIndexOf('\n') + 1) + ",";
    String modules = some.size() == 1 ? "java.se,jdk.unsupported," : "";
    if (some.size() == 1) say("jdeps cannot read " + some.get(0) + ": taking all of Java SE");
    else for (String jar : some) modules += modulesOf(List.of(jar), jars);
    return modules;
  }

  private void prepare() throws Exception {
    version = Integer.parseInt(find("JAVA_VERSION=\"([0-9]+)", read(home + "/release"),
        home + " is not a Java runtime"));
    check(home.toRealPath().startsWith(application.toRealPath()), home + " is a link to elsewhere");
    findOptions();
    record();
    dump("-XX:+AOTClassLinking");
    if (prove()) return;
    say("this JVM does not start with linked classes: once more without -XX:+AOTClassLinking");
    dump("-XX:-AOTClassLinking");
    check(prove(), "the JVM does not take the archive: " + reason());
  }

  /** A first start shows what the launcher gives the JVM, and where that looks for an archive. */
  private void findOptions() throws Exception {
    boolean started = reachesMain("");
    check(started || !read("output").contains("UseCompactObjectHeaders"), "JDK " + version
        + " refuses the launcher's -XX:+UseCompactObjectHeaders: take JDK 25 or later, or set"
        + " KESTREL_AGGRESSIVE_OPTIMIZATIONS=0, which every start of the bundle then needs");
    check(started, "the application does not start: " + reason());
    options = find("(?s)startJVM JVM Args: *\n\t(.*?)\n\t\n", read(LOG), "no options in the log")
        .lines().map(line -> line.replaceFirst("^\t", ""))
        .filter(option -> !option.matches("vfprintf|exit|abort|-Xlog:cds(,aot)?")).toList();
    archive = home.resolve("lib/server").resolve(
        find("trying to map .*/(.*jsa)", read(LOG), "the JVM looks for no archive"));
  }

  /** Starts the application without its launcher, since a JVM completes the record when it ends. */
  private void record() throws Exception {
    say("recording the classes of a start, for " + seconds + " s or until it ends");
    List<String> words = new ArrayList<>(options);
    words.addAll(version < 28 ? List.of("-Xshare:off", "-XX:DumpLoadedClassList=" + file("list"))
        : List.of("-XX:AOTMode=record", "-XX:AOTConfiguration=" + file("list")));
    // The launcher's stack size is not for main, which there has a thread that is not the JVM's.
    words.addAll(List.of("-Xss8m", ENTRY, application + LAUNCHER));
    words.addAll(arguments);
    int status = run(home + "/bin/java", words, seconds, "");
    check(!read("output").matches("(?s).*(# A fatal|Error: (Linkage|Could not|Main method)).*"),
        "the application cannot be started: " + reason());
    say("it ended with status " + status + (status == 0 || status == 143 ? "" : ": " + reason()));
    // Who had to be killed may have left half a line, or half a cache.
    if (version < 28) Files.writeString(file("list"), find("(?s)(.*\n)", read("list"), "no class"));
    else if (status == 137) Files.deleteIfExists(file("list"));
  }

  private void dump(String linking) throws Exception {
    say("dumping the archive");
    List<String> words = new ArrayList<>(options);
    // All classes are written at once. Before 24 those of jars hold only where these lie.
    words.addAll(List.of("-Xms1g", "-Xmx1g", "-XX:CompressedClassSpaceSize=1g",
        version < 24 ? "-Djava.class.path=" : linking));
    // A JDK from 28 on links classes in no archive but a cache, which it takes for one.
    words.addAll(version >= 28 && Files.exists(file("list"))
        ? List.of("-XX:AOTMode=create", "-XX:AOTConfiguration=" + file("list"),
            "-XX:AOTCache=" + file("made"))
        : List.of("-Xshare:dump", "-XX:SharedArchiveFile=" + file("made"),
            "-XX:SharedClassListFile=" + (version < 28 ? file("list") : home + "/lib/classlist")));
    run(home + "/bin/java", words);
    check(Files.exists(file("made")), "the JVM makes no archive: " + reason());
    replace(file("made"), archive);
  }

  /** With -Xshare:on a JVM that cannot use its archive ends; otherwise it goes on without. */
  private boolean prove() throws Exception {
    if (!reachesMain("-Xshare:on")) return false;
    say("the JVM maps " + archive.getFileName() + ", " + (Files.size(archive) >> 20) + " MiB; "
        + "linked classes: " + read(LOG).contains("AOT-linked classes: true")
        + ", full module graph: " + read(LOG).contains("full module graph: enabled"));
    return true;
  }

  private boolean reachesMain(String option) throws Exception {
    String logging = version < 24 ? " -Xlog:cds" : " -Xlog:cds,aot";
    run(application + LAUNCHER, arguments, 120, option + logging);
    return read(LOG).contains("JVM calling main");
  }

  private int run(String program, List<String> words) throws Exception {
    return run(program, words, Integer.MAX_VALUE, "");
  }

  /** Runs a program until it ends, the launcher comes to main, or the time is over. */
  private int run(String program, List<String> words, int limit, String jvm) throws Exception {
    delete(file("logs"));
    Files.writeString(file("output"), "");
    ProcessBuilder builder = new ProcessBuilder(program).redirectInput(new File("/dev/null"))
        .redirectOutput(Redirect.appendTo(file("output").toFile())).redirectErrorStream(true);
    builder.command().addAll(words);
    builder.environment().keySet().removeIf(name -> name.matches("CLASSPATH|NORVALED_DEBUG_PORT"
        + "|KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE|(JDK)?_JAVA_OPTIONS|JAVA_TOOL_OPTIONS"));
    builder.environment().put("KESTREL_NATIVE_LOG_DIR_OVERRIDE", file("logs").toString());
    builder.environment().merge("NORVALED_JVM_ARGS", jvm, (old, more) -> old + " " + more);
    Process child = builder.start();
    Set<ProcessHandle> started = new LinkedHashSet<>(); // by it, who may outlive it
    try {
      long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(limit);
      boolean told = false;
      while (!child.waitFor(20, TimeUnit.MILLISECONDS) && !read(LOG).contains("JVM calling main")) {
        child.descendants().forEach(started::add);
        // What an application says without end is not to fill the disk.
        if (Files.size(file("output")) > 1 << 20) Files.writeString(file("output"), "");
        told = told || System.nanoTime() > end && child.toHandle().destroy();
        if (System.nanoTime() > end + TimeUnit.SECONDS.toNanos(10)) break;
      }
    } finally {
      child.descendants().forEach(started::add);
      child.destroyForcibly().onExit().join();
      for (ProcessHandle one : started)
        Stream.concat(Stream.of(one), one.descendants()).forEach(ProcessHandle::destroyForcibly);
    }
    return child.exitValue();
  }

  /** The exception that ended a program, or what it said last. */
  private String reason() throws IOException {
    String text = read(LOG).replaceAll(".*(jvm_vprintf JVM:|resolveJNICreateFunction) ", "");
    List<String> lines = (text + read("output")).lines().filter(
        line -> !line.matches("(?i)[#\\s]*|\\s+(at |-).*|.*warning.*|.*---- .native.*")).toList();
    Stream<String> error = lines.stream().filter(l -> l.matches(".*(Exception|Error|SIG.*).*"));
    return Stream.concat(lines.stream(), error).reduce("no message", (a, b) -> b.strip());
  }

  private Path file(String name) {
    return work.resolve(name);
  }

  private String read(String name) throws IOException {
    return Files.exists(file(name)) ? new String(Files.readAllBytes(file(name)), UTF_8) : "";
  }

  private static String find(String pattern, String text, String otherwise) {
    Matcher matcher = Pattern.compile(pattern).matcher(text);
    check(matcher.find(), otherwise);
    return matcher.group(1);
  }

  private static void say(String text) {
    System.out.println("bundle: " + text);
  }
}
