# SPDX-License-Identifier: MIT
# Installs the library, its headers, the CMake package (components GLib and Qt) and the pkg-config files,
# and describes the Debian packages CPack builds from them.
include(CMakePackageConfigHelpers)

set(QVHANDOFF_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QVHandoff)
set(QVHANDOFF_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS QVHandoffLibrary EXPORT QVHandoffTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY ${QVHANDOFF_STAGED_INCLUDE_DIR}/QVHandoff DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT QVHandoffTargets NAMESPACE QVHandoff:: DESTINATION ${QVHANDOFF_CMAKE_DIR} COMPONENT dev)

# An adapter: its library in a package of its own (a GLib host never pulls Qt), the rest in -dev.
function(qvhandoff_install_adapter target component)
  install(TARGETS ${target} EXPORT QVHandoff${component}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component} NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  install(EXPORT QVHandoff${component}Targets NAMESPACE QVHandoff:: DESTINATION ${QVHANDOFF_CMAKE_DIR}
          COMPONENT dev)
endfunction()
if(TARGET QVHandoffGLib)
  qvhandoff_install_adapter(QVHandoffGLib GLib)
endif()
if(TARGET QVHandoffQt)
  qvhandoff_install_adapter(QVHandoffQt Qt)
endif()

if(QVHANDOFF_SHARED)
  set(QVHANDOFF_GLIB_FILE libqvhandoff-glib.so.${PROJECT_VERSION_MAJOR})
  set(QVHANDOFF_QT_FILE libqvhandoff-qt.so.${PROJECT_VERSION_MAJOR})
else()
  set(QVHANDOFF_GLIB_FILE libqvhandoff-glib.a)
  set(QVHANDOFF_QT_FILE libqvhandoff-qt.a)
endif()
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QVHandoffConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/QVHandoffConfig.cmake INSTALL_DESTINATION ${QVHANDOFF_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/QVHandoffConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QVHandoffConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/QVHandoffConfigVersion.cmake
        DESTINATION ${QVHANDOFF_CMAKE_DIR} COMPONENT dev)

# pkg-config: a static library's dependencies are the host's to link, against their shared libraries
# (pkg-config --static would ask for every dependency's own static dependencies).
if(QVHANDOFF_SHARED)
  set(QVHANDOFF_PC_REQUIRES "nlohmann_json")
  set(QVHANDOFF_PC_LIBS "-lqvhandoff")
else()
  set(QVHANDOFF_PC_REQUIRES
      "nlohmann_json spdlog fmt libcrypto libcurl libmicrohttpd libplist-2.0 gio-2.0 uuid")
  set(QVHANDOFF_PC_LIBS "-lqvhandoff -lavahi-common -ldl")
endif()
# Relative to the .pc file, so that a staged or relocated install finds itself.
file(RELATIVE_PATH QVHANDOFF_PC_PREFIX_FROM_PCDIR /${QVHANDOFF_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" QVHANDOFF_PC_PREFIX_FROM_PCDIR "${QVHANDOFF_PC_PREFIX_FROM_PCDIR}")
foreach(pc qvhandoff qvhandoff-glib qvhandoff-qt)
  if(pc STREQUAL "qvhandoff-glib" AND NOT TARGET QVHandoffGLib OR pc STREQUAL "qvhandoff-qt" AND NOT TARGET QVHandoffQt)
    continue()
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${QVHANDOFF_PKGCONFIG_DIR} COMPONENT dev)
endforeach()
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qvhandoff COMPONENT dev)

# Debian packages: cpack -G DEB in the build folder.
set(CPACK_PACKAGE_NAME qvhandoff)
set(CPACK_PACKAGE_VENDOR "QVHandoff developers")
set(CPACK_PACKAGE_CONTACT "QVHandoff developers <qvhandoff@quorvel.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvhandoff${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqvhandoff-dev)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME qvhandoff)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
# dpkg-shlibdeps names what the ELF files link; the Avahi libraries are loaded at run time, so they are
# named by hand, with the MIME database g_content_type_guess reads.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Debug information stays in the build tree: a package carries what runs.
set(CPACK_STRIP_FILES ON)
# A shlibs file and the ldconfig trigger for the library packages.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The adapters need libqvhandoff.so.0 of this build; their packages name libqvhandoff0 themselves.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
foreach(component RUNTIME GLIB QT)
  set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
endforeach()
set(QVHANDOFF_RUNTIME_DEPENDS "libavahi-client3, libavahi-core7, libavahi-common3, shared-mime-info")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${QVHANDOFF_RUNTIME_DEPENDS})
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ${QVHANDOFF_RUNTIME_DEPENDS})
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libqvhandoff${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), nlohmann-json3-dev, pkg-config")
if(TARGET QVHandoffGLib)
  list(APPEND CPACK_COMPONENTS_ALL GLib)
  set(CPACK_DEBIAN_GLIB_PACKAGE_NAME libqvhandoff-glib${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_GLIB_PACKAGE_DEPENDS "libqvhandoff${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
  string(APPEND CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ", libglib2.0-dev")
endif()
if(TARGET QVHandoffQt)
  list(APPEND CPACK_COMPONENTS_ALL Qt)
  set(CPACK_DEBIAN_QT_PACKAGE_NAME libqvhandoff-qt${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_QT_PACKAGE_DEPENDS "libqvhandoff${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "qt6-base-dev")
endif()
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
include(CPack)
