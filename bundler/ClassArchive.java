package bundler;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/**
 * The class data sharing archive of a bundle's runtime: the JDK classes that the application loads,
 * parsed and, if the JVM can, linked. Classes of the application's jars stay out: those in an
 * archive name the place where it was written as their code source.
 */
final class ClassArchive {
  private static final Duration LAUNCH_LIMIT = Duration.ofSeconds(120);
  private static final int FIRST_VERSION_THAT_LINKS = 24;
  // "... startJVM JVM Args: ", then each option on a line after a tab; then a tab alone.
  private static final Pattern OPTIONS =
      Pattern.compile("startJVM JVM Args: *\n\t(.*?)\n\t\n", Pattern.DOTALL);
  private static final Pattern MAPPED = Pattern.compile("trying to map (/.*\\.jsa)");
  private static final Pattern CANNOT_START = Pattern.compile("(?m)^(# A fatal error has been"
      + "|Error: (LinkageError|Could not (find or load main|create the Java)|Main method not))");
  private static final Pattern NO_DISPLAY =
      Pattern.compile("HeadlessException|X11 (DISPLAY|display)|X11 window server");
  private static final String NEEDS_DISPLAY =
      "the application needs a display: xvfb-run ./dev bundle ...";
  private static final String REMEDY = "\n--no-archive makes a bundle without launching it.";
  // These are in the list of options, but are the launcher's own functions.
  private static final Set<String> HOOKS = Set.of("vfprintf", "exit", "abort");

  private final WorkFolder work;
  private final Layout bundle;
  private final Options options;
  private final Map<String, String> environment;
  private final int version;
  private final String logArchiveUse;
  private final List<String> jvmOptions = new ArrayList<>();
  private final Path archive;
  private final Path classList;

  /** Launches the bundle to learn which options it passes and which archive the JVM looks for. */
  ClassArchive(WorkFolder work, Layout bundle, Options options, Map<String, String> environment,
      int version) throws IOException {
    this.work = work;
    this.bundle = bundle;
    this.options = options;
    this.environment = environment;
    this.version = version;
    logArchiveUse = version < FIRST_VERSION_THAT_LINKS ? "-Xlog:cds" : "-Xlog:cds,aot";
    classList = work.path("class list");

    Program.Result launch = launchToMain(logArchiveUse);
    if (!launch.reachedMain()) {
      throw new UserError((launch.isEndedByLimit()
          ? "the launcher has not called main within " + LAUNCH_LIMIT.toSeconds() + " s:"
          : "the application does not start:") + launch.excerpt() + REMEDY);
    }
    Matcher listed = OPTIONS.matcher(launch.log());
    List<Path> mapped = mappedArchives(launch);
    if (!listed.find() || mapped.isEmpty()) {
      throw new UserError("the JVM looks for no archive; is -Xshare:off in the options?"
          + launch.excerpt());
    }
    for (String option : listed.group(1).split("\n\t")) {
      if (!HOOKS.contains(option) && !option.equals(logArchiveUse)) {
        jvmOptions.add(option);
      }
    }
    archive = bundle.runtimeHome().resolve("lib/server").resolve(mapped.get(0).getFileName());
  }

  private Program.Result launchToMain(String addedOptions) throws IOException {
    Map<String, String> variables = new HashMap<>(environment);
    variables.merge(InfoPlist.JVM_OPTIONS, addedOptions, (given, added) -> given + " " + added);
    return new Program(work, options.has("--verbose"), bundle.launcher(), options.arguments)
        .with(variables).runToMain(LAUNCH_LIMIT);
  }

  private static List<Path> mappedArchives(Program.Result launch) {
    return MAPPED.matcher(launch.log()).results().map(match -> Path.of(match.group(1))).toList();
  }

  /** Runs the application under the runtime's own java, where it can exit of its own accord. */
  void recordClasses() throws IOException {
    Duration limit = Duration.ofSeconds(options.recordSeconds);
    Output.say("recording the loaded classes, for " + limit.toSeconds()
        + " s or until the application exits");
    List<String> arguments = new ArrayList<>(List.of("-Xshare:off",
        "-XX:DumpLoadedClassList=" + classList,
        // What the application writes must not get into the bundle.
        "-Duser.dir=" + work.path("current"),
        // Under java the -Xss of the options would also apply to main's thread: too little there.
        "-Xss8m", EntryClass.NAME,
        bundle.launcher().toString())); // args[0], as from the launcher
    arguments.addAll(options.arguments);
    Program.Result java = java(arguments).with(environment).runFor(limit);
    boolean needsDisplay = NO_DISPLAY.matcher(java.output()).find();
    boolean threw = java.status() == 1 && java.output().contains("Exception in thread \"main\"");
    if (threw || CANNOT_START.matcher(java.output()).find()) {
      throw new UserError("the application fails while it is recorded:" + java.excerpt()
          + (needsDisplay ? "\n" + NEEDS_DISPLAY : "") + REMEDY);
    }
    if (needsDisplay) {
      Output.warn(NEEDS_DISPLAY);
    }
    if (java.isEndedByLimit()) {
      Output.say("the application was stopped after " + limit.toSeconds() + " s");
    } else if (java.status() == Program.SUCCESS) {
      Output.say("the application exited with status 0");
    } else {
      Output.warn("the application exited with status " + java.status() + ":" + java.excerpt());
    }
    filterClassList(java);
  }

  Path file() {
    return archive;
  }

  /**
   * Takes out the classes that class loaders of the application have defined. They depend on
   * classes of the jars, which are not there when the archive is written.
   */
  private void filterClassList(Program.Result java) throws IOException {
    String list = FileTrees.readIfExists(classList);
    int end = list.lastIndexOf('\n') + 1; // a process that was killed may have left half a line
    if (end == 0) {
      throw new UserError("no classes were recorded:" + java.excerpt());
    }
    Files.writeString(classList, list.substring(0, end).lines()
        .filter(line -> !line.contains(" source: ")).collect(Collectors.joining("\n", "", "\n")));
  }

  /**
   * Writes the archive, and launches the bundle to prove that the JVM uses it. Some JVMs cannot
   * link classes, or cannot use linked classes of some modules; then the archive is written without
   * links.
   */
  void writeAndProve() throws IOException {
    Output.say("writing the class archive");
    boolean isLinked = version >= FIRST_VERSION_THAT_LINKS;
    Program.Result launch = writeAndLaunch(isLinked);
    if (!launch.reachedMain() && isLinked) {
      Output.say("this JVM cannot use linked classes; writing the archive without links");
      launch = writeAndLaunch(false);
    }
    if (!launch.reachedMain()) {
      long free = Files.getFileStore(bundle.root()).getUsableSpace() >> 20;
      throw new UserError((Files.exists(archive) ? "the JVM does not use its archive:"
          : "the JVM writes no archive (free: " + free + " MiB):") + launch.excerpt() + REMEDY);
    }
    for (Path mapped : mappedArchives(launch)) {
      if (!Files.isSameFile(mapped, archive)) {
        throw new UserError("the JVM uses " + mapped + " in place of the bundle's own archive;"
            + " is -XX:SharedArchiveFile in the options?");
      }
    }
    Output.say("archive in use: " + archive.getFileName() + ", " + (Files.size(archive) >> 20)
        + " MiB, " + (launch.log().contains("AOT-linked classes: true") ? "with" : "without")
        + " linked classes");
  }

  /** Returns how the launch has ended, or the JVM that writes no archive. */
  private Program.Result writeAndLaunch(boolean isLinked) throws IOException {
    Files.deleteIfExists(archive);
    Path newArchive = work.path("archive");
    List<String> arguments = new ArrayList<>(List.of(
        "-Xms1g", "-Xmx1g", "-XX:CompressedClassSpaceSize=1g", // room for all classes at once
        "-Djava.class.path=", // in place of the one in the options, to keep the jars out
        "-Xshare:dump", "-XX:SharedClassListFile=" + classList,
        "-XX:SharedArchiveFile=" + newArchive));
    if (isLinked) {
      arguments.add("-XX:+AOTClassLinking");
    }
    Program.Result java = java(arguments).with(environment).run();
    if (Files.notExists(newArchive)) { // whatever the exit status, it is the archive that counts
      return java;
    }
    Files.move(newArchive, archive);
    // With -Xshare:on, a JVM that cannot use its archive does not start.
    return launchToMain("-Xshare:on " + logArchiveUse);
  }

  private Program java(List<String> arguments) {
    List<String> all = new ArrayList<>(jvmOptions);
    all.addAll(arguments);
    return new Program(
        work, options.has("--verbose"), bundle.runtimeHome().resolve("bin/java"), all);
  }
}
