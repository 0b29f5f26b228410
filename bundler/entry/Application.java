package com.norvale.app.daemon.entry;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;

/**
 * Calls a main that NativeLauncher cannot call. The bundler replaces the texts in capitals, or it
 * does without this class and puts the name of the application's class into NativeLauncher.
 */
final class Application {
  private Application() {}

  static void main(String[] arguments) {
    try {
      Class.forName("MAIN CLASS"); // which initialises it
      Method main = Class.forName("DECLARING CLASS").getDeclaredMethod("main", String[].class);
      main.setAccessible(true);
      main.invoke(null, (Object) arguments);
    } catch (InvocationTargetException e) {
      Application.<RuntimeException>rethrow(e.getCause());
    } catch (ReflectiveOperationException e) {
      throw new LinkageError(e.getMessage(), e);
    }
  }

  /** Throws any exception as it is, where Java allows none that is checked. */
  @SuppressWarnings("unchecked")
  private static <T extends Throwable> void rethrow(Throwable exception) throws T {
    throw (T) exception;
  }
}
