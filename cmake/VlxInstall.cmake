# Installs the libraries, the headers, the CMake package, the pkg-config files and what systemd wants
# to know; programs, plugin and pages are installed where they are built. All of them find each other
# by relative paths, so that `cmake --install BUILD --prefix PREFIX` may put them anywhere.

option(VLX_INSTALL "Make install rules" ${PROJECT_IS_TOP_LEVEL})
if(NOT VLX_INSTALL)
    return()
endif()

include(CMakePackageConfigHelpers)
set(vlx_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tavo_vellox)

# Components: runtime (what a program needs), development (besides), tools, gstreamer, alsa and python
# (each besides runtime). Everything belongs to one of them.

# Libraries. Siblings lie beside each other; another build of the companion stays where it is.
set(vlx_libraries vlx_vellox vlx_vellox_kit)
if(NOT VLX_COMPANION_DIR)
    list(APPEND vlx_libraries vlx_miscUtils)
endif()
set_target_properties(${vlx_libraries} PROPERTIES
    INSTALL_RPATH $ORIGIN
    INSTALL_RPATH_USE_LINK_PATH ON)
install(TARGETS vlx_vellox vlx_vellox_kit vlx_miscUtils vlx_audioUtils vlx_span
    EXPORT tavo_velloxTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)

# Headers.
set(vlx_header_dirs include/vlx kit/vlxkit companion/audioUtils)
if(NOT VLX_COMPANION_DIR)
    list(APPEND vlx_header_dirs companion/miscUtils)
endif()
install(DIRECTORY ${vlx_header_dirs}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development
    FILES_MATCHING PATTERN *.hpp)
if(NOT VLX_SPAN_LITE_FOUND)
    install(DIRECTORY compat/nonstd
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vlx/compat
        COMPONENT development)
endif()

# CMake package.
install(EXPORT tavo_velloxTargets
    NAMESPACE tavo::
    DESTINATION ${vlx_package_dir}
    COMPONENT development)
configure_package_config_file(cmake/tavo_velloxConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_velloxConfig.cmake
    INSTALL_DESTINATION ${vlx_package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tavo_velloxConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_velloxConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_velloxConfigVersion.cmake
    DESTINATION ${vlx_package_dir}
    COMPONENT development)

# pkg-config files.
file(RELATIVE_PATH VLX_PC_TO_PREFIX
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VLX_PC_TO_PREFIX ${VLX_PC_TO_PREFIX})
file(RELATIVE_PATH VLX_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH VLX_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
set(VLX_PC_CFLAGS -I\${includedir})
set(VLX_PC_LIBS "-L\${libdir} -ltavo_vellox")
if(VLX_SPAN_LITE_FOUND)
    string(APPEND VLX_PC_CFLAGS " -Dspan_CONFIG_SELECT_SPAN=span_SPAN_NONSTD")
else()
    string(APPEND VLX_PC_CFLAGS " -I\${includedir}/vlx/compat")
endif()
if(VLX_COMPANION_DIR)
    cmake_path(GET VLX_MISCUTILS_LIBRARY PARENT_PATH vlx_companion_libdir)
    string(APPEND VLX_PC_CFLAGS " -I${VLX_MISCUTILS_INCLUDE_DIR}")
    string(APPEND VLX_PC_LIBS " -L${vlx_companion_libdir}")
endif()
string(APPEND VLX_PC_LIBS " -ltavo_miscUtils -pthread")
foreach(package tavo_vellox tavo_vellox_kit)
    configure_file(cmake/${package}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
endforeach()

# The command-line tool, which tools/ installs, finds the libraries from where it lies.
if(TARGET vlx)
    file(RELATIVE_PATH vlx_bindir_to_libdir
        ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(vlx PROPERTIES
        INSTALL_RPATH $ORIGIN/${vlx_bindir_to_libdir}
        INSTALL_RPATH_USE_LINK_PATH ON)
endif()

# Below the prefix, so that a private one stays private. systemd looks in /usr and in /usr/local. The
# units start the tool where it was configured to be.
file(READ packaging/systemd/hardening.conf HARDENING)
foreach(unit vlx-send@ vlx-receive@)
    configure_file(packaging/systemd/${unit}.service ${CMAKE_CURRENT_BINARY_DIR}/${unit}.service @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${unit}.service
        DESTINATION lib/systemd/system
        COMPONENT tools)
endforeach()
install(FILES packaging/sysusers.conf DESTINATION lib/sysusers.d RENAME vlx.conf COMPONENT tools)
install(FILES packaging/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME vlx.conf COMPONENT runtime)

# The GStreamer elements, where GStreamer looks when the prefix is its own.
if(TARGET gstvlx)
    set(vlx_plugin_dir ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0)
    set_target_properties(gstvlx PROPERTIES
        INSTALL_RPATH $ORIGIN/..
        INSTALL_RPATH_USE_LINK_PATH ON)
    install(TARGETS gstvlx LIBRARY DESTINATION ${vlx_plugin_dir} COMPONENT gstreamer)
endif()

# The ALSA plugin, where ALSA looks when the prefix is its own, and its configuration beside ALSA's;
# /etc/alsa/conf.d needs a link to that.
if(TARGET vlx_alsa)
    set_target_properties(vlx_alsa PROPERTIES
        INSTALL_RPATH $ORIGIN/..
        INSTALL_RPATH_USE_LINK_PATH ON)
    install(TARGETS vlx_alsa LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/alsa-lib COMPONENT alsa)
    install(FILES alsa/99-vlx.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/alsa/alsa.conf.d
        COMPONENT alsa)
endif()

# The Python module, where Python looks when the prefix is its own.
if(TARGET vlx_python)
    file(RELATIVE_PATH vlx_python_to_libdir
        ${CMAKE_INSTALL_PREFIX}/${VLX_PYTHON_DIR}/vellox ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(vlx_python PROPERTIES
        INSTALL_RPATH $ORIGIN/${vlx_python_to_libdir}
        INSTALL_RPATH_USE_LINK_PATH ON)
    install(TARGETS vlx_python LIBRARY DESTINATION ${VLX_PYTHON_DIR}/vellox COMPONENT python)
    install(DIRECTORY python/vellox
        DESTINATION ${VLX_PYTHON_DIR}
        COMPONENT python
        FILES_MATCHING PATTERN *.py PATTERN *.pyi PATTERN py.typed)
endif()
