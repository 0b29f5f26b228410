package bundler;

/** An error that the user can correct; its message is printed as it is. */
final class UserError extends RuntimeException {
  private static final long serialVersionUID = 1;

  UserError(String message) {
    super(message);
  }
}
