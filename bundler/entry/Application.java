package com.norvale.app.daemon.entry;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;

/**
 * Stands for the application's class. The bundler replaces either the name of this class in
 * NativeLauncher, or the text in this class: then a main is called that is not accessible otherwise.
 */
final class Application {
  private Application() {}

  static void main(String[] arguments) {
    try {
      Method main = mainOf(Class.forName("the name of the application's class"));
      main.setAccessible(true);
      main.invoke(null, (Object) arguments);
    } catch (InvocationTargetException e) {
      Application.<RuntimeException>rethrow(e.getCause());
    } catch (ReflectiveOperationException e) {
      throw new LinkageError(e.getMessage(), e);
    }
  }

  private static Method mainOf(Class<?> type) throws NoSuchMethodException {
    for (Class<?> declaring = type; declaring != null; declaring = declaring.getSuperclass()) {
      try {
        return declaring.getDeclaredMethod("main", String[].class);
      } catch (NoSuchMethodException e) {
        // a superclass has it
      }
    }
    throw new NoSuchMethodException("main");
  }

  /** Throws any exception as it is, where Java allows none that is checked. */
  @SuppressWarnings("unchecked")
  private static <T extends Throwable> void rethrow(Throwable exception) throws T {
    throw (T) exception;
  }
}
