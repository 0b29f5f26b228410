# The launcher's version. It appears in the log, in -DKESTREL_VERSION and in Info.plist.
set(KESTREL_VERSION 0.8.6886)
# The oldest macOS that the launcher supports. It appears in the executable and in Info.plist.
set(KESTREL_MACOS_MINIMUM 11.0)
