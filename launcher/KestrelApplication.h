// The main thread's run loop, which this launcher never enters: the process ends with the Java
// entry's call.
#ifndef KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
#define KESTREL_LAUNCHER_KESTREL_APPLICATION_H_

// Runs the calling thread's run loop, kept alive by a timer that never fires, until the loop
// reports that it has finished. A stop request only makes it start over.
void runApp();

#endif  // KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
