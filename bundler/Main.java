package bundler;

import java.io.IOException;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;

/**
 * Makes application bundles; docs/bundle.md and docs/macos.md describe what it does. It checks the
 * whole command line, makes the bundle in a folder beside its target, proves that it starts, and
 * only then puts it in place.
 */
public final class Main {
  private static final int FAILURE = 1;
  private static final int WRONG_USE = 2;

  private Main() {}

  public static void main(String[] args) {
    System.exit(run(List.of(args)));
  }

  /** Returns the exit status. */
  private static int run(List<String> args) {
    try {
      if (String.join("", args).indexOf('\uFFFD') >= 0) {
        throw new UserError(FileTrees.WRONG_LOCALE + String.join(" ", args));
      }
      Options options = new Options(args);
      makeBundle(options);
      return 0;
    } catch (UsageError e) {
      Output.error(e.getMessage() + "; see --help");
      return WRONG_USE;
    } catch (UserError e) {
      Output.error(e.getMessage());
    } catch (InvalidPathException e) {
      Output.error(FileTrees.WRONG_LOCALE + e.getInput());
    } catch (FileSystemException e) {
      Output.error(e.getFile() + ": "
          + (e.getReason() != null ? e.getReason() : e.getClass().getSimpleName()));
    } catch (IOException e) {
      Output.error(e.getMessage());
    }
    return FAILURE;
  }

  private static void makeBundle(Options options) throws IOException {
    boolean isForMac = options.command == Options.Command.MACOS || isOnMac();
    String processor = processor(options);
    String platform =
        isForMac ? NativeCode.forMac(processor) : NativeCode.forLinux(processor);
    ClassArchive.recordSeconds(options); // which must be a number
    JavaRuntime runtime = new JavaRuntime(options, platform);
    InfoPlist plist = new InfoPlist(options, runtime.version());
    Path folder = options.path("--dest").orElseThrow(() -> new UsageError("--dest is missing"));
    WorkFolder.checkTarget(folder.resolve(plist.name + ".app"));
    ApplicationFiles files = new ApplicationFiles(options, platform);
    if (options.launcher.isEmpty()) {
      return;
    }
    Path target =
        Files.createDirectories(folder).toRealPath().resolve(plist.name + ".app");
    WorkFolder.checkTarget(target);
    files.warn();
    plist.warn(options);
    try (WorkFolder work = new WorkFolder(target)) {
      Layout bundle = new Layout(work.bundle());
      bundle.assemble(options.launcher.get(), files, plist);
      if (isForMac && options.has("--main-class")) {
        runtime.warnOfWindows(bundle, work);
      }
      runtime.addTo(bundle, work);
      if (options.command == Options.Command.BUNDLE) {
        prepare(options, runtime, bundle, plist.environment, work);
      }
      work.putInPlace();
    }
    if (options.command == Options.Command.LINK) {
      return; // a step of a build, which prints nothing
    }
    Output.say("the bundle is " + target);
    if (options.command == Options.Command.MACOS && !options.has("--runtime-image")) {
      Output.say("it has no Java runtime, so the launcher will exit with 53; --runtime-image adds"
          + " one");
    }
    if (!plist.environment.isEmpty()) {
      Output.say("every launch " + (isForMac ? "from a terminal " : "") + "needs these variables: "
          + plist.environment.entrySet().stream()
              .map(variable -> variable.getKey() + "=" + quoted(variable.getValue()))
              .collect(Collectors.joining(" ")));
    }
  }

  /** Lets the JVM of a bundle start fast. */
  private static void prepare(Options options, JavaRuntime runtime, Layout bundle,
      Map<String, String> environment, WorkFolder work) throws IOException {
    if (!options.has("--no-archive")) {
      warnOfArguments(options.arguments);
      List<String> keptAway = Program.variablesKeptAway();
      if (!keptAway.isEmpty()) {
        Output.say("your variables " + keptAway + " have no effect here; see --env and"
            + " --java-options");
      }
      Map<Path, String> before = fingerprints(bundle);
      int version = runtime.version().orElseThrow();
      ClassArchive archive = new ClassArchive(work, bundle, options, environment, version);
      archive.recordClasses();
      archive.writeAndProve(version);
      removeTraces(bundle, before, archive.file());
    }
    runtime.removePrograms(bundle);
  }

  private static void warnOfArguments(List<String> arguments) {
    for (String argument : arguments) {
      Path path = Path.of(argument);
      if (!argument.isEmpty() && !path.isAbsolute() && Files.exists(path)) {
        Output.warn("the application does not run in this folder, so it may not find " + argument
            + "; give it " + path.toAbsolutePath());
      }
    }
  }

  /** Each path in a bundle with the size and time of its file. */
  private static Map<Path, String> fingerprints(Layout bundle) throws IOException {
    Map<Path, String> fingerprints = new TreeMap<>();
    for (Path path : FileTrees.all(bundle.root())) {
      fingerprints.put(path, Files.isRegularFile(path)
          ? Files.size(path) + " " + Files.getLastModifiedTime(path) : "");
    }
    return fingerprints;
  }

  /** Removes what the launches have left in the bundle, but for the archive. */
  private static void removeTraces(Layout bundle, Map<Path, String> before, Path archive)
      throws IOException {
    Map<Path, String> after = fingerprints(bundle);
    for (Path path : after.keySet()) {
      String fingerprint = before.get(path);
      if (path.equals(archive) || after.get(path).equals(fingerprint)) {
        continue;
      }
      if (fingerprint != null) {
        throw new UserError("the application has changed " + bundle.root().relativize(path)
            + " in its bundle, which would break a signature; --no-archive makes a bundle without"
            + " launching it");
      }
      Output.warn("the application has left " + bundle.root().relativize(path)
          + " in its bundle; it is removed");
      FileTrees.delete(path);
    }
  }

  private static boolean isOnMac() {
    return System.getProperty("os.name").startsWith("Mac");
  }

  /** The processor for which the bundle is; an unknown one keeps its name, and nothing fits it. */
  private static String processor(Options options) {
    if (options.command == Options.Command.MACOS) {
      return options.last("--arch", "x86_64|arm64", "x86_64 or arm64").orElse("x86_64");
    }
    String processor = System.getProperty("os.arch");
    return switch (processor) {
      case "amd64" -> "x86_64";
      case "aarch64" -> "arm64";
      default -> processor;
    };
  }

  /** A text as one word for a shell. */
  private static String quoted(String text) {
    return "'" + text.replace("'", "'\\''") + "'";
  }
}
