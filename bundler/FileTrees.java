package bundler;

import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermission;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.Deque;
import java.util.List;
import java.util.Set;
import java.util.stream.Stream;

/** Reads, copies and deletes files, and folders with all that they contain. */
final class FileTrees {
  static final String WRONG_LOCALE = "the locale cannot express this name; set LC_ALL=C.UTF-8: ";

  private FileTrees() {}

  /** The absolute path of a file that the command line names. */
  static Path absolute(String name) {
    if (name.isEmpty()) {
      throw new UserError("empty file name");
    }
    Path path = Path.of(name).toAbsolutePath();
    checkLocale(path);
    return path;
  }

  /** Refuses a name that could not be passed to another program. */
  static void checkLocale(Path path) {
    if (path.toString().indexOf('\uFFFD') >= 0) {
      throw new UserError(WRONG_LOCALE + path);
    }
  }

  /** What the Finder, or an archiver on a Mac, adds to folders. */
  static boolean isMacMetadata(Path path) {
    String name = path.getFileName().toString();
    return name.equals(".DS_Store") || name.startsWith("._");
  }

  /** The entries of a folder, sorted. */
  static List<Path> entries(Path folder) throws IOException {
    try (Stream<Path> paths = Files.list(folder)) {
      return paths.sorted().toList();
    } catch (UncheckedIOException e) {
      throw e.getCause();
    }
  }

  /** A folder and all that is in it, each folder before its contents; links are not followed. */
  static List<Path> all(Path root) throws IOException {
    try (Stream<Path> walk = Files.walk(root)) {
      return walk.toList();
    } catch (UncheckedIOException e) {
      throw e.getCause();
    }
  }

  /** The text of a file, or "" if it does not exist. */
  static String readIfExists(Path file) throws IOException {
    try {
      return new String(Files.readAllBytes(file), UTF_8);
    } catch (NoSuchFileException e) {
      return "";
    }
  }

  /**
   * Copies a file or a folder, but for a Mac's metadata in it. A link that stays inside the folder
   * is copied as a link; one that leads out of it, such as a JDK's to /etc, becomes what it leads
   * to. Links that lead nowhere are left out, with a warning.
   *
   * @param target a path whose parent is real
   */
  static void copy(Path source, Path target) throws IOException {
    Path root = source.toRealPath();
    List<Path> leftOut = new ArrayList<>();
    copyWithin(root, root, target, new ArrayDeque<>(), leftOut);
    if (!leftOut.isEmpty()) {
      Output.warn("left out, since they are links to nothing: " + Output.list(leftOut));
    }
  }

  /**
   * Copies {@code path}, which is {@code root} or inside it.
   *
   * @param open the folders that are being copied; they and {@code root} are real paths
   */
  private static void copyWithin(Path root, Path path, Path target, Deque<Path> open,
      List<Path> leftOut) throws IOException {
    if (Files.isSymbolicLink(path)) {
      if (Files.exists(path)) {
        copyLink(root, path, target, open, leftOut);
      } else {
        leftOut.add(path);
      }
    } else if (Files.isDirectory(path)) {
      if (target.startsWith(path)) {
        throw new UserError(path + " contains the folder in which the bundle is made");
      }
      Files.createDirectory(target);
      open.push(path);
      for (Path entry : entries(path)) {
        if (!isMacMetadata(entry)) {
          copyWithin(root, entry, target.resolve(entry.getFileName()), open, leftOut);
        }
      }
      open.pop();
    } else if (Files.isRegularFile(path)) {
      Files.copy(path, target, StandardCopyOption.COPY_ATTRIBUTES);
    } else {
      throw new UserError(path + " is neither a file, nor a folder, nor a link");
    }
  }

  private static void copyLink(Path root, Path link, Path target, Deque<Path> open,
      List<Path> leftOut) throws IOException {
    Path destination = Files.readSymbolicLink(link);
    Path real = link.toRealPath();
    // Neither the words of the link nor other links on its way may lead out of the folder.
    boolean staysInside = !destination.isAbsolute() && real.startsWith(root)
        && link.resolveSibling(destination).normalize().startsWith(root);
    if (staysInside) {
      Files.createSymbolicLink(target, destination);
    } else if (open.stream().anyMatch(folder -> folder.startsWith(real))) {
      throw new UserError(link + " is a link to a folder that contains it");
    } else {
      copyWithin(real, real, target, open, leftOut);
    }
  }

  /** Deletes a folder with all that is in it. Returns what could not be deleted. */
  static List<Path> delete(Path root) {
    if (Files.notExists(root, LinkOption.NOFOLLOW_LINKS)) {
      return List.of();
    }
    List<Path> paths;
    try {
      paths = new ArrayList<>(all(root));
    } catch (IOException e) { // a folder in it cannot be read
      return List.of(root);
    }
    paths.sort(Comparator.reverseOrder()); // children first
    List<Path> resisting = new ArrayList<>();
    for (Path path : paths) {
      try {
        Files.deleteIfExists(path);
      } catch (IOException e) {
        resisting.add(path);
      }
    }
    return resisting;
  }

  /** Lets everybody read all files, and execute those that their owner may execute. */
  static void makeReadableForAll(Path root) throws IOException {
    for (Path path : all(root)) {
      if (Files.isSymbolicLink(path)) {
        continue;
      }
      Set<PosixFilePermission> permissions = Files.getPosixFilePermissions(path);
      permissions.addAll(Set.of(PosixFilePermission.OWNER_READ, PosixFilePermission.GROUP_READ,
          PosixFilePermission.OTHERS_READ));
      if (permissions.contains(PosixFilePermission.OWNER_EXECUTE)) {
        permissions.addAll(
            Set.of(PosixFilePermission.GROUP_EXECUTE, PosixFilePermission.OTHERS_EXECUTE));
      }
      Files.setPosixFilePermissions(path, permissions);
    }
  }
}
