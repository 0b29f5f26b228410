# Writes the bundle's Info.plist as the KESTREL_BUNDLE_... variables say; docs/macos.md lists them. The
# file plist_expected has what each key must have as its value, for the check of the result.

# An empty variable takes the default of today, not that of the day on which it got into the cache.
macro(bundle_setting name type default doc)
  set(${name} "" CACHE ${type} "${doc}")
  if("${${name}}" STREQUAL "")
    set(${name} "${default}")
  endif()
endmacro()
bundle_setting(KESTREL_BUNDLE_IDENTIFIER STRING com.norvale.kestrel "CFBundleIdentifier")
bundle_setting(KESTREL_BUNDLE_NAME STRING ${PROJECT_NAME} "CFBundleName")
bundle_setting(KESTREL_BUNDLE_VERSION STRING ${PROJECT_VERSION} "Both version keys")
bundle_setting(KESTREL_BUNDLE_ICON FILEPATH "" "An .icns file, for CFBundleIconFile")
bundle_setting(KESTREL_BUNDLE_CATEGORY STRING "" "LSApplicationCategoryType")
bundle_setting(KESTREL_BUNDLE_ENVIRONMENT STRING "" "LSEnvironment: a list of NAME=VALUE")
bundle_setting(KESTREL_BUNDLE_LSUIELEMENT BOOL OFF "LSUIElement")
bundle_setting(KESTREL_BUNDLE_PLIST FILEPATH ${CMAKE_CURRENT_SOURCE_DIR}/Info.plist.in
               "The template of Info.plist")

if(NOT KESTREL_BUNDLE_IDENTIFIER MATCHES "^[A-Za-z0-9.-]+$")
  message(FATAL_ERROR "KESTREL_BUNDLE_IDENTIFIER may hold letters, digits, points and hyphens only: "
                      "${KESTREL_BUNDLE_IDENTIFIER}")
endif()
if(NOT KESTREL_BUNDLE_VERSION MATCHES "^[0-9]+(\\.[0-9]+)?(\\.[0-9]+)?$")
  message(FATAL_ERROR "KESTREL_BUNDLE_VERSION must be one to three numbers with points between: "
                      "${KESTREL_BUNDLE_VERSION}")
endif()

if(NOT KESTREL_BUNDLE_LSUIELEMENT MATCHES "^(ON|OFF|TRUE|FALSE|YES|NO|1|0)$")
  message(FATAL_ERROR "KESTREL_BUNDLE_LSUIELEMENT must be ON or OFF: ${KESTREL_BUNDLE_LSUIELEMENT}")
endif()
foreach(file KESTREL_BUNDLE_ICON KESTREL_BUNDLE_PLIST)
  if(NOT "${${file}}" STREQUAL "" AND NOT EXISTS "${${file}}")
    message(FATAL_ERROR "${file} does not exist: ${${file}}")
  endif()
endforeach()

function(escape_xml result text)
  string(REPLACE "&" "&amp;" text "${text}")
  string(REPLACE "<" "&lt;" text "${text}")
  string(REPLACE ">" "&gt;" text "${text}")
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

# add_entry(INDENT KEY VALUE): a key that stands in Info.plist only if it has a value.
function(add_entry indent key value)
  if(NOT "${value}" STREQUAL "")
    escape_xml(value "${value}")
    string(APPEND KESTREL_BUNDLE_OPTIONAL
           "\n${indent}<key>${key}</key>\n${indent}<string>${value}</string>")
    set(KESTREL_BUNDLE_OPTIONAL "${KESTREL_BUNDLE_OPTIONAL}" PARENT_SCOPE)
  endif()
endfunction()

# The keys with one text each.
get_filename_component(icon "${KESTREL_BUNDLE_ICON}" NAME)
set(expected
"CFBundleExecutable=kestrel
CFBundleIdentifier=${KESTREL_BUNDLE_IDENTIFIER}
CFBundleName=${KESTREL_BUNDLE_NAME}
CFBundleVersion=${KESTREL_BUNDLE_VERSION}
CFBundleShortVersionString=${KESTREL_BUNDLE_VERSION}
CFBundleIconFile=${icon}
LSApplicationCategoryType=${KESTREL_BUNDLE_CATEGORY}
LSMinimumSystemVersion=${KESTREL_MACOS_MINIMUM}
")
escape_xml(KESTREL_BUNDLE_NAME "${KESTREL_BUNDLE_NAME}")
set(KESTREL_BUNDLE_OPTIONAL "")
add_entry("  " CFBundleIconFile "${icon}")
add_entry("  " LSApplicationCategoryType "${KESTREL_BUNDLE_CATEGORY}")

if(KESTREL_BUNDLE_ENVIRONMENT)
  string(APPEND KESTREL_BUNDLE_OPTIONAL "\n  <key>LSEnvironment</key>\n  <dict>")
  foreach(variable IN LISTS KESTREL_BUNDLE_ENVIRONMENT)
    if(NOT variable MATCHES "^([A-Za-z_][A-Za-z0-9_]*)=(.+)$")
      message(FATAL_ERROR "KESTREL_BUNDLE_ENVIRONMENT must be a list of NAME=VALUE: ${variable}")
    endif()
    add_entry("    " ${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
    string(APPEND expected "LSEnvironment.${variable}\n")
  endforeach()
  string(APPEND KESTREL_BUNDLE_OPTIONAL "\n  </dict>")
endif()

if(KESTREL_BUNDLE_LSUIELEMENT)
  string(APPEND KESTREL_BUNDLE_OPTIONAL "\n  <key>LSUIElement</key>\n  <true/>")
  string(APPEND expected "LSUIElement=true\n")
else()
  string(APPEND expected "LSUIElement=\n")
endif()

configure_file(${KESTREL_BUNDLE_PLIST} ${contents}/Info.plist @ONLY)
set(plist_expected ${PROJECT_BINARY_DIR}/plist_expected)
file(WRITE ${plist_expected} "${expected}")

file(REMOVE_RECURSE ${contents}/Resources)
if(icon)
  configure_file(${KESTREL_BUNDLE_ICON} ${contents}/Resources/${icon} COPYONLY)
endif()
