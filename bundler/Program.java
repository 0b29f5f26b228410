package bundler;

import java.io.File;
import java.io.IOException;
import java.lang.ProcessBuilder.Redirect;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.regex.Pattern;

/** A program that is run as a child process, in an empty folder and without input. */
final class Program {
  static final int SUCCESS = 0;
  private static final int INTERRUPTED = 130; // after Ctrl-C
  private static final Duration TIME_TO_EXIT = Duration.ofSeconds(10);
  private static final long MOST_OUTPUT = 1 << 20; // bytes
  // A record of this function: an argument with these words stands in another function's record.
  private static final Pattern CALLING_MAIN = Pattern.compile(
      "(?m)^\\S+ \\d+ \\S+ \\S+ +INFO   ---- \\(native\\) +operator\\(\\) JVM calling main$");
  // They would change what the application loads, or the launcher's own settings.
  private static final Pattern KEPT_AWAY = Pattern.compile("(NORVALED|KESTREL)_.*|CLASSPATH");

  /** How a program has ended. */
  record Result(int status, boolean isEndedByLimit, String output, String log) {
    /** Whether the launcher has created the JVM and called the application's main. */
    boolean reachedMain() {
      return CALLING_MAIN.matcher(log).find();
    }

    /** The end of what it has written; of the launcher's log, what follows the JVM's options. */
    String excerpt() {
      return Output.excerpt(log.substring(log.lastIndexOf("\n\t\n") + 1) + output);
    }
  }

  private final WorkFolder work;
  private final boolean isVerbose;
  private final ProcessBuilder builder = new ProcessBuilder();
  private final Set<ProcessHandle> descendants = new LinkedHashSet<>(); // some may outlive it

  Program(WorkFolder work, boolean isVerbose, Path program, List<String> arguments) {
    this.work = work;
    this.isVerbose = isVerbose;
    builder.command().add(program.toString());
    builder.command().addAll(arguments);
    builder.redirectInput(new File("/dev/null"));
    builder.redirectErrorStream(true);
    builder.environment().keySet().removeIf(name -> KEPT_AWAY.matcher(name).matches());
  }

  /** The caller's variables that the programs do not get. */
  static List<String> variablesKeptAway() {
    return System.getenv().keySet().stream().filter(name -> KEPT_AWAY.matcher(name).matches())
        .sorted().toList();
  }

  Program with(Map<String, String> environment) {
    builder.environment().putAll(environment);
    return this;
  }

  /** Runs the program to its end. */
  Result run() throws IOException {
    return run(Optional.empty(), false);
  }

  /** Runs the program to its end; when the limit is over, it is asked to exit, and then killed. */
  Result runFor(Duration limit) throws IOException {
    return run(Optional.of(limit), false);
  }

  /** Runs the launcher until it calls the application's main, or the limit is over. */
  Result runToMain(Duration limit) throws IOException {
    return run(Optional.of(limit), true);
  }

  private Result run(Optional<Duration> limit, boolean stopsAtMain) throws IOException {
    Path logs = work.emptyFolder("logs");
    Path log = logs.resolve("kestrel-native.log");
    Path output = work.path("output");
    Files.writeString(output, "");
    builder.directory(work.emptyFolder("current").toFile());
    builder.environment().put("KESTREL_NATIVE_LOG_DIR_OVERRIDE", logs.toString());
    builder.redirectOutput(Redirect.appendTo(output.toFile()));
    if (isVerbose) {
      Output.say("running " + String.join(" ", builder.command()));
    }

    Process process = work.start(builder);
    long start = System.nanoTime();
    boolean isEndedByLimit = false;
    while (!waitBriefly(process)) {
      if (stopsAtMain && CALLING_MAIN.matcher(FileTrees.readIfExists(log)).find()) {
        break;
      }
      if (limit.isPresent()) {
        Duration left = limit.get().minusNanos(System.nanoTime() - start);
        if (left.isNegative() && !isEndedByLimit) {
          isEndedByLimit = true;
          process.destroy();
        } else if (left.plus(TIME_TO_EXIT).isNegative()) {
          break;
        } else if (!stopsAtMain) {
          Output.showSecondsLeft(Math.max(left.toSeconds(), 0));
        }
      }
      process.descendants().forEach(descendants::add);
      // An application that writes without end must not fill the disk.
      if (Files.size(output) > MOST_OUTPUT) {
        Files.writeString(output, "");
      }
    }
    Output.hideSecondsLeft();
    kill(process);
    work.waitIfEnded(); // what a signal has ended says nothing about the program
    Result result = new Result(process.exitValue(), isEndedByLimit,
        FileTrees.readIfExists(output), FileTrees.readIfExists(log));
    if (isVerbose) {
      System.out.println(result.output + "exit status " + result.status);
    }
    return result;
  }

  /** Returns whether the process has ended. */
  private static boolean waitBriefly(Process process) {
    try {
      boolean hasEnded = process.waitFor(20, TimeUnit.MILLISECONDS);
      if (hasEnded && process.exitValue() == INTERRUPTED) {
        Thread.sleep(1000); // the same Ctrl-C is about to end this process, too
      }
      return hasEnded;
    } catch (InterruptedException e) {
      throw new IllegalStateException(e); // nothing interrupts this thread
    }
  }

  private void kill(Process process) {
    process.descendants().forEach(descendants::add);
    process.destroyForcibly();
    process.onExit().join();
    for (ProcessHandle descendant : descendants) {
      descendant.descendants().forEach(ProcessHandle::destroyForcibly);
      descendant.destroyForcibly();
    }
  }
}
