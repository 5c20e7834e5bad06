# Makes the panel bundle (run by the panel-bundle target of cmake/PanelBundle.cmake):
#   cmake -DNAME= -DOUT= -DWORK= -DPLUGIN= -DHEADER= -DHOST_HEADER= -DLOADER_HEADER= -DGUIDE= -DSTRIP= -DREADELF=
#         -DVERSION= -DQT_VERSION= -DARCH= -P make-panel-bundle.cmake
foreach(var NAME OUT WORK PLUGIN HEADER HOST_HEADER LOADER_HEADER GUIDE STRIP READELF VERSION QT_VERSION ARCH)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "make-panel-bundle.cmake: -D${var}= is missing")
  endif()
endforeach()

set(root ${WORK}/${NAME})
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${root}/lib ${root}/include ${root}/doc)
set(plugin ${root}/lib/libads_ethernet.so)
configure_file(${PLUGIN} ${plugin} COPYONLY)
# The build tree's RPATH names this machine's Qt; on the panel the runtime's own Qt is used.
file(RPATH_REMOVE FILE ${plugin})
execute_process(COMMAND ${STRIP} --strip-all ${plugin} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "make-panel-bundle.cmake: ${STRIP} failed on ${plugin}")
endif()
configure_file(${HEADER} ${root}/include/ads_ethernet.h COPYONLY)
configure_file(${HOST_HEADER} ${root}/include/ads_ethernet_host.h COPYONLY)
configure_file(${LOADER_HEADER} ${root}/include/ads_ethernet_loader.h COPYONLY)
configure_file(${GUIDE} ${root}/doc/HOST_INTEGRATION.md COPYONLY)

# What the plugin needs at run time: its libraries, and the highest symbol version it takes
# from the C library and the C++ runtime.
execute_process(COMMAND ${READELF} --dynamic --version-info --wide ${plugin}
                OUTPUT_VARIABLE elf RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "make-panel-bundle.cmake: ${READELF} failed on ${plugin}")
endif()
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]\n]+\\]" needed_lines "${elf}")
set(needed "")
foreach(line ${needed_lines})
  string(REGEX REPLACE ".*\\[([^]]+)\\].*" "\\1" lib "${line}")
  list(APPEND needed ${lib})
endforeach()
foreach(family GLIBC GLIBCXX CXXABI)
  set(max_${family} "")
  string(REGEX MATCHALL "Name: ${family}_[0-9.]+" names "${elf}")
  foreach(n ${names})
    string(REGEX REPLACE "Name: ${family}_" "" v "${n}")
    if(max_${family} STREQUAL "" OR v VERSION_GREATER max_${family})
      set(max_${family} ${v})
    endif()
  endforeach()
endforeach()
if(max_GLIBC STREQUAL "")
  message(FATAL_ERROR "make-panel-bundle.cmake: no GLIBC_ symbol version found in ${plugin}")
endif()
list(JOIN needed ", " needed_text)

if(ARCH STREQUAL "armhf")
  set(target_text "the ARM panel: 32-bit ARM, hard-float ABI (arm-linux-gnueabihf)")
else()
  set(target_text "Linux on ${ARCH}")
endif()
set(cxx_text "")
if(NOT max_GLIBCXX STREQUAL "")
  set(cxx_text "- The GNU C++ runtime libstdc++.so.6 with symbol version GLIBCXX_${max_GLIBCXX}")
  if(NOT max_CXXABI STREQUAL "")
    string(APPEND cxx_text " and CXXABI_${max_CXXABI}")
  endif()
  string(APPEND cxx_text " (or newer).\n")
endif()

file(WRITE ${root}/README "ads_ethernet ${VERSION} for Qt ${QT_VERSION} runtimes
Built for ${target_text}.

  lib/libads_ethernet.so    the driver plugin (stripped); it exports the nineteen intf_
                            entry points and nothing else
  include/ads_ethernet_host.h    the host's header: the records that cross the entry
                            points, their function types, the settings-string helper
  include/ads_ethernet_loader.h  loads the plugin and resolves the entry points by name
  include/ads_ethernet.h    the driver's own header (the driver and its tests)
  doc/HOST_INTEGRATION.md   the host integration guide: every entry point, the polling
                            contract, threads, recipes

What the panel must provide:
- Qt 4.8: the plugin is built against Qt ${QT_VERSION} (QtCore and QtNetwork,
  libQtCore.so.4 and libQtNetwork.so.4). Only a Qt 4.8 runtime can load it: QString, QList,
  QVector and QByteArray cross the entry points by value and by reference, so the host and
  the plugin must use the same Qt. A Qt 5 or Qt 6 runtime takes the build made against that Qt.
- The GNU C library ${max_GLIBC} or newer (highest symbol version used: GLIBC_${max_GLIBC}).
${cxx_text}- Libraries it is linked to: ${needed_text}.
  The plugin carries no RPATH: the runtime's library path must find them (as it finds the
  runtime's own Qt).
")

file(REMOVE ${OUT})
execute_process(COMMAND ${CMAKE_COMMAND} -E tar czf ${OUT} ${NAME}
                WORKING_DIRECTORY ${WORK} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "make-panel-bundle.cmake: tar failed")
endif()
message(STATUS "panel bundle: ${OUT} (needs Qt ${QT_VERSION}, GLIBC_${max_GLIBC})")
