# Builds for Macs. On a Mac the system's own compiler and SDK do all of it. Elsewhere zig takes their
# place: a clang with a Mach-O linker and the sources of a C++ library in one package.
set(KESTREL_MACOS_MINIMUM 11.0)
set(KESTREL_MACOS_ARCH "$ENV{KESTREL_MACOS_ARCH}" CACHE STRING "The processor: x86_64 or arm64")
if(NOT KESTREL_MACOS_ARCH)
  set(KESTREL_MACOS_ARCH x86_64 CACHE STRING "" FORCE)
endif()

if(CMAKE_HOST_SYSTEM_NAME STREQUAL "Darwin")
  set(CMAKE_OSX_ARCHITECTURES ${KESTREL_MACOS_ARCH} CACHE STRING "")
  set(CMAKE_OSX_DEPLOYMENT_TARGET ${KESTREL_MACOS_MINIMUM} CACHE STRING "")
  return()
endif()

set(KESTREL_CROSS ON)
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${KESTREL_MACOS_ARCH})
if(NOT KESTREL_ZIG)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/zig/install OUTPUT_VARIABLE zig
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(KESTREL_ZIG ${zig} CACHE FILEPATH "The zig executable")
endif()
string(REPLACE arm64 aarch64 target ${KESTREL_MACOS_ARCH}-macos.${KESTREL_MACOS_MINIMUM})
# The compiler checks run this file once more, without the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_ZIG KESTREL_MACOS_ARCH)

# Frame pointers are the rule on a Mac: crash reports and samplers walk the stack by them. They also
# keep functions from leaning on __eh_frame, where zig's linker leaves the address of the exception
# handler unrelocated, so that a throw through them would crash. Size-optimised code leans on it the
# most: never build with -Os here.
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER ${KESTREL_ZIG} c++ -target ${target})
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
