package bundler;

import java.io.IOException;
import java.nio.file.FileSystemNotFoundException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.TreeMap;
import java.util.jar.Attributes;
import java.util.jar.JarFile;
import java.util.jar.Manifest;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;

/** The application's files, as the command line names them. */
final class ApplicationFiles {
  /** The name of the jar with the entry class that --main-class adds. */
  static final String ENTRY_JAR = "kestrel-entry.jar";
  private static final Pattern LIBRARY = Pattern.compile(".*\\.(so|dylib|jnilib)");
  private static final Pattern ENTRY =
      Pattern.compile("(META-INF/versions/[0-9]+/)?" + EntryClass.FILE);

  final List<Path> jars = new ArrayList<>();
  final List<Path> libraries = new ArrayList<>();
  /** What goes into Contents/Resources. */
  final List<Path> resources = new ArrayList<>();
  /** The application's main, if the entry class is to be added. */
  final Optional<EntryClass> entry;
  private final List<Path> leftOut = new ArrayList<>(); // of the given folders

  /** @param platform what NativeCode says of a library that fits the bundle */
  ApplicationFiles(Options options, String platform) throws IOException {
    for (String item : options.items) {
      Path path = FileTrees.absolute(item);
      if (Files.isDirectory(path)) {
        addFolder(path);
      } else if (!Files.exists(path)) {
        throw new UserError(path + " does not exist");
      } else if (!add(path)) {
        throw new UserError(path + " is neither a jar, nor a native library, nor a folder;"
            + " --app-content takes other files");
      }
    }
    for (String content : options.all("--app-content")) {
      addContent(FileTrees.absolute(content));
    }
    options.path("--icon").ifPresent(resources::add);
    for (List<Path> files : List.of(jars, libraries, resources)) {
      checkNames(files);
    }
    for (Path library : libraries) {
      checkLibrary(library, platform);
    }
    Optional<String> mainClass = options.last("--main-class");
    checkEntryClass(mainClass.isPresent());
    entry = mainClass.isPresent()
        ? Optional.of(EntryClass.calling(mainClass.get(), jars)) : Optional.empty();
  }

  private void addFolder(Path folder) throws IOException {
    boolean found = false;
    for (Path file : FileTrees.entries(folder)) {
      if (FileTrees.isMacMetadata(file)) {
        continue;
      }
      if (!Files.isDirectory(file) && add(file)) {
        found = true;
      } else {
        leftOut.add(file);
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

  private void addContent(Path content) throws IOException {
    if (!Files.exists(content)) {
      throw new UserError(content + " does not exist");
    }
    for (Path file : FileTrees.all(content)) {
      if (Files.isRegularFile(file) && !NativeCode.in(file).equals(NativeCode.NONE)) {
        throw new UserError(file + " is native code; name it as an ITEM instead");
      }
    }
    resources.add(content);
  }

  private static void checkNames(List<Path> files) {
    Map<String, Path> seen = new HashMap<>();
    for (Path file : files) {
      FileTrees.checkLocale(file);
      String name = file.getFileName().toString();
      if (name.contains(":")) { // which separates the entries of a class path
        throw new UserError("a file's name must not contain a colon: " + file);
      }
      // A Mac's file system usually ignores case.
      Path other = seen.putIfAbsent(name.toLowerCase(Locale.ROOT), file);
      if (other != null) {
        throw new UserError("two files have the same name: " + other + " and " + file);
      }
    }
  }

  private static void checkLibrary(Path library, String platform) throws IOException {
    String code = NativeCode.in(library);
    boolean isUniversal = code.equals(NativeCode.UNIVERSAL) && platform.endsWith("for Macs");
    if (!code.equals(platform) && !isUniversal) {
      throw new UserError(library + " contains " + code + ", but the bundle needs " + platform);
    }
  }

  private void checkEntryClass(boolean isAdded) throws IOException {
    List<Path> withEntry = new ArrayList<>();
    List<String> mainClasses = new ArrayList<>();
    for (Path jar : jars) {
      try (ZipFile zip = new ZipFile(jar.toFile())) {
        if (zip.stream().anyMatch(file -> ENTRY.matcher(file.getName()).matches())) {
          withEntry.add(jar);
        }
      } catch (IOException e) {
        throw new UserError(jar + " is not a jar or is truncated: " + e.getMessage());
      }
      mainClass(jar).ifPresent(mainClasses::add);
    }
    if (isAdded && !withEntry.isEmpty()) {
      throw new UserError(
          withEntry.get(0) + " contains the entry class, so --main-class does not apply");
    }
    if (!isAdded && withEntry.isEmpty()) {
      throw new UserError("no jar contains " + EntryClass.FILE + "; name the application's main"
          + " class with --main-class" + mainClasses.stream().map(name -> " " + name)
          .collect(Collectors.joining(" or")));
    }
    if (withEntry.size() > 1) {
      throw new UserError("more than one jar contains " + EntryClass.FILE + ": " + withEntry);
    }
  }

  private static Optional<String> mainClass(Path jar) throws IOException {
    return attribute(jar, Attributes.Name.MAIN_CLASS);
  }

  private static Optional<String> attribute(Path jar, Attributes.Name name) throws IOException {
    try (JarFile file = new JarFile(jar.toFile(), false)) {
      Manifest manifest = file.getManifest();
      return Optional.ofNullable(manifest)
          .map(found -> found.getMainAttributes().getValue(name)).map(String::strip);
    }
  }

  /** Tells the user what may not be as intended. */
  void warn() throws IOException {
    if (!leftOut.isEmpty()) {
      Output.warn("left out, since they are neither jars nor native libraries: " + leftOut);
    }
    for (Path jar : jars) {
      warnOfClassPath(jar);
    }
    warnOfDifferentClasses();
  }

  private void warnOfClassPath(Path jar) throws IOException {
    Set<Path> bundled = new HashSet<>();
    for (Path file : jars) {
      bundled.add(file.toRealPath());
    }
    List<String> missing = new ArrayList<>();
    for (String word : attribute(jar, Attributes.Name.CLASS_PATH).orElse("").split("\\s+")) {
      Path file = fileOf(jar, word);
      if (!word.isEmpty() && Files.exists(file) && !bundled.contains(file.toRealPath())) {
        missing.add(word);
      }
    }
    if (!missing.isEmpty()) {
      Output.warn("the manifest of " + jar + " names in its Class-Path what is not in the bundle: "
          + String.join(" ", missing));
    }
  }

  /** What an entry of a Class-Path, a URL relative to its jar, names. */
  private static Path fileOf(Path jar, String url) {
    try {
      return Path.of(jar.toUri().resolve(url));
    } catch (IllegalArgumentException | FileSystemNotFoundException e) {
      return jar.resolveSibling("no file");
    }
  }

  private void warnOfDifferentClasses() throws IOException {
    Map<String, Long> checksums = new HashMap<>();
    Map<String, Path> firstJars = new HashMap<>();
    Map<String, String> examples = new TreeMap<>(); // of each pair of jars
    for (Path jar : jars) {
      try (ZipFile zip = new ZipFile(jar.toFile())) {
        for (ZipEntry file : Collections.list(zip.entries())) {
          String name = file.getName();
          if (!name.endsWith(".class") || name.endsWith("module-info.class")) {
            continue;
          }
          Long other = checksums.putIfAbsent(name, file.getCrc());
          Path first = firstJars.putIfAbsent(name, jar);
          if (other != null && other != file.getCrc() && !jar.equals(first)) {
            examples.putIfAbsent(first.getFileName() + " and " + jar.getFileName(), name);
          }
        }
      }
    }
    examples.forEach((pair, name) -> Output.warn(pair + " contain different classes of one name,"
        + " such as " + name + "; which of them is used is not defined"));
  }
}
