# Installing and packaging: the engine's shared libraries with their host libraries, the headers
# under include/velt_midi/ (included as "midi/...", "interfaces/...", "platform/...",
# "velt_core/..."), velt-play, a CMake package (find_package(velt_midi) gives
# velt_midi::velt_midi, which brings velt_core, kit and velt_platform with it) and a pkg-config
# file. cpack makes a Debian package of the same on Linux and a zip on Windows
# (tools/package_windows.sh).
include(CMakePackageConfigHelpers)

set(VELT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/velt_midi)
set(VELT_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/velt_midi)
set(velt_libraries velt_midi velt_core kit velt_platform)

# The libraries name the source tree as their include folder; installed, it is include/velt_midi.
foreach(library ${velt_libraries})
    set_property(TARGET ${library} PROPERTY INTERFACE_INCLUDE_DIRECTORIES
                 $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                 $<INSTALL_INTERFACE:${VELT_INSTALL_INCLUDEDIR}>)
endforeach()

# Installed on Linux, each library finds the others beside it and velt-play finds them in
# ../lib (a run path is not inherited: libvelt_midi must name its own). On Windows programs and
# DLLs share one folder.
if(NOT WIN32)
    set_target_properties(${velt_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
    set_target_properties(velt_play PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

install(TARGETS ${velt_libraries} EXPORT velt_midi_targets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS velt_play RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Headers: the engine's and its host interfaces'; the sources' private headers stay behind. The
# POSIX declarations of the multimedia names are what platform/mmsystem.h includes off Windows.
install(DIRECTORY midi/ DESTINATION ${VELT_INSTALL_INCLUDEDIR}/midi
        FILES_MATCHING PATTERN "*.h" PATTERN "Sources" EXCLUDE)
install(DIRECTORY interfaces/ DESTINATION ${VELT_INSTALL_INCLUDEDIR}/interfaces
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY velt_core/ DESTINATION ${VELT_INSTALL_INCLUDEDIR}/velt_core
        FILES_MATCHING PATTERN "*.h")
install(FILES platform/mmsystem.h platform/precise_wait.h platform/virtual_midi.h
        DESTINATION ${VELT_INSTALL_INCLUDEDIR}/platform)
if(NOT WIN32)
    install(FILES platform/posix/win_types.h platform/posix/mm_midi.h platform/posix/mm_time.h
                  platform/posix/kernel.h
            DESTINATION ${VELT_INSTALL_INCLUDEDIR}/platform/posix)
endif()

if(WIN32)
    install(FILES README.md DESTINATION .)
else()
    install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# The CMake package.
install(EXPORT velt_midi_targets NAMESPACE velt_midi:: DESTINATION ${VELT_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/velt_midiConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/velt_midiConfig.cmake
                              INSTALL_DESTINATION ${VELT_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/velt_midiConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velt_midiConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/velt_midiConfigVersion.cmake
        DESTINATION ${VELT_INSTALL_CMAKEDIR})

# The pkg-config file. The compile definitions the platform library publishes go with it.
get_target_property(velt_platform_definitions velt_platform INTERFACE_COMPILE_DEFINITIONS)
set(VELT_PC_CFLAGS "")
if(velt_platform_definitions)
    foreach(definition ${velt_platform_definitions})
        string(APPEND VELT_PC_CFLAGS " -D${definition}")
    endforeach()
endif()
# The prefix is found from the file's own place, so that the tree may be moved (or packaged
# under another prefix).
file(RELATIVE_PATH VELT_PC_PREFIX_FROM_PCFILEDIR /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(cmake/velt_midi.pc.in ${CMAKE_CURRENT_BINARY_DIR}/velt_midi.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velt_midi.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# cpack: a Debian package on Linux, a zip on Windows.
set(CPACK_PACKAGE_NAME velt-midi)
set(CPACK_PACKAGE_VENDOR "velt")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "MIDI engine for live musical-theatre playback, and its show player")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "velt developers <velt@localhost>")
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_FILE_NAME velt-midi-${PROJECT_VERSION}-windows-x86_64)
    set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SECTION sound)
    # The run-time dependencies (libc, libstdc++, RtMidi, libjack) from the libraries themselves.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()
include(CPack)
