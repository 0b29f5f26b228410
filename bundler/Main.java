package bundler;

import java.io.IOException;
import java.nio.file.AccessDeniedException;
import java.nio.file.FileSystemException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;

/**
 * Makes application bundles; docs/bundle.md describes what it does. It checks the whole command
 * line, makes the bundle in a folder beside its target, proves that it starts, and only then puts
 * it in place.
 */
public final class Main {
  private static final int SUCCESS = 0;
  private static final int FAILURE = 1;
  private static final int WRONG_USE = 2;

  private final Options options;
  private final boolean isForMac;
  private final JavaRuntime runtime;
  private final InfoPlist plist;
  private final ApplicationFiles files;
  private final Path target;

  public static void main(String[] args) {
    System.exit(run(List.of(args)));
  }

  /** Returns the exit status. */
  private static int run(List<String> args) {
    try {
      for (String arg : args) {
        if (arg.indexOf('\uFFFD') >= 0) {
          throw new UserError(FileTrees.WRONG_LOCALE + arg);
        }
      }
      Main main = new Main(new Options(args));
      if (main.options.launcher.isPresent()) {
        main.makeBundle(main.options.launcher.get());
      }
      return SUCCESS;
    } catch (UsageError e) {
      Output.error(e.getMessage() + "; see --help");
      return WRONG_USE;
    } catch (UserError e) {
      Output.error(e.getMessage());
    } catch (InvalidPathException e) {
      Output.error(FileTrees.WRONG_LOCALE + e.getInput());
    } catch (NoSuchFileException e) {
      Output.error(e.getFile() + " does not exist");
    } catch (AccessDeniedException e) {
      Output.error(e.getFile() + ": permission denied");
    } catch (FileSystemException e) {
      Output.error(e.getFile() + ": "
          + (e.getReason() != null ? e.getReason() : e.getClass().getSimpleName()));
    } catch (IOException e) {
      Output.error(e.getMessage());
    }
    return FAILURE;
  }

  /** Checks everything that the command line names. */
  private Main(Options options) throws IOException {
    this.options = options;
    isForMac = options.command == Options.Command.MACOS
        || System.getProperty("os.name").startsWith("Mac");
    String codeName = NativeCode.name(processor(options), isForMac);
    runtime = new JavaRuntime(options, codeName);
    plist = new InfoPlist(options, runtime.version);
    files = new ApplicationFiles(options, codeName);
    Path folder = options.path("--dest").orElseThrow(() -> new UsageError("--dest is missing"));
    target = folder.resolve(plist.name + ".app");
    Layout.checkReplaceable(target);
  }

  /**
   * The processor for which the bundle is. An unknown one keeps Java's name, which suits no file.
   */
  private static String processor(Options options) {
    if (options.command == Options.Command.MACOS) {
      return options.checked("--arch", "x86_64|arm64", "x86_64 or arm64").orElse("x86_64");
    }
    String processor = System.getProperty("os.arch");
    return switch (processor) {
      case "amd64" -> "x86_64";
      case "aarch64" -> "arm64";
      default -> processor;
    };
  }

  private void makeBundle(Path launcher) throws IOException {
    files.warn();
    plist.warn(options);
    if (!Files.isDirectory(target.getParent())) {
      Files.createDirectories(target.getParent());
    }
    Path realTarget = target.getParent().toRealPath().resolve(target.getFileName());
    Layout.checkReplaceable(realTarget);
    try (WorkFolder work = new WorkFolder(realTarget)) {
      Layout bundle = new Layout(work.bundle());
      bundle.assemble(launcher, files, plist);
      if (isForMac && options.has("--main-class")) { // other entry classes do without windows
        runtime.warnOfWindows(bundle, work);
      }
      runtime.addTo(bundle, work);
      if (options.command == Options.Command.BUNDLE) {
        if (!options.has("--no-archive")) {
          addArchive(bundle, work);
        }
        runtime.removePrograms(bundle);
      }
      work.putInPlace();
    }
    if (options.command != Options.Command.TRIAL) { // which is a step of a build
      report(realTarget);
    }
  }

  /** Adds an archive of classes, so that the JVM starts fast. */
  private void addArchive(Layout bundle, WorkFolder work) throws IOException {
    warnOfArguments();
    List<String> keptAway = Program.variablesKeptAway();
    if (!keptAway.isEmpty()) {
      Output.say("these variables of yours have no effect on the bundle (see --env and"
          + " --java-options): " + Output.list(keptAway));
    }
    Map<Path, String> before = fingerprints(bundle);
    ClassArchive archive =
        new ClassArchive(work, bundle, options, plist.environment, runtime.version.orElseThrow());
    archive.recordClasses();
    archive.writeAndProve();
    before.remove(archive.file());
    Map<Path, String> after = fingerprints(bundle);
    after.remove(archive.file());
    removeTraces(bundle, before, after);
  }

  private void warnOfArguments() {
    for (String argument : options.arguments) {
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

  /**
   * Removes what the launches have added to the bundle; a bundle that they have changed is wrong.
   */
  private static void removeTraces(Layout bundle, Map<Path, String> before,
      Map<Path, String> after) {
    before.forEach((path, fingerprint) -> {
      if (!fingerprint.equals(after.get(path))) {
        throw new UserError("the application has changed " + bundle.root().relativize(path)
            + " in its bundle, which would break a signature; --no-archive makes a bundle without"
            + " launching it");
      }
    });
    for (Path path : after.keySet()) {
      if (!before.containsKey(path) && before.containsKey(path.getParent())) {
        if (!FileTrees.delete(path).isEmpty()) {
          throw new UserError("the application has left " + path + ", which cannot be deleted");
        }
        Output.warn("removed what the application has left in its bundle: "
            + bundle.root().relativize(path));
      }
    }
  }

  private void report(Path bundle) {
    Output.say("the bundle is " + bundle);
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

  /** A text as one word for a shell. */
  private static String quoted(String text) {
    return "'" + text.replace("'", "'\\''") + "'";
  }
}
