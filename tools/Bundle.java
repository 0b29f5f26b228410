import java.io.*;
import java.nio.channels.ClosedByInterruptException;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.*;
import java.util.regex.*;
import java.util.stream.*;
import java.util.zip.ZipFile;

/**
 * Makes application bundles; docs/bundle.md tells how.
 *
 * <pre>
 *   bundle TARGET.app LAUNCHER JAR-OR-FOLDER... [-- ARG...]
 *       with a runtime of the JDK that runs this, prepared to start the application fast
 *   archive APPLICATION.app [-- ARG...]
 *       prepares the runtime in a bundle anew
 *   fill APPLICATION.app RUNTIME JAR-OR-FOLDER...
 *       replaces jars and runtime of a bundle for Macs; with an empty RUNTIME it has none
 * </pre>
 *
 * The first two start the application with the arguments. After an error or a signal all is as before.
 */
public final class Bundle implements Closeable {
  private static final String ENTRY = "com/norvale/app/daemon/entry/NativeLauncher";
  private static final String LOG = "logs/kestrel-native.log";
  private static final String IN_MAIN = "JVM calling main";
  private static final int STOPPED = -1;
  private static final int KILLED = -2;

  private final int seconds = recordingSeconds();
  private final Map<Path, Path> replaced = new LinkedHashMap<>();
  private final Path work; // beside the bundle, so that to move things there and back is to rename
  private Path application;
  private List<String> command; // that starts it
  private List<String> options; // that it gives the JVM
  private Path archive; // where the JVM looks for one
  private int version; // of the JVM

  private Bundle(Path place) throws IOException {
    application = place;
    work = Files.createTempDirectory(Files.createDirectories(place.getParent()), ".bundle");
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
    } catch (InterruptedException | ClosedByInterruptException e) {
      // The signal gives the status.
    } catch (Exception e) {
      System.err.println("bundle: " + (e instanceof IllegalArgumentException ? e.getMessage() : e));
    }
    done.complete(null);
    System.exit(status);
  }

  private static void perform(List<String> args) throws Exception {
    int end = args.contains("--") ? args.indexOf("--") : args.size();
    List<String> arguments = args.stream().skip(end + 1).toList();
    switch (end == 2 || end > 3 ? args.get(0) + Math.min(end, 4) : "") {
      case "bundle4" -> bundle(absolute(args.get(1)), args.get(2), args.subList(3, end), arguments);
      case "archive2" -> archive(existing(args.get(1)), arguments);
      case "fill4" -> fill(existing(args.get(1)), args.get(2), args.subList(3, end));
      default -> check(false, "usage: bundle TARGET.app LAUNCHER JAR-OR-FOLDER... [-- ARG...] |"
          + " archive APPLICATION.app [-- ARG...] | fill APPLICATION.app RUNTIME JAR-OR-FOLDER...");
    }
  }

  private static void bundle(Path target, String launcher, List<String> given, List<String> arguments)
      throws Exception {
    List<Path> jars = findJars(given);
    check(target.toString().matches("[^:\n]*\\.app"), target + " is not a name for a bundle");
    check(!Files.exists(target) || Files.isDirectory(target.resolve("Contents")),
        target + " exists and is not a bundle");
    check(Files.isExecutable(absolute(launcher)), launcher + " is not a program");
    String runtime = environment("KESTREL_RUNTIME", "");
    check(runtime.isEmpty() || Files.isExecutable(homeIn(Path.of(runtime)).resolve("bin/java")),
        "KESTREL_RUNTIME=" + runtime + " is not a Java runtime");
    try (Bundle bundle = new Bundle(target)) {
      bundle.application = bundle.work.resolve(target.getFileName());
      bundle.assemble(absolute(launcher), jars, runtime);
      bundle.prepare(arguments);
      bundle.replace(bundle.application, target);
      bundle.replaced.clear();
    }
    say("the bundle is " + target);
  }

  private static void archive(Path application, List<String> arguments) throws Exception {
    try (Bundle bundle = new Bundle(application)) {
      bundle.prepare(arguments);
      bundle.replaced.clear();
    }
  }

  private static void fill(Path application, String runtime, List<String> given) throws Exception {
    List<Path> jars = findJars(given);
    if (!runtime.isEmpty()) checkMacLibrary(homeIn(Path.of(runtime)));
    try (Bundle bundle = new Bundle(application)) {
      addJars(bundle.work, jars);
      if (!runtime.isEmpty()) addRuntime(bundle.work, Path.of(runtime));
      bundle.replace(bundle.work.resolve("lib"), application.resolve("Contents/lib"));
      bundle.replace(bundle.work.resolve("jre"), application.resolve("Contents/jre"));
      bundle.replaced.clear();
    }
  }

  /** Moves what was made, if it was, to its place; what was there is kept until all is well. */
  private void replace(Path made, Path place) throws IOException {
    Path kept = work.resolve("replaced" + replaced.size());
    if (replaced.putIfAbsent(place, kept) != null) delete(place);
    if (Files.exists(place)) Files.move(place, kept);
    if (Files.exists(made)) Files.move(made, place);
  }

  @Override
  public void close() throws IOException {
    for (Path place : replaced.keySet()) {
      delete(place);
      if (Files.exists(replaced.get(place))) Files.move(replaced.get(place), place);
    }
    delete(work);
  }

  // What the caller gives -----------------------------------------------------------------------

  private static void check(boolean good, String message) {
    if (!good) throw new IllegalArgumentException(message);
  }

  private static Path absolute(String name) {
    check(!name.isEmpty(), "a name is empty");
    return Path.of(name).toAbsolutePath();
  }

  private static Path existing(String name) throws IOException {
    check(Files.isDirectory(absolute(name).resolve("Contents")), name + " is not a bundle");
    return Path.of(name).toRealPath();
  }

  private static String environment(String name, String otherwise) {
    String value = System.getenv().getOrDefault(name, "");
    return value.isEmpty() ? otherwise : value;
  }

  private static int recordingSeconds() {
    String text = environment("KESTREL_RECORD_SECONDS", "20");
    check(text.matches("[1-9][0-9]{0,4}"), "KESTREL_RECORD_SECONDS=" + text + " is not a number");
    return Integer.parseInt(text);
  }

  /** The jars given and those in folders given, which must be what the launcher can start. */
  private static List<Path> findJars(List<String> given) {
    List<Path> jars = new ArrayList<>();
    for (String name : given) {
      File[] inside = absolute(name).toFile().listFiles((folder, file) -> file.endsWith(".jar"));
      check(inside == null || inside.length > 0, "no jar in " + name);
      if (inside == null) jars.add(absolute(name));
      else Stream.of(inside).sorted().map(File::toPath).forEach(jars::add);
    }
    Set<String> names = new HashSet<>();
    for (Path jar : jars) { // whatever the case: a Mac's file system takes both for one
      boolean isNew = names.add(jar.getFileName().toString().toLowerCase(Locale.ROOT));
      check(isNew, "two jars are named " + jar.getFileName());
    }
    List<Path> entries = jars.stream().filter(Bundle::hasEntry).toList();
    check(!entries.isEmpty(), "none of the jars holds the entry class " + ENTRY);
    check(entries.size() == 1, "more than one jar holds the entry class: " + entries);
    return jars;
  }

  private static boolean hasEntry(Path jar) {
    String name = jar.getFileName().toString();
    check(name.matches("[^:\n]*\\.jar"), jar + " is not a name for a jar on a class path");
    check(Files.isRegularFile(jar), jar + " does not exist, or is not a file");
    Pattern entry = Pattern.compile("(META-INF/versions/[0-9]+/)?" + ENTRY + "\\.class");
    try (ZipFile zip = new ZipFile(jar.toFile())) {
      return zip.stream().anyMatch(file -> entry.matcher(file.getName()).matches());
    } catch (IOException e) {
      throw new IllegalArgumentException(jar + " is not a jar, or cut off: " + e.getMessage());
    }
  }

  /** A Mach-O library for one processor, or the table at the head of one for several. */
  private static void checkMacLibrary(Path home) throws IOException {
    Path library = home.resolve("lib/libjli.dylib");
    String name = environment("KESTREL_MACOS_ARCH", "x86_64");
    String type = name.equals("arm64") ? "\\x0C" : "\\x07";
    check(Files.isRegularFile(library), library + " does not exist: not a Mac's Java runtime");
    String content = Files.readString(library, StandardCharsets.ISO_8859_1);
    check(content.matches("(?s)\\xCF\\xFA\\xED\\xFE" + type + "\\x00\\x00\\x01.{4}\\x06.*"
        + "|(?s)\\xCA\\xFE\\xBA\\xBE\\x00{3}[\\x01-\\x08](.{20}){0,7}?\\x01\\x00\\x00" + type + ".*"),
        library + " is not a library for " + name + " Macs");
  }

  // What the bundle holds -----------------------------------------------------------------------

  private void assemble(Path launcher, List<Path> jars, String runtime) throws Exception {
    Path contents = application.resolve("Contents");
    copy(launcher, Files.createDirectories(contents.resolve("MacOS")).resolve("kestrel"));
    for (String name : List.of("Info.plist", "Resources")) { // which lie beside a Mac's launcher
      Path thing = launcher.getParent().resolveSibling(name);
      if (Files.exists(thing)) copy(thing, contents.resolve(name));
    }
    addJars(contents, jars);
    if (runtime.isEmpty()) link(jars);
    else addRuntime(contents, Path.of(runtime));
    if (System.getProperty("os.name").startsWith("Mac")) {
      checkMacLibrary(home());
    } else { // the JVM's own library exports the same function
      Files.deleteIfExists(home().resolve("lib/libjli.dylib"));
      Files.createSymbolicLink(home().resolve("lib/libjli.dylib"), Path.of("server/libjvm.so"));
    }
  }

  private Path home() {
    return application.resolve("Contents/jre/Contents/Home");
  }

  /** Where in a folder the runtime lies, which for Macs may be Contents/Home. */
  private static Path homeIn(Path runtime) {
    Path home = runtime.resolve("Contents/Home");
    return Files.isDirectory(home) ? home : runtime;
  }

  /** With their time stamps, by which the JVM knows them, and readable for everybody. */
  private static void addJars(Path contents, List<Path> jars) throws Exception {
    Path lib = Files.createDirectory(contents.resolve("lib"));
    for (Path jar : jars) {
      copy(jar, lib.resolve(jar.getFileName()));
      lib.resolve(jar.getFileName()).toFile().setReadable(true, false);
    }
  }

  private static void addRuntime(Path contents, Path runtime) throws Exception {
    say("copying the runtime " + runtime);
    Path about = Files.createDirectory(contents.resolve("jre")).resolve("Contents");
    if (homeIn(runtime) != runtime) copy(runtime.resolve("Contents"), about);
    else copy(runtime, Files.createDirectory(about).resolve("Home"));
  }

  /** Copies a file or a folder, without files that only a debugger of the JVM itself reads. */
  private static void copy(Path source, Path target) throws Exception {
    Path from = source.toRealPath();
    for (Path path : tree(from)) {
      if (Thread.interrupted()) throw new InterruptedException();
      if (path.toString().matches(".*\\.(debuginfo|diz|dSYM)(/.*)?")) continue;
      Path to = target.resolve(from.relativize(path).toString());
      boolean isLink = Files.isSymbolicLink(path);
      if (isLink && Files.readSymbolicLink(path).isAbsolute()) {
        if (Files.exists(path)) copy(path, to); // some systems keep a runtime's settings elsewhere
      } else if (Files.isDirectory(path) && !isLink) {
        Files.createDirectory(to);
      } else {
        Files.copy(path, to, StandardCopyOption.COPY_ATTRIBUTES, LinkOption.NOFOLLOW_LINKS);
      }
    }
  }

  private static List<Path> tree(Path root) throws IOException {
    try (Stream<Path> paths = Files.walk(root)) {
      return paths.toList();
    }
  }

  private static void delete(Path root) throws IOException {
    List<Path> paths = Files.exists(root) ? tree(root) : List.of();
    for (int i = paths.size() - 1; i >= 0; i--) Files.delete(paths.get(i));
  }

  private void link(List<Path> jars) throws Exception {
    say("looking for the modules that the jars use");
    String modules = "java.base,java.desktop,jdk.jdwp.agent," + modulesOf(jars, jars)
        + environment("KESTREL_MODULES", "");
    modules = String.join(",", new TreeSet<>(List.of(modules.split("[,\\s]+"))));
    say("linking a runtime of " + modules);
    Files.createDirectories(home().getParent());
    int status = tool("jlink", List.of("--add-modules", modules, "--strip-java-debug-attributes",
        "--exclude-files=**.debuginfo,**.diz,**.dSYM/**", "--no-header-files", "--no-man-pages",
        "--output", home().toString()));
    check(status == 0, "jlink: " + reason());
  }

  /** Some jars can be read only all together, and some not at all: modules with others missing. */
  private String modulesOf(List<Path> some, List<Path> jars) throws Exception {
    List<String> words = new ArrayList<>(List.of("-q", "--ignore-missing-deps", "--print-module-deps",
        "--multi-release", "" + Runtime.version().feature(), "--class-path",
        jars.stream().map(Path::toString).collect(Collectors.joining(":"))));
    some.forEach(jar -> words.add(jar.toString()));
    if (tool("jdeps", words) == 0) return find("(\\S+)\\s*$", read("output"), "no modules") + ",";
    if (some.size() > 1) {
      String modules = "";
      for (Path jar : some) modules += modulesOf(List.of(jar), jars);
      return modules;
    }
    say("jdeps cannot read " + some.get(0).getFileName() + ": taking all of Java SE");
    return "java.se,jdk.unsupported,";
  }

  private int tool(String name, List<String> words) throws Exception {
    Stream<String> program = Stream.of(System.getProperty("java.home") + "/bin/" + name);
    return run(Stream.concat(program, words.stream()).toList(), Integer.MAX_VALUE, "");
  }

  // Its archive ---------------------------------------------------------------------------------

  private void prepare(List<String> arguments) throws Exception {
    String release = home().resolve("release").toString();
    version = Integer.parseInt(
        find("JAVA_VERSION=\"([0-9]+)", read(release), home() + " is not a Java runtime"));
    check(home().toRealPath().startsWith(application.toRealPath()), home() + " is a link");
    command = new ArrayList<>(arguments);
    command.add(0, application.resolve("Contents/MacOS/kestrel").toString());
    findOptions();
    record();
    dump("-XX:+AOTClassLinking");
    if (prove()) return;
    say("with linked classes this JVM does not start: once more without -XX:+AOTClassLinking");
    dump("-XX:-AOTClassLinking");
    check(prove(), "the JVM does not take the archive: " + reason());
  }

  /** A first start shows what the launcher gives the JVM, and where that looks for an archive. */
  private void findOptions() throws Exception {
    boolean started = reachesMain("");
    check(started || !read("output").contains("UseCompactObjectHeaders"), "JDK " + version
        + " refuses -XX:+UseCompactObjectHeaders, which the launcher gives it: take JDK 25 or later,"
        + " or set KESTREL_AGGRESSIVE_OPTIMIZATIONS=0, which every start then needs as well");
    check(started, "the application does not start: " + reason());
    String list = find("(?s)startJVM JVM Args: *\n\t(.*?)\n\t\n", read(LOG), "no options in the log");
    options = list.lines().map(String::strip)
        .filter(option -> !option.matches("vfprintf|exit|abort|-Xlog:cds(,aot)?")).toList();
    String name = find("trying to map .*/(.*jsa)", read(LOG), "the JVM looks for no archive");
    archive = home().resolve("lib/server").resolve(name);
  }

  /** Starts the application without the launcher, since the record is whole when the JVM ends. */
  private void record() throws Exception {
    say("recording the classes of a start, for " + seconds + " s or until it ends");
    Path classes = work.resolve("classes");
    // The launcher's stack size is not for main, which there has a thread that is not the JVM's.
    List<String> more = new ArrayList<>(List.of("-Xss8m"));
    if (version < 28) more.addAll(List.of("-Xshare:off", "-XX:DumpLoadedClassList=" + classes));
    else more.addAll(List.of("-XX:AOTMode=record", "-XX:AOTConfiguration=" + classes));
    more.add(ENTRY.replace('/', '.'));
    more.addAll(command);
    int status = java(seconds, more);
    check(status != 134 && status != 139 && !read("output").contains("Error: LinkageError occurred")
        && !read("output").contains("Error: Could not find"), "it cannot be started: " + reason());
    if (status >= 0) say("it ended with status " + status + (status == 0 ? "" : ": " + reason()));
    if (status != KILLED) return;
    say("it did not end when told to: less of its start can be prepared");
    if (version < 28) Files.writeString(classes, find("(?s)(.*\n)", read("classes"), "no record"));
    else Files.deleteIfExists(classes);
  }

  private void dump(String linking) throws Exception {
    say("dumping the archive");
    Path made = work.resolve("archive");
    boolean recorded = Files.exists(work.resolve("classes"));
    // More room than the application gets: here all classes are written at once.
    List<String> more = new ArrayList<>(List.of("-Xms1g", "-Xmx1g", "-XX:CompressedClassSpaceSize=1g"));
    more.add(version < 24 ? "-Djava.class.path=" : linking); // older ones bind jars to their place
    if (version < 28 || !recorded) {
      more.addAll(List.of("-Xshare:dump", "-XX:SharedArchiveFile=" + made));
      if (recorded) more.add("-XX:SharedClassListFile=" + work.resolve("classes"));
    } else { // which links no classes in an archive of the other kind
      more.addAll(List.of("-XX:AOTMode=create", "-XX:AOTCache=" + made,
          "-XX:AOTConfiguration=" + work.resolve("classes")));
    }
    java(Integer.MAX_VALUE, more);
    check(Files.exists(made), "the JVM makes no archive: " + reason());
    replace(made, archive);
  }

  /** With -Xshare:on a JVM that cannot use its archive ends; otherwise it goes on without. */
  private boolean prove() throws Exception {
    say("starting the bundle with the archive");
    if (!reachesMain("-Xshare:on")) return false;
    boolean linked = read(LOG).contains("AOT-linked classes: true");
    boolean graph = read(LOG).contains("full module graph: enabled");
    say("the JVM takes " + archive.getFileName() + " (" + (Files.size(archive) >> 20) + " MiB)"
        + (linked ? ", with" : ", without") + " linked classes and"
        + (graph ? " with" : " without") + " the full module graph");
    return true;
  }

  // Processes -----------------------------------------------------------------------------------

  private boolean reachesMain(String option) throws Exception {
    run(command, 120, option + (version < 24 ? " -Xlog:cds" : " -Xlog:cds,aot"));
    return read(LOG).contains(IN_MAIN);
  }

  private int java(int seconds, List<String> more) throws Exception {
    Stream<String> program = Stream.of(home().resolve("bin/java").toString());
    return run(Stream.of(program, options.stream(), more.stream()).flatMap(s -> s).toList(),
        seconds, "");
  }

  /** Runs a program until it ends, the launcher comes to main, or the time is over. */
  private int run(List<String> words, int seconds, String jvmOptions) throws Exception {
    File output = work.resolve("output").toFile();
    delete(work.resolve("logs"));
    Files.writeString(output.toPath(), "");
    ProcessBuilder builder = new ProcessBuilder(words).redirectInput(new File("/dev/null"))
        .redirectOutput(ProcessBuilder.Redirect.appendTo(output)).redirectErrorStream(true);
    Map<String, String> environment = builder.environment();
    environment.keySet().removeAll(List.of("KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE", "CLASSPATH",
        "NORVALED_DEBUG_PORT", "JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"));
    environment.put("KESTREL_NATIVE_LOG_DIR_OVERRIDE", work.resolve("logs").toString());
    environment.merge("NORVALED_JVM_ARGS", jvmOptions, (old, more) -> old + " " + more);
    Process process = builder.start();
    try {
      long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
      while (!process.waitFor(20, TimeUnit.MILLISECONDS)) {
        if (System.nanoTime() > end || read(LOG).contains(IN_MAIN)) return stop(process);
        // What an application says without end is not to fill the disk.
        if (output.length() > 1 << 20) Files.writeString(output.toPath(), "");
      }
      return process.exitValue();
    } finally {
      process.descendants().forEach(ProcessHandle::destroyForcibly);
      process.destroyForcibly().onExit().join();
    }
  }

  private static int stop(Process process) throws InterruptedException {
    List<ProcessHandle> children = process.descendants().toList();
    process.destroy();
    boolean ended = process.waitFor(10, TimeUnit.SECONDS);
    children.forEach(ProcessHandle::destroyForcibly);
    return ended ? STOPPED : KILLED;
  }

  /** The exception that ended a program, or what it said last. */
  private String reason() throws IOException {
    String text = read(LOG).replaceAll(".*(jvm_vprintf JVM:|resolveJNICreateFunction) ", "");
    List<String> lines = (text + read("output")).lines().map(String::stripTrailing).filter(
        line -> !line.matches("|\\s+at .*|\t.*|.*[Ww]arning.*|.*---- .native.*")).toList();
    Stream<String> errors = lines.stream().filter(line -> line.matches(".*(Exception|Error).*"));
    return Stream.concat(lines.stream(), errors).reduce("it says nothing", (a, b) -> b.strip());
  }

  private String read(String name) throws IOException {
    Path file = work.resolve(name);
    return Files.exists(file) ? new String(Files.readAllBytes(file), StandardCharsets.UTF_8) : "";
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
