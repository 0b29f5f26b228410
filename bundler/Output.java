package bundler;

import java.util.Arrays;
import java.util.Collection;
import java.util.List;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/** What this program prints. */
final class Output {
  // ./dev sets this if it writes to a terminal.
  private static final boolean IS_TERMINAL = Boolean.getBoolean("bundler.terminal");
  private static final int LINES_SHOWN = 20;
  private static final Pattern JVM_NOISE = Pattern.compile(
      "^(OpenJDK|Java HotSpot).* [Ww]arning: |^WARNING: package |\\[(info|warning) *\\]");

  private static long secondsShown = -1;

  private Output() {}

  /** Paths or names as a message lists them. */
  static String list(Collection<?> things) {
    return things.stream().map(Object::toString).collect(Collectors.joining(", "));
  }

  static void say(String text) {
    System.out.println("bundle: " + text);
  }

  static void warn(String text) {
    System.err.println("bundle: warning: " + text);
  }

  static void error(String text) {
    System.err.println("bundle: " + text);
  }

  static void showSecondsLeft(long seconds) {
    if (IS_TERMINAL && seconds != secondsShown) {
      System.out.print("\rbundle: " + seconds + " s left ");
      System.out.flush();
      secondsShown = seconds;
    }
  }

  static void hideSecondsLeft() {
    if (secondsShown >= 0) {
      System.out.print("\r" + " ".repeat(30) + "\r");
      secondsShown = -1;
    }
  }

  /**
   * The part of a program's output that a message shows, on lines of its own: an exception that
   * left main, otherwise the last lines, without the JVM's warnings.
   */
  static String excerpt(String output) {
    int exception = output.indexOf("Exception in thread \"main\"");
    List<String> lines = Arrays.stream(output.substring(Math.max(exception, 0)).split("\n"))
        .filter(line -> !line.isBlank() && !JVM_NOISE.matcher(line).find())
        .collect(Collectors.toList());
    int first = exception >= 0 ? 0 : Math.max(lines.size() - LINES_SHOWN, 0);
    int end = Math.min(first + LINES_SHOWN, lines.size());
    return lines.subList(first, end).stream().map(line -> "\n    " + line)
        .collect(Collectors.joining());
  }
}
