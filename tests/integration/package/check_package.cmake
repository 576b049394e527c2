cmake_minimum_required(VERSION 3.25)
# The package's files, as `dpkg-deb -c` lists them: the data source where the
# TWAIN Working Group's manager looks, and nothing it could mistake for one.
file(GLOB debs ${PACKAGE_DIR}/zentary-q305_*.deb)
list(LENGTH debs count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one zentary-q305 package in ${PACKAGE_DIR}, found: ${debs}")
endif()
execute_process(COMMAND dpkg-deb -c ${debs} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\\./[^ \n]*" paths "${listing}")

set(problems "")
set(twain ./usr/local/lib/twain/tarvell)
foreach(expected ${twain}/ZentaryQ305.ds ${twain}/ZentaryQ305.bundle/Info.plist
    ${twain}/ZentaryQ305.bundle/Resources/Capabilities/Tarvell_Zentary_Q300_series.plist
    ./usr/bin/zentary-scan ./usr/lib/udev/rules.d/70-zentary-q305.rules)
  if(NOT expected IN_LIST paths)
    string(APPEND problems "\n  missing ${expected}")
  endif()
endforeach()
foreach(path ${paths})
  # The manager loads every file below its folder whose name holds ".ds".
  if(path MATCHES "^\\./usr/local/lib/twain/" AND path MATCHES "\\.ds" AND NOT path STREQUAL "${twain}/ZentaryQ305.ds")
    string(APPEND problems "\n  ${path} would be taken for a data source")
  endif()
  # /usr/local holds the TWAIN folder and nothing else of ours.
  if(path MATCHES "^\\./usr/local/." AND NOT path MATCHES "^\\./usr/local/(lib/(twain/.*)?)?$")
    string(APPEND problems "\n  ${path} is in /usr/local")
  endif()
  if(path MATCHES "^\\./usr/lib/twain")
    string(APPEND problems "\n  ${path}: the manager never looks there")
  endif()
endforeach()

# The manager skips a .ds that `file` does not call x86-64.
set(unpacked ${PACKAGE_DIR}/unpacked)
file(REMOVE_RECURSE ${unpacked})
execute_process(COMMAND dpkg-deb -x ${debs} ${unpacked} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND file -L ${unpacked}/usr/local/lib/twain/tarvell/ZentaryQ305.ds OUTPUT_VARIABLE kind)
if(NOT kind MATCHES "x86-64")
  string(APPEND problems "\n  the .ds is not an x86-64 object to `file`: ${kind}")
endif()
file(REMOVE_RECURSE ${unpacked})

if(problems)
  message(FATAL_ERROR "package ${debs}:${problems}")
endif()
