// The main thread's run loop, which the Java side's user-interface toolkit needs once the Java
// entry has returned and the process goes on. This launcher ends with the entry and does not run
// it.
#ifndef KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
#define KESTREL_LAUNCHER_KESTREL_APPLICATION_H_

// Runs the calling thread's run loop, kept alive by a timer that never fires, until the loop
// reports that it has finished. A stop request only makes it start over.
void runApp();

#endif  // KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
