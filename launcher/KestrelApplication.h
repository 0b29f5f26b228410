// The main thread's run loop. This launcher never enters it: the process ends when the Java entry's
// main returns.
#ifndef KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
#define KESTREL_LAUNCHER_KESTREL_APPLICATION_H_

// Runs the calling thread's run loop, kept alive by a timer that never fires, until the loop
// reports that it has finished. A stop request only makes it start over.
void runApp();

#endif  // KESTREL_LAUNCHER_KESTREL_APPLICATION_H_
