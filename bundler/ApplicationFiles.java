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
import java.util.jar.Attributes;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.regex.Pattern;
import java.util.zip.ZipEntry;

/** The application's files, as the command line names them. */
final class ApplicationFiles {
  /** The name of the jar with the entry class that --main-class adds. */
  static final String ENTRY_JAR = "kestrel-entry.jar";
  private static final Pattern LIBRARY = Pattern.compile(".*\\.(so(\\.[0-9]+)*|dylib|jnilib)");
  private static final Pattern ENTRY =
      Pattern.compile("(META-INF/versions/[0-9]+/)?" + EntryClass.FILE);

  final List<Path> jars = new ArrayList<>();
  final List<Path> libraries = new ArrayList<>();
  /** What goes into Contents/Resources. */
  final List<Path> resources = new ArrayList<>();
  /** The application's main, if the entry class is to be added. */
  final Optional<EntryClass> entry;
  private final List<Path> leftOut = new ArrayList<>(); // of the given folders

  /** @param codeName of native code that suits the bundle */
  ApplicationFiles(Options options, String codeName) throws IOException {
    for (String item : options.items) {
      addItem(FileTrees.absolute(item));
    }
    for (String content : options.all("--app-content")) {
      addContent(FileTrees.absolute(content).normalize());
    }
    options.path("--icon").ifPresent(resources::add);

    for (List<Path> files : List.of(jars, libraries, resources)) {
      checkNames(files);
    }
    for (Path library : libraries) {
      NativeCode.check(library, codeName);
    }
    Optional<String> mainClass = options.last("--main-class");
    checkEntryClass(mainClass.isPresent());
    entry = mainClass.isPresent()
        ? Optional.of(EntryClass.calling(mainClass.get(), jars)) : Optional.empty();
  }

  private void addItem(Path item) throws IOException {
    if (!Files.exists(item)) {
      throw new UserError(item + " does not exist");
    }
    if (!Files.isDirectory(item)) {
      if (!add(item)) {
        throw new UserError(item + " is neither a jar, nor a native library, nor a folder;"
            + " --app-content takes other files");
      }
      return;
    }
    int before = jars.size() + libraries.size();
    for (Path file : FileTrees.entries(item)) {
      if (!FileTrees.isMacMetadata(file) && !add(file)) {
        leftOut.add(file);
      }
    }
    if (jars.size() + libraries.size() == before) {
      throw new UserError("no jar or native library in " + item);
    }
  }

  /** Returns false for anything but a jar or a native library. */
  private boolean add(Path file) {
    String name = file.getFileName().toString();
    boolean isJar = name.endsWith(".jar");
    if (!Files.isRegularFile(file) || !(isJar || LIBRARY.matcher(name).matches())) {
      return false;
    }
    (isJar ? jars : libraries).add(file);
    return true;
  }

  private void addContent(Path content) throws IOException {
    if (!Files.exists(content) || content.getFileName() == null) {
      throw new UserError("--app-content must be a file or folder: " + content);
    }
    for (Path file : FileTrees.all(content.toRealPath())) {
      if (Files.isRegularFile(file) && NativeCode.isIn(file)) {
        throw new UserError(
            file + " is native code, which only an ITEM *.so, *.dylib or *.jnilib may contain");
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

  private void checkEntryClass(boolean isAdded) {
    List<Path> withEntry = new ArrayList<>();
    List<String> mainClasses = new ArrayList<>();
    for (Path jar : jars) {
      try (JarFile file = new JarFile(jar.toFile(), false)) {
        if (file.stream().anyMatch(entry -> ENTRY.matcher(entry.getName()).matches())) {
          withEntry.add(jar);
        }
        attribute(file, Attributes.Name.MAIN_CLASS).ifPresent(mainClasses::add);
      } catch (IOException e) {
        throw new UserError(jar + " is not a jar or is damaged: " + e.getMessage());
      }
      if (isAdded && jar.getFileName().toString().equals(ENTRY_JAR)) {
        throw new UserError(jar + " has the name of the jar that --main-class adds");
      }
    }
    if (isAdded && !withEntry.isEmpty()) {
      throw new UserError(
          withEntry.get(0) + " contains the entry class, so --main-class does not apply");
    }
    if (!isAdded && withEntry.isEmpty()) {
      throw new UserError("no jar contains " + EntryClass.FILE
          + "; name the application's main class with --main-class "
          + String.join(" or ", mainClasses));
    }
    if (withEntry.size() > 1) {
      throw new UserError("more than one jar contains " + EntryClass.FILE + ": "
          + Output.list(withEntry));
    }
  }

  private static Optional<String> attribute(JarFile jar, Attributes.Name name)
      throws IOException {
    return Optional.ofNullable(jar.getManifest())
        .map(manifest -> manifest.getMainAttributes().getValue(name)).map(String::strip);
  }

  /** Tells the user what may not be as intended. */
  void warn() throws IOException {
    if (!leftOut.isEmpty()) {
      Output.warn("left out, since they are neither jars nor native libraries: "
          + Output.list(leftOut));
    }
    Set<Path> bundled = new HashSet<>();
    for (Path jar : jars) {
      bundled.add(jar.getFileName());
    }
    Map<String, ZipEntry> classes = new HashMap<>();
    Map<String, Path> jarOfClass = new HashMap<>();
    Set<String> pairs = new HashSet<>();
    for (Path jar : jars) {
      try (JarFile file = new JarFile(jar.toFile(), false)) {
        warnOfClassPath(jar, attribute(file, Attributes.Name.CLASS_PATH).orElse(""), bundled);
        for (JarEntry entry : Collections.list(file.entries())) {
          String name = entry.getName();
          ZipEntry first = classes.putIfAbsent(name, entry);
          Path firstJar = jarOfClass.putIfAbsent(name, jar);
          boolean differs = first != null && first.getCrc() != entry.getCrc();
          if (differs && name.endsWith(".class") && !name.endsWith("module-info.class")
              && pairs.add(firstJar + " " + jar)) {
            Output.warn(firstJar.getFileName() + " and " + jar.getFileName() + " contain different"
                + " classes of one name, such as " + name
                + "; the order of the class path decides, which is not defined");
          }
        }
      }
    }
  }

  private static void warnOfClassPath(Path jar, String classPath, Set<Path> bundled) {
    List<String> missing = new ArrayList<>();
    for (String url : classPath.split("\\s+")) {
      Path file = fileOf(jar, url);
      if (!url.isEmpty() && Files.exists(file) && !bundled.contains(file.getFileName())) {
        missing.add(url);
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
    } catch (IllegalArgumentException | FileSystemNotFoundException e) { // no URL of a file
      return jar.resolveSibling("no file");
    }
  }
}
