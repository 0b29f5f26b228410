# Toolchain for the macOS builds; the presets macos-x86_64 and macos-arm64 set KESTREL_MACOS_ARCH. On a
# Mac it uses the system's own compiler and SDK. Elsewhere it uses zig instead, one package with clang,
# a Mach-O linker and the sources of a C++ library.
include(${CMAKE_CURRENT_LIST_DIR}/versions.cmake)
if(NOT KESTREL_MACOS_ARCH MATCHES "^(x86_64|arm64)$")
  message(FATAL_ERROR "KESTREL_MACOS_ARCH must be x86_64 or arm64: "
                      "use the preset macos-x86_64 or macos-arm64")
endif()
# The compiler checks run this file again, without the cache, so they are passed its variables.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_MACOS_ARCH KESTREL_ZIG)

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

# Frame pointers are customary on a Mac: crash reports and samplers use them to walk the stack. They
# also keep functions from depending on __eh_frame, where zig's linker does not relocate the address
# of the exception handler, so that an exception thrown through such a function would crash.
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER ${KESTREL_ZIG} c++ -target ${target})
  set(CMAKE_${language}_FLAGS_INIT -fno-omit-frame-pointer)
  set(CMAKE_${language}_ABI_COMPILED ON)  # CMake's check needs a linker that supports -v
endforeach()
# zig adds an option for the language to the one on the command line, which then counts as unused.
string(APPEND CMAKE_OBJCXX_FLAGS_INIT " -Wno-unused-command-line-argument")

# CMake requires this tool for macOS; a dummy is enough, because no install names are changed.
set(CMAKE_INSTALL_NAME_TOOL ${CMAKE_COMMAND} CACHE FILEPATH "")
# The target triple contains the oldest supported system, and there is no SDK.
set(CMAKE_OSX_SYSROOT "" CACHE STRING "")
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "")
