# Qt 4.8 (QtCore, QtNetwork) from an install prefix. Qt 4 ships no CMake package files, so the
# imported targets Qt4::Core, Qt4::Network and Qt4::moc are made here from the prefix's headers,
# libraries and moc, as qmake would use them. `bash scripts/qt4-prefix.sh native` (or `armhf`)
# builds Qt 4.8.7 once into a cache folder and prints such a prefix.
if(NOT ADS_QT4_PREFIX)
  message(FATAL_ERROR "ADS_QT4=ON needs -DADS_QT4_PREFIX=<Qt 4.8 prefix>: "
                      "`bash scripts/qt4-prefix.sh native` (or `armhf`) builds one and prints it")
endif()
get_filename_component(_qt4_prefix "${ADS_QT4_PREFIX}" ABSOLUTE)

set(_qt4_global ${_qt4_prefix}/include/QtCore/qglobal.h)
if(NOT EXISTS ${_qt4_global})
  message(FATAL_ERROR "ADS_QT4_PREFIX=${_qt4_prefix}: no include/QtCore/qglobal.h there")
endif()
file(STRINGS ${_qt4_global} _qt4_version_line REGEX "^#define QT_VERSION_STR +\"[0-9.]+\"")
string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" ADS_QT4_VERSION "${_qt4_version_line}")
if(NOT ADS_QT4_VERSION MATCHES "^4\\.8\\.")
  message(FATAL_ERROR "ADS_QT4_PREFIX=${_qt4_prefix} holds Qt '${ADS_QT4_VERSION}', not Qt 4.8")
endif()

foreach(_qt4_module Core Network)
  set(_qt4_lib ${_qt4_prefix}/lib/libQt${_qt4_module}.so.4)
  if(NOT EXISTS ${_qt4_lib})
    message(FATAL_ERROR "ADS_QT4_PREFIX=${_qt4_prefix}: ${_qt4_lib} is missing")
  endif()
  string(TOUPPER ${_qt4_module} _qt4_upper)
  add_library(Qt4::${_qt4_module} SHARED IMPORTED)
  set_target_properties(Qt4::${_qt4_module} PROPERTIES
    IMPORTED_LOCATION ${_qt4_lib}
    IMPORTED_SONAME libQt${_qt4_module}.so.4
    # Imported include folders are system folders: Qt 4's headers stay out of -Wall -Werror.
    INTERFACE_INCLUDE_DIRECTORIES "${_qt4_prefix}/include;${_qt4_prefix}/include/Qt${_qt4_module}"
    INTERFACE_COMPILE_DEFINITIONS "QT_SHARED;QT_${_qt4_upper}_LIB;$<$<NOT:$<CONFIG:Debug>>:QT_NO_DEBUG>")
endforeach()
set_property(TARGET Qt4::Network PROPERTY INTERFACE_LINK_LIBRARIES Qt4::Core)

# moc runs on the build machine, also for the armhf prefix.
if(EXISTS ${_qt4_prefix}/bin/moc)
  add_executable(Qt4::moc IMPORTED)
  set_target_properties(Qt4::moc PROPERTIES IMPORTED_LOCATION ${_qt4_prefix}/bin/moc)
endif()

set(ADS_QT4_LIBDIR ${_qt4_prefix}/lib)
message(STATUS "Qt ${ADS_QT4_VERSION} from ${_qt4_prefix}")
