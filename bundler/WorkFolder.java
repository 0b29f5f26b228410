package bundler;

import com.sun.security.auth.module.UnixSystem;
import java.io.Closeable;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.AtomicMoveNotSupportedException;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.BasicFileAttributes;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * The folder {@code .NAME.app.work} beside a bundle, in which the bundle is made, so that putting it
 * in place is a rename. A locked file in it lets one process at a time make this bundle; the system
 * unlocks it when the process ends, however that happens. What an unlocked folder contains was left
 * by a process that was killed.
 *
 * <p>Each run has a subfolder of its own with a random name, since children of a killed process may
 * still write into the one that they know. In it, the earlier bundle is named "earlier" only while
 * it has to be put back if this process is killed.
 *
 * <p>A signal ends the child processes and deletes the folder, and the target is as it was. The
 * methods that must not be cut in two by a signal are synchronized.
 */
final class WorkFolder implements Closeable {
  private static final String LOCK = ".kestrel-bundler-lock";
  private static final String RUN = "run-";
  private static final long MOST_SECONDS_TO_END = 10;

  private final Path target;
  private final Path folder;
  private final Path lock;
  private final FileChannel lockedFile;
  private final Path run;
  private boolean isPlaced = false;
  private boolean isClosed = false;
  private boolean isEndedBySignal = false;

  /** @param target a path whose parent exists and is real */
  WorkFolder(Path target) throws IOException {
    this.target = target;
    folder = target.resolveSibling("." + target.getFileName() + ".work");
    lock = folder.resolve(LOCK);
    makeFolder();
    lockedFile = lock();
    for (Path leftover : FileTrees.entries(folder)) {
      if (!leftover.equals(lock)) {
        cleanUp(leftover);
      }
    }
    run = Files.createTempDirectory(folder, RUN);
    Runtime.getRuntime().addShutdownHook(new Thread(this::endBySignal));
  }

  private void makeFolder() throws IOException {
    try {
      Files.createDirectory(folder, PosixFilePermissions.asFileAttribute(
          PosixFilePermissions.fromString("rwx------")));
    } catch (FileAlreadyExistsException e) {
      if (!Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS)
          || !isOwn(folder)
          || !(FileTrees.entries(folder).isEmpty()
              || Files.isRegularFile(lock, LinkOption.NOFOLLOW_LINKS))) {
        throw new UserError(folder + " was not made by this user with this program; remove it");
      }
    }
  }

  private static boolean isOwn(Path path) throws IOException {
    Object owner = Files.getAttribute(path, "unix:uid", LinkOption.NOFOLLOW_LINKS);
    return owner.equals((int) new UnixSystem().getUid());
  }

  /** Opens the file once: a JVM that opens and closes it again loses the lock. */
  private FileChannel lock() throws IOException {
    UserError isBusy = new UserError("another process is making " + target.getFileName());
    FileChannel channel;
    Object key;
    try {
      if (Files.notExists(lock, LinkOption.NOFOLLOW_LINKS)) {
        Files.createFile(lock);
      }
      key = fileKey();
      channel = FileChannel.open(lock, StandardOpenOption.WRITE, LinkOption.NOFOLLOW_LINKS);
    } catch (NoSuchFileException | FileAlreadyExistsException e) {
      throw isBusy; // it has just begun or ended
    }
    try {
      // A process that has just ended may have deleted the file that was opened.
      if (channel.tryLock() == null || !key.equals(fileKey())) {
        throw isBusy;
      }
      return channel;
    } catch (NoSuchFileException e) {
      throw isBusy;
    } catch (IOException e) {
      throw new UserError(lock + " cannot be locked, as making a bundle needs: " + e.getMessage());
    }
  }

  private Object fileKey() throws IOException {
    return Files.readAttributes(lock, BasicFileAttributes.class, LinkOption.NOFOLLOW_LINKS)
        .fileKey();
  }

  /** Puts back an earlier bundle that a killed process has moved away, and deletes the rest. */
  private void cleanUp(Path leftover) throws IOException {
    Path earlier = leftover.resolve("earlier");
    if (Files.isDirectory(earlier, LinkOption.NOFOLLOW_LINKS)) {
      if (Files.notExists(target, LinkOption.NOFOLLOW_LINKS)) {
        move(earlier, target);
        Output.say("put back " + target + ", which a killed process had moved away");
      } else {
        move(earlier, leftover.resolve("replaced"));
      }
    }
    delete(leftover);
  }

  /** Deletes a subfolder as far as possible. */
  private static void delete(Path subfolder) {
    List<Path> resisting = FileTrees.delete(subfolder);
    if (!resisting.isEmpty()) {
      Output.warn(resisting.get(0) + " cannot be deleted; remove " + subfolder);
    }
  }

  private static void move(Path from, Path to) throws IOException {
    Files.move(from, to, StandardCopyOption.ATOMIC_MOVE);
  }

  /** Refuses what must not be replaced by a bundle. */
  static void checkTarget(Path target) {
    if (target.toString().contains(":")) { // which would end an entry of the class path
      throw new UserError("the bundle's path must not contain a colon: " + target);
    }
    if (Files.isSymbolicLink(target)) {
      throw new UserError(target + " is a link; remove it");
    }
    if (Files.exists(target) && !Files.isDirectory(target.resolve("Contents"))) {
      throw new UserError(target + " exists and is not a bundle");
    }
  }

  /** A path in the folder of this run. */
  Path path(String name) {
    return run.resolve(name);
  }

  /** An empty folder in the folder of this run, in place of an earlier one of this name. */
  Path emptyFolder(String name) throws IOException {
    delete(path(name));
    return Files.createDirectory(path(name));
  }

  /** Where the bundle is made. */
  Path bundle() {
    return path(target.getFileName().toString());
  }

  /** Starts a child process, which a signal to this process ends. */
  synchronized Process start(ProcessBuilder builder) throws IOException {
    stopIfEnded();
    return builder.start();
  }

  /** Puts the new bundle in place of the earlier one. */
  synchronized void putInPlace() throws IOException {
    stopIfEnded();
    FileTrees.makeReadableForAll(bundle());
    checkTarget(target);
    boolean isReplaced = Files.exists(target);
    if (isReplaced) {
      try {
        move(target, path("earlier"));
      } catch (AtomicMoveNotSupportedException e) {
        throw new UserError(target + " cannot be renamed (" + e.getReason() + "); remove it");
      }
    }
    try {
      move(bundle(), target);
    } catch (IOException e) {
      if (isReplaced) {
        move(path("earlier"), target);
      }
      throw e;
    }
    isPlaced = true;
  }

  /** Deletes the folder as far as possible. */
  @Override
  public synchronized void close() throws IOException {
    stopIfEnded();
    isClosed = true;
    // A copy that a signal has interrupted cannot add anything under the new name.
    Path ended = run.resolveSibling(run.getFileName() + "-ended");
    move(run, ended);
    cleanUp(ended);
    if (FileTrees.entries(folder).equals(List.of(lock))) {
      Files.delete(lock); // while it is locked
      try {
        Files.delete(folder);
      } catch (DirectoryNotEmptyException e) {
        // another process has just begun to make this bundle
      }
    }
    lockedFile.close();
  }

  /** What runs when this process exits. */
  private synchronized void endBySignal() {
    if (isClosed) {
      return; // it exits by itself
    }
    for (ProcessHandle child : ProcessHandle.current().descendants().toList()) {
      child.destroyForcibly();
      child.onExit().completeOnTimeout(null, MOST_SECONDS_TO_END, TimeUnit.SECONDS).join();
    }
    try {
      close();
    } catch (IOException e) {
      Output.warn(e.toString());
    }
    isEndedBySignal = true;
    if (isPlaced) {
      Runtime.getRuntime().halt(0); // the new bundle is there, and the exit status says so
    }
  }

  /** Once a signal has ended this process, its main thread does nothing more. */
  private void stopIfEnded() {
    while (isEndedBySignal) {
      try {
        wait();
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
    }
  }
}
