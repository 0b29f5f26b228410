package bundler;

import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The command line. Which options a command has, and which of them take a value, is read from the
 * text of --help, as ./dev does, too.
 */
final class Options {
  // "Options of ./dev bundle and ./dev macos:", then lines such as "  --name NAME     the name".
  private static final Pattern SECTION = Pattern.compile("Options of (.*):");
  private static final Pattern OPTION = Pattern.compile("  (--[a-z-]+)( [A-Z]+)?.*");

  /** What is made. */
  enum Command {
    /** A bundle for this machine with a runtime that is prepared for the application. */
    BUNDLE("./dev bundle"),
    /** A bundle for Macs. */
    MACOS("./dev macos"),
    /** A bundle for trials on this machine, whose runtime is a link to --runtime-image. */
    TRIAL("./dev");

    private final String name; // what the sections with its options contain

    Command(String name) {
      this.name = name;
    }
  }

  final Command command;
  /** The executable to put into the bundle; empty if the command line is to be checked only. */
  final Optional<Path> launcher;
  final List<String> items = new ArrayList<>();
  /** The application's arguments while the bundle is made. */
  final List<String> arguments = new ArrayList<>();
  final int recordSeconds;
  private final Map<String, List<String>> values = new HashMap<>();

  /**
   * Reads a command line: COMMAND LAUNCHER [OPTION...] [ITEM...] [-- ARG...], where COMMAND is
   * bundle, macos or trial, and "-" as LAUNCHER means that nothing is to be made.
   */
  Options(List<String> words) throws IOException {
    if (words.size() < 2) {
      throw new UsageError("COMMAND and LAUNCHER are missing");
    }
    command = switch (words.get(0)) {
      case "bundle" -> Command.BUNDLE;
      case "macos" -> Command.MACOS;
      case "trial" -> Command.TRIAL;
      default -> throw new UsageError("unknown command: " + words.get(0));
    };
    launcher = words.get(1).equals("-")
        ? Optional.empty() : Optional.of(FileTrees.absolute(words.get(1)));
    read(words.subList(2, words.size()));
    if (has("--runtime-image")) {
      reject("--add-modules", "--runtime-image");
      reject("--keep-java", "--runtime-image");
    }
    if (has("--no-archive")) {
      reject("--record-seconds", "--no-archive");
      if (!arguments.isEmpty()) {
        throw new UsageError("with --no-archive, the application is not launched with arguments");
      }
    }
    recordSeconds = Integer.parseInt(
        checked("--record-seconds", "[1-9][0-9]{0,4}", "a number from 1 to 99999").orElse("20"));
  }

  private void read(List<String> words) throws IOException {
    Map<String, Boolean> takesValue = optionsOf(command);
    for (int i = 0; i < words.size(); i++) {
      String word = words.get(i);
      if (word.equals("--")) {
        if (command != Command.BUNDLE) {
          throw new UsageError("-- belongs to ./dev bundle");
        }
        arguments.addAll(words.subList(i + 1, words.size()));
        return;
      }
      if (!word.startsWith("-")) {
        items.add(word);
        continue;
      }
      if (!takesValue.containsKey(word)) {
        throw new UsageError(word + " is not an option of " + command.name);
      }
      List<String> valuesOfOption = values.computeIfAbsent(word, option -> new ArrayList<>());
      if (takesValue.get(word)) {
        i++;
        if (i == words.size() || words.get(i).equals("--")
            || takesValue.containsKey(words.get(i))) {
          throw new UsageError(word + " needs a value");
        }
        valuesOfOption.add(words.get(i));
      }
    }
  }

  /** The options of a command, and whether each takes a value. */
  private static Map<String, Boolean> optionsOf(Command command) throws IOException {
    Map<String, Boolean> takesValue = new HashMap<>();
    boolean applies = false;
    for (String line : help().split("\n")) {
      Matcher section = SECTION.matcher(line);
      Matcher option = OPTION.matcher(line);
      if (section.matches()) {
        applies = section.group(1).contains(command.name);
      } else if (applies && option.matches()) {
        takesValue.put(option.group(1), option.group(2) != null);
      }
    }
    return takesValue;
  }

  private static String help() throws IOException {
    try (InputStream text = Options.class.getResourceAsStream("/help.txt")) {
      return new String(text.readAllBytes(), UTF_8);
    }
  }

  private void reject(String option, String reason) {
    if (has(option)) {
      throw new UsageError(option + " does not go with " + reason);
    }
  }

  boolean has(String option) {
    return values.containsKey(option);
  }

  /** All values of an option, in order. */
  List<String> all(String option) {
    return values.getOrDefault(option, List.of());
  }

  /** The value of an option; the last one counts. */
  Optional<String> last(String option) {
    List<String> all = all(option);
    return all.isEmpty() ? Optional.empty() : Optional.of(all.get(all.size() - 1));
  }

  /** The value of an option, which must match a pattern as a whole. */
  Optional<String> checked(String option, String pattern, String description) {
    Optional<String> value = last(option);
    if (value.isPresent() && !value.get().matches(pattern)) {
      throw new UserError(option + " must be " + description + ": " + value.get());
    }
    return value;
  }

  /** The file or folder that an option names. */
  Optional<Path> path(String option) {
    return last(option).map(FileTrees::absolute);
  }
}
