# Builds for x86-64 Macs. On a Mac the system's own compiler and SDK do all of it. Elsewhere zig
# takes their place: a clang with a Mach-O linker and the sources of a C++ library in one package.
# It is the executable that KESTREL_ZIG names (environment or cache), else the one that
# `./dev macos` installs, else one on the PATH.
set(KESTREL_MACOS_MINIMUM 11.0)

if(CMAKE_HOST_SYSTEM_NAME STREQUAL "Darwin")
  set(CMAKE_OSX_ARCHITECTURES x86_64 CACHE STRING "")
  set(CMAKE_OSX_DEPLOYMENT_TARGET ${KESTREL_MACOS_MINIMUM} CACHE STRING "")
  return()
endif()

set(KESTREL_CROSS ON)
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

if(NOT KESTREL_ZIG AND DEFINED ENV{KESTREL_ZIG})
  set(KESTREL_ZIG $ENV{KESTREL_ZIG} CACHE FILEPATH "The zig executable")
endif()
if(NOT KESTREL_ZIG)
  file(SHA256 ${CMAKE_CURRENT_LIST_DIR}/zig/package-lock.json lock)
  string(SUBSTRING ${lock} 0 12 lock)
  set(folder $ENV{XDG_CACHE_HOME})
  if(NOT folder)
    set(folder $ENV{HOME}/.cache)
  endif()
  set(folder ${folder}/kestrel/zig-${lock}/node_modules/@oven)
  find_program(KESTREL_ZIG zig HINTS ${folder}/zig-linux-x64 ${folder}/zig-linux-arm64
               DOC "The zig executable")
  if(NOT KESTREL_ZIG)
    message(FATAL_ERROR "zig not found: set KESTREL_ZIG, or let ./dev macos install it")
  endif()
endif()
# The compiler checks run this file once more, without the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_ZIG)

# Frame pointers are the rule on a Mac: crash reports and samplers walk the stack by them. They also
# keep functions from leaning on __eh_frame, where zig's linker leaves the address of the exception
# handler unrelocated, so that a throw through them would crash. Size-optimised code leans on it the
# most: never build with -Os here.
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER ${KESTREL_ZIG} c++ -target x86_64-macos.${KESTREL_MACOS_MINIMUM})
  set(CMAKE_${language}_FLAGS_INIT -fno-omit-frame-pointer)
  set(CMAKE_${language}_ABI_COMPILED ON)  # the check for it wants a linker that knows -v
endforeach()
# zig names the language once more than the command line does.
string(APPEND CMAKE_OBJCXX_FLAGS_INIT " -Wno-unused-command-line-argument")

# CMake looks for this tool wherever the target is a Mac; no install name is ever changed here.
set(CMAKE_INSTALL_NAME_TOOL ${CMAKE_COMMAND} CACHE FILEPATH "")
# The target names the system's version; there is no SDK.
set(CMAKE_OSX_SYSROOT "" CACHE STRING "")
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "")
