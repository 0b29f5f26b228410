// The sample application. ./dev run and the tests start it through the launcher to show each way in
// which an application can end.
package com.norvale.app.daemon.entry;

import java.io.FileWriter;
import java.util.ArrayList;
import java.util.List;
import java.util.TreeSet;
import java.util.concurrent.locks.LockSupport;

/**
 * Prints its command line and the properties that the launcher sets, then does what the first
 * argument after the program's path asks for:
 *
 * <pre>
 *   status N       makes main yield N to the launcher
 *   exit N         calls System.exit(N)
 *   throw          throws an exception out of main
 *   exhaust        fills the Java heap until there is no memory left
 *   leave          returns from main while a thread runs and a shutdown hook is set
 *   signal NAME    sets a shutdown hook and sends itself the signal
 *   write FILE     creates an empty file
 *   anything else  makes main yield 0
 * </pre>
 */
public final class NativeLauncher {
  private NativeLauncher() {}

  /**
   * The launcher calls this void method as if it returned an int. A main that contains no loop and
   * whose last act is a call to an int-returning method, as here, yields that int. Any other main
   * leaves an arbitrary value and has to call System.exit.
   */
  public static void main(String[] args) throws Exception {
    print(args);
    perform(args);
    statusOf(args);
  }

  private static int statusOf(String[] args) {
    return command(args).equals("status") ? number(args) : 0;
  }

  private static void perform(String[] args) throws Exception {
    switch (command(args)) {
      case "exit" -> System.exit(number(args));
      case "throw" -> throw new IllegalStateException("the sample was asked to throw");
      case "exhaust" -> exhaustHeap();
      case "leave" -> leave();
      case "signal" -> signalSelf(argument(args));
      case "write" -> new FileWriter(argument(args)).close();
      default -> {}
    }
  }

  private static String command(String[] args) {
    return args.length > 1 ? args[1] : "";
  }

  private static String argument(String[] args) {
    if (args.length < 3) {
      fail("the sample needs an argument after " + command(args));
    }
    return args[2];
  }

  private static int number(String[] args) {
    if (!argument(args).matches("-?[0-9]{1,9}")) {
      fail("the sample needs a number after " + command(args));
    }
    return Integer.parseInt(args[2]);
  }

  private static void fail(String message) {
    System.err.println(message);
    System.exit(1);
  }

  private static void print(String[] args) {
    for (int i = 0; i < args.length; i++) {
      System.out.println("argument " + i + ": " + args[i]);
    }
    for (String name : new TreeSet<>(System.getProperties().stringPropertyNames())) {
      if (isSetByLauncher(name)) {
        System.out.println(name + "=" + System.getProperty(name));
      }
    }
    System.out.flush();
  }

  private static boolean isSetByLauncher(String name) {
    List<String> prefixes = List.of("kestrel.", "KESTREL_", "jna.", "plume.", "apple.laf.");
    List<String> names = List.of("java.class.path", "java.io.tmpdir", "user.dir");
    return names.contains(name) || prefixes.stream().anyMatch(name::startsWith);
  }

  private static void exhaustHeap() {
    List<byte[]> blocks = new ArrayList<>();
    while (true) {
      blocks.add(new byte[1 << 20]);
    }
  }

  private static void leave() {
    setShutdownHook();
    new Thread(() -> linger("a thread outlived main")).start();
  }

  private static void signalSelf(String name) throws Exception {
    setShutdownHook();
    String pid = Long.toString(ProcessHandle.current().pid());
    if (new ProcessBuilder("kill", "-s", name, pid).inheritIO().start().waitFor() != 0) {
      fail("the sample cannot send itself the signal " + name);
    }
    linger("the signal did not end it");
  }

  private static void setShutdownHook() {
    Runtime.getRuntime().addShutdownHook(new Thread(() -> System.out.println("a hook ran")));
  }

  private static void linger(String text) {
    LockSupport.parkNanos(60_000_000_000L);
    System.out.println(text);
  }
}
