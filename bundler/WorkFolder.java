package bundler;

import com.sun.security.auth.module.UnixSystem;
import java.io.Closeable;
import java.io.IOException;
import java.nio.file.AtomicMoveNotSupportedException;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * The folder {@code .NAME.app.work} beside a bundle, in which the bundle is made, so that putting
 * it in place is a rename. A lock lets one process at a time make this bundle. What the folder
 * contains while nobody holds the lock was left by a process that was killed.
 *
 * <p>Each run has a subfolder of its own with a random name, since children of a killed process may
 * still write into theirs. While the earlier bundle is moved away, it is called "earlier" there.
 * The next run puts it back if it finds it and the target is missing.
 *
 * <p>A signal ends the child processes and deletes the folder; the exit status is 0 if the new
 * bundle was in place by then. Methods that a signal must not cut in two are synchronized.
 */
final class WorkFolder implements Closeable {
  private static final String LOCK = ".kestrel-bundler-lock";
  private static final String RUN = "run-";
  private static final String EARLIER = "earlier";
  private static final long MOST_SECONDS_TO_END = 10;

  private final Path target;
  private final Path folder;
  private final Path lockFile;
  private final FolderLock lock;
  private final Path run;
  private boolean isPlaced = false;
  private boolean isOpen = false;
  private boolean isEndedBySignal = false;

  /** @param target a path whose parent exists and is real */
  WorkFolder(Path target) throws IOException {
    this.target = target;
    folder = target.resolveSibling("." + target.getFileName() + ".work");
    lockFile = folder.resolve(LOCK);
    synchronized (this) { // a signal waits until the folder is made
      cleanUpOnExit();
      try {
        makeFolder();
        lock = new FolderLock(lockFile);
      } catch (FolderLock.InUseException | NoSuchFileException e) {
        throw new UserError("another process is making " + target.getFileName());
      }
      for (Path leftover : FileTrees.entries(folder)) {
        if (!leftover.equals(lockFile)) {
          cleanUp(leftover);
        }
      }
      run = Files.createTempDirectory(folder, RUN);
      isOpen = true;
    }
  }

  private void cleanUpOnExit() {
    try {
      Runtime.getRuntime().addShutdownHook(new Thread(this::onExit));
    } catch (IllegalStateException e) { // a signal is already ending this process
      isEndedBySignal = true;
      waitIfEnded();
    }
  }

  private void makeFolder() throws IOException {
    try {
      Files.createDirectory(folder, PosixFilePermissions.asFileAttribute(
          PosixFilePermissions.fromString("rwx------")));
    } catch (FileAlreadyExistsException e) {
      if (!Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS) || !isOwn(folder)
          || !(FileTrees.entries(folder).isEmpty()
              || Files.isRegularFile(lockFile, LinkOption.NOFOLLOW_LINKS))) {
        throw new UserError(folder + " was not made by this user with this program; remove it");
      }
    }
  }

  private static boolean isOwn(Path path) throws IOException {
    Object owner = Files.getAttribute(path, "unix:uid", LinkOption.NOFOLLOW_LINKS);
    return owner.equals((int) new UnixSystem().getUid());
  }

  /** Puts back an earlier bundle, if it has to be, and deletes a subfolder as far as possible. */
  private void cleanUp(Path subfolder) throws IOException {
    Path earlier = subfolder.resolve(EARLIER);
    if (Files.isDirectory(earlier, LinkOption.NOFOLLOW_LINKS)) {
      if (Files.notExists(target, LinkOption.NOFOLLOW_LINKS)) {
        move(earlier, target);
        Output.say("put back " + target + ", which a killed process had moved away");
      } else {
        move(earlier, subfolder.resolve("replaced")); // a part of it must never be put back
      }
    }
    List<Path> resisting = FileTrees.delete(subfolder);
    if (!resisting.isEmpty()) {
      Output.warn(resisting.get(0) + " cannot be deleted; remove " + subfolder);
    }
  }

  private static void move(Path from, Path to) throws IOException {
    Files.move(from, to, StandardCopyOption.ATOMIC_MOVE);
  }

  /** A path in the folder of this run. */
  Path path(String name) {
    return run.resolve(name);
  }

  /** An empty folder in the folder of this run, in place of an earlier one of this name. */
  Path emptyFolder(String name) throws IOException {
    List<Path> resisting = FileTrees.delete(path(name));
    if (!resisting.isEmpty()) {
      throw new UserError(resisting.get(0) + " cannot be deleted");
    }
    return Files.createDirectory(path(name));
  }

  /** Where the bundle is made. */
  Path bundle() {
    return path(target.getFileName().toString());
  }

  /** Starts a child process, which a signal to this process ends. */
  synchronized Process start(ProcessBuilder builder) throws IOException {
    waitIfEnded();
    return builder.start();
  }

  /** Puts the new bundle in place of the earlier one. */
  synchronized void putInPlace() throws IOException {
    waitIfEnded();
    FileTrees.makeReadableForAll(bundle());
    Layout.checkReplaceable(target);
    Path earlier = path(EARLIER);
    if (Files.exists(target)) {
      try {
        move(target, earlier);
      } catch (AtomicMoveNotSupportedException e) {
        throw new UserError(target + " cannot be renamed (" + e.getReason() + "); remove it");
      }
    }
    try {
      move(bundle(), target);
      isPlaced = true;
    } finally {
      if (!isPlaced && Files.exists(earlier)) {
        move(earlier, target);
      }
    }
  }

  @Override
  public synchronized void close() {
    waitIfEnded();
    deleteFolder();
  }

  private synchronized void onExit() {
    if (isOpen) {
      isEndedBySignal = true;
      endChildren();
      deleteFolder();
    }
    if (isPlaced) {
      Runtime.getRuntime().halt(0); // whatever the signal, the new bundle is there
    }
  }

  /** As far as possible. */
  private void deleteFolder() {
    isOpen = false;
    try {
      // A copy that a signal has interrupted cannot add anything under the new name.
      Path ended = run.resolveSibling(run.getFileName() + "-ended");
      move(run, ended);
      cleanUp(ended);
      if (FileTrees.entries(folder).equals(List.of(lockFile))) {
        Files.delete(lockFile); // while it is locked
        Files.delete(folder);
      }
      lock.close();
    } catch (DirectoryNotEmptyException e) {
      // another process has just begun to make this bundle
    } catch (IOException e) {
      Output.warn(folder + " cannot be deleted: " + e.getMessage());
    }
  }

  private static void endChildren() {
    for (ProcessHandle child : ProcessHandle.current().descendants().toList()) {
      child.destroyForcibly();
      child.onExit().completeOnTimeout(null, MOST_SECONDS_TO_END, TimeUnit.SECONDS).join();
    }
  }

  /** Once a signal has ended the work, the main thread must not go on with it. */
  synchronized void waitIfEnded() {
    while (isEndedBySignal) {
      try {
        wait(); // until the JVM has exited
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
    }
  }
}
