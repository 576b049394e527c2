cmake_minimum_required(VERSION 3.25)
# The package's files, as `dpkg-deb -c` lists them: the data source where the
# TWAIN Working Group's manager looks, and nothing it could mistake for one.
file(GLOB deb ${PACKAGE_DIR}/zentary-q305_*.deb)
execute_process(COMMAND dpkg-deb -c ${deb} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\\./[^ \n]*" paths "${listing}")
set(twain ./usr/local/lib/twain/tarvell)
set(problems "")
foreach(expected ${twain}/ZentaryQ305.ds ${twain}/ZentaryQ305.bundle/Info.plist
    ${twain}/ZentaryQ305.bundle/Resources/Capabilities/Tarvell_Zentary_Q300_series.plist
    ./usr/bin/zentary-scan ./usr/lib/udev/rules.d/70-zentary-q305.rules)
  if(NOT expected IN_LIST paths)
    string(APPEND problems "\n  missing ${expected}")
  endif()
endforeach()
foreach(path ${paths})
  # The manager loads every file below its folder whose name holds ".ds";
  # of ours, /usr/local holds that folder and nothing else.
  if((path MATCHES "^\\./usr/local/lib/twain/.*\\.ds" AND NOT path STREQUAL "${twain}/ZentaryQ305.ds")
     OR (path MATCHES "^\\./usr/local/." AND NOT path MATCHES "^\\./usr/local/(lib/(twain/.*)?)?$")
     OR path MATCHES "^\\./usr/lib/twain")
    string(APPEND problems "\n  ${path} should not be there")
  endif()
endforeach()
# The manager skips a .ds that `file` does not call x86-64.
file(REMOVE_RECURSE ${PACKAGE_DIR}/unpacked)
execute_process(COMMAND dpkg-deb -x ${deb} ${PACKAGE_DIR}/unpacked COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND file ${PACKAGE_DIR}/unpacked/${twain}/ZentaryQ305.ds OUTPUT_VARIABLE kind)
if(NOT kind MATCHES "x86-64")
  string(APPEND problems "\n  `file` does not call the .ds x86-64: ${kind}")
endif()
if(problems)
  message(FATAL_ERROR "${deb}:${problems}")
endif()
