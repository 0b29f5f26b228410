package bundler;

/** A command line that names no valid command; its message is printed with a word on --help. */
final class UsageError extends RuntimeException {
  private static final long serialVersionUID = 1;

  UsageError(String message) {
    super(message);
  }
}
