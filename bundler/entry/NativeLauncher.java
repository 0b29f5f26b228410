package com.norvale.app.daemon.entry;

/**
 * The entry class of an application with an ordinary main. It does what the JDK's java does around
 * main. It uses neither lambdas, nor reflection, nor concatenated strings, since the JVM would have
 * to make code for them at each launch.
 */
public final class NativeLauncher implements Runnable {
  private static final long STACK_SIZE = 8 << 20; // bytes

  private final String[] arguments;
  private boolean isSuccess = false;

  private NativeLauncher(String[] arguments) {
    this.arguments = arguments;
  }

  /** Exits when the last thread that is no daemon has ended. */
  public static void main(String[] args) throws InterruptedException {
    String[] arguments = new String[args.length - 1]; // without the path of the program
    System.arraycopy(args, 1, arguments, 0, arguments.length);
    Thread.currentThread().setName("DestroyJavaVM"); // as java names the thread that waits
    NativeLauncher application = new NativeLauncher(arguments);
    Thread main = new Thread(null, application, "main", STACK_SIZE);
    main.start();
    for (Thread thread = main; thread != null; thread = runningThread()) {
      thread.join();
    }
    System.exit(application.isSuccess ? 0 : 1);
  }

  /** On the thread main: an exception that leaves it is printed as for every other thread. */
  @Override
  public void run() {
    Application.main(arguments);
    isSuccess = true;
  }

  /** A thread that is no daemon, other than the current one, or null. */
  private static Thread runningThread() {
    ThreadGroup group = Thread.currentThread().getThreadGroup();
    while (group.getParent() != null) {
      group = group.getParent();
    }
    Thread[] threads = new Thread[8];
    int count = group.enumerate(threads);
    while (count == threads.length) { // there may be more
      threads = new Thread[2 * count];
      count = group.enumerate(threads);
    }
    for (int i = 0; i < count; i++) {
      if (!threads[i].isDaemon() && threads[i] != Thread.currentThread()) {
        return threads[i];
      }
    }
    return null;
  }
}
