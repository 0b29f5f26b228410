// The sample application: ./dev run and the tests start it by the launcher to show each way in which
// an application can end.
package com.norvale.app.daemon.entry;

import java.io.FileWriter;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.TreeSet;
import java.util.concurrent.locks.LockSupport;

/**
 * It prints its command line and the properties that the launcher set, then does what the first
 * argument after the program's path asks for:
 *
 * <pre>
 *   status N     main yields N to the launcher
 *   exit N       System.exit(N)
 *   throw        main ends with an exception
 *   exhaust      fills the Java heap
 *   leave        main returns while a thread runs and a shutdown hook is set
 *   signal NAME  sets a shutdown hook and sends itself a signal
 *   write FILE   writes an empty file
 *   anything     main yields 0
 * </pre>
 */
public final class NativeLauncher {
  private NativeLauncher() {}

  /**
   * The launcher calls this void method for an int and takes what the last call in it returned. Only
   * a main that ends with a call of an int-returning method thus has a status to rely on.
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
      case "signal" -> signalSelf(args[2]);
      case "write" -> new FileWriter(args[2]).close();
      default -> {}
    }
  }

  private static String command(String[] args) {
    return args.length > 1 ? args[1] : "";
  }

  private static int number(String[] args) {
    return Integer.parseInt(args[2]);
  }

  private static void print(String[] args) {
    for (int i = 0; i < args.length; i++) {
      System.out.println("argument " + i + ": " + args[i]);
    }
    for (String name : new TreeSet<>(System.getProperties().stringPropertyNames())) {
      if (isLaunchers(name)) {
        System.out.println(name + "=" + System.getProperty(name));
      }
    }
    System.out.flush();
  }

  private static boolean isLaunchers(String name) {
    List<String> prefixes = Arrays.asList("kestrel.", "KESTREL_", "jna.", "plume.", "apple.laf.");
    List<String> names = Arrays.asList("java.class.path", "java.io.tmpdir", "user.dir");
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
    new ProcessBuilder("kill", "-s", name, "" + ProcessHandle.current().pid()).start();
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
