package bundler;

import java.io.Closeable;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.BasicFileAttributes;

/**
 * A locked file that says that a folder is in use. The system unlocks it when this process ends,
 * however that happens. It is opened once, since the system also unlocks it when this process
 * closes any descriptor of it.
 */
final class FolderLock implements Closeable {
  private final FileChannel channel;

  /** @param file is created if it does not exist */
  FolderLock(Path file) throws IOException, InUseException {
    try {
      if (Files.notExists(file, LinkOption.NOFOLLOW_LINKS)) {
        Files.createFile(file);
      }
      Object key = keyOf(file);
      channel = FileChannel.open(file, StandardOpenOption.WRITE, LinkOption.NOFOLLOW_LINKS);
      // Another process may have deleted the file just after it was opened here.
      if (!isLocked(file) || !key.equals(keyOf(file))) {
        throw new InUseException();
      }
    } catch (NoSuchFileException | FileAlreadyExistsException e) {
      throw new InUseException(); // by a process that has just begun or ended
    }
  }

  private boolean isLocked(Path file) {
    try {
      return channel.tryLock() != null;
    } catch (IOException e) {
      throw new UserError(file + " cannot be locked, as making a bundle needs: " + e.getMessage());
    }
  }

  /** Tells a file from another one that has taken its name. */
  private static Object keyOf(Path file) throws IOException {
    return Files.readAttributes(file, BasicFileAttributes.class, LinkOption.NOFOLLOW_LINKS)
        .fileKey();
  }

  @Override
  public void close() throws IOException {
    channel.close();
  }

  /** Another process has the lock. */
  static final class InUseException extends Exception {
    private static final long serialVersionUID = 1;
  }
}
