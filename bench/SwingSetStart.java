package com.norvale.app.daemon.entry;

import java.awt.*;
import java.awt.event.*;

/** Starts the JDK's demo SwingSet2, which has a jar of its own, and ends when its window opens. */
final class NativeLauncher {
  public static void main(String[] args) throws Exception {
    Toolkit.getDefaultToolkit().addAWTEventListener(event -> {
      if (event.getID() == WindowEvent.WINDOW_OPENED && event.getSource() instanceof Frame) {
        System.exit(0);
      }
    }, AWTEvent.WINDOW_EVENT_MASK);
    Class.forName("SwingSet2").getMethod("main", String[].class).invoke(null, (Object) args);
    Thread.currentThread().join();
  }
}
