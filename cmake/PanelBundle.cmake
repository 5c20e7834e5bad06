# The panel deliverable of a Qt 4.8 build: ads_ethernet-<version>-<arch>-qt4.tar.gz with the
# stripped plugin (no RPATH: the panel runtime brings its own Qt), the headers, the integration
# guide and a README naming the Qt and C library the plugin needs.
#
#   cmake --build <build-dir> --target panel-bundle
#
# The test panel_bundle (label "bundle") checks the tarball with scripts/check-panel-bundle.sh
# and loads the plugin from it with panel_bundle_loader (under qemu-arm for armhf).
if(ADS_CROSS_ARMHF)
  set(ADS_BUNDLE_ARCH armhf)
else()
  set(ADS_BUNDLE_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(ADS_BUNDLE_NAME ads_ethernet-${PROJECT_VERSION}-${ADS_BUNDLE_ARCH}-qt4)
set(ADS_BUNDLE_TARBALL ${PROJECT_BINARY_DIR}/${ADS_BUNDLE_NAME}.tar.gz)
if(NOT CMAKE_STRIP OR NOT CMAKE_READELF)
  message(FATAL_ERROR "panel bundle: strip and readelf are needed (CMAKE_STRIP, CMAKE_READELF)")
endif()

set(_bundle_script ${PROJECT_SOURCE_DIR}/cmake/make-panel-bundle.cmake)
add_custom_command(OUTPUT ${ADS_BUNDLE_TARBALL}
  COMMAND ${CMAKE_COMMAND}
          -DNAME=${ADS_BUNDLE_NAME} -DOUT=${ADS_BUNDLE_TARBALL}
          -DWORK=${PROJECT_BINARY_DIR}/panel-bundle
          -DPLUGIN=$<TARGET_FILE:ads_ethernet>
          -DHEADER=${PROJECT_SOURCE_DIR}/src/ads_ethernet.h
          -DHOST_HEADER=${PROJECT_SOURCE_DIR}/src/ads_ethernet_host.h
          -DLOADER_HEADER=${PROJECT_SOURCE_DIR}/src/ads_ethernet_loader.h
          -DGUIDE=${PROJECT_SOURCE_DIR}/docs/HOST_INTEGRATION.md
          -DSTRIP=${CMAKE_STRIP} -DREADELF=${CMAKE_READELF}
          -DVERSION=${PROJECT_VERSION} -DQT_VERSION=${ADS_QT4_VERSION} -DARCH=${ADS_BUNDLE_ARCH}
          -P ${_bundle_script}
  DEPENDS ads_ethernet ${_bundle_script} ${PROJECT_SOURCE_DIR}/src/ads_ethernet.h
          ${PROJECT_SOURCE_DIR}/src/ads_ethernet_host.h ${PROJECT_SOURCE_DIR}/src/ads_ethernet_loader.h
          ${PROJECT_SOURCE_DIR}/docs/HOST_INTEGRATION.md
  COMMENT "Panel bundle ${ADS_BUNDLE_NAME}.tar.gz"
  VERBATIM)
# Part of every Qt 4 build (it takes well under a second), so that its test finds it.
add_custom_target(panel-bundle ALL DEPENDS ${ADS_BUNDLE_TARBALL})

if(ADS_BUILD_TESTS)
  add_executable(panel_bundle_loader ${PROJECT_SOURCE_DIR}/tests/bundle/panel_bundle_loader.cpp)
  target_link_libraries(panel_bundle_loader PRIVATE ${ADS_QT}::Core ${CMAKE_DL_LIBS})
  set(_bundle_check_env ADS_BUNDLE_QT_LIBDIR=${ADS_QT4_LIBDIR})
  if(ADS_CROSS_ARMHF)
    list(APPEND _bundle_check_env ADS_BUNDLE_SYSROOT=${ADS_ARMHF_SYSROOT})
  endif()
  add_test(NAME panel_bundle
    COMMAND ${CMAKE_COMMAND} -E env ${_bundle_check_env}
            bash ${PROJECT_SOURCE_DIR}/scripts/check-panel-bundle.sh ${ADS_BUNDLE_TARBALL}
            $<TARGET_FILE:panel_bundle_loader>)
  set_tests_properties(panel_bundle PROPERTIES LABELS bundle TIMEOUT 120)
endif()
