package com.norvale.app.daemon.entry;

import java.awt.AWTEvent;
import java.awt.Frame;
import java.awt.Toolkit;
import java.awt.event.WindowEvent;

/**
 * The entry class for measuring SwingSet2, a demo of the JDK in another jar: starts the demo and exits
 * when its window opens.
 */
public final class NativeLauncher {
  private NativeLauncher() {}

  public static void main(String[] args) throws Exception {
    Toolkit.getDefaultToolkit().addAWTEventListener(event -> {
      if (event.getID() == WindowEvent.WINDOW_OPENED && event.getSource() instanceof Frame) {
        System.exit(0);
      }
    }, AWTEvent.WINDOW_EVENT_MASK);
    Class.forName("SwingSet2").getMethod("main", String[].class).invoke(null, (Object) args);
    Thread.sleep(Long.MAX_VALUE); // until System.exit above
  }
}
