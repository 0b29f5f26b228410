package bundler;

import java.util.Arrays;
import java.util.List;
import java.util.stream.Collectors;

/** What this program prints. */
final class Output {
  // A terminal shows how much of the recording is left.
  private static final boolean IS_TERMINAL = Boolean.getBoolean("bundler.terminal");
  private static final int LINES_SHOWN = 20;

  private Output() {}

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
    if (IS_TERMINAL) {
      System.out.print("\rbundle: " + seconds + " s left ");
      System.out.flush();
    }
  }

  static void hideSecondsLeft() {
    if (IS_TERMINAL) {
      System.out.print("\r" + " ".repeat(30) + "\r");
    }
  }

  /**
   * The part of a program's output that a message shows, on lines of its own: an exception that left
   * main, otherwise the last lines, without the JVM's warnings.
   */
  static String excerpt(String output) {
    int exception = output.indexOf("Exception in thread \"main\"");
    List<String> lines = Arrays.stream(output.substring(Math.max(exception, 0)).split("\n"))
        .filter(line -> !line.isBlank() && !line.contains("[warning]")
            && !line.matches("(OpenJDK|Java HotSpot).* [Ww]arning: .*"))
        .collect(Collectors.toList());
    int first = exception >= 0 ? 0 : Math.max(lines.size() - LINES_SHOWN, 0);
    int end = Math.min(first + LINES_SHOWN, lines.size());
    return lines.subList(first, end).stream().map(line -> "\n    " + line)
        .collect(Collectors.joining());
  }
}
