# What a mingw-w64 cross build for Windows needs beyond the toolchain file
# (cmake/mingw-w64-x86_64.cmake): the compiler's run-time DLLs beside the programs, the JSON
# headers from the build machine, and GoogleTest built from its sources.

# The compiler's run-time DLLs: copied next to the programs in the build tree (Windows finds DLLs
# in the program's folder, there is no rpath) and installed with them.
set(VELT_MINGW_RUNTIME_DLLS "")
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                    OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
        message(FATAL_ERROR "The mingw-w64 run-time ${dll} was not found")
    endif()
    list(APPEND VELT_MINGW_RUNTIME_DLLS "${path}")
endforeach()
file(COPY ${VELT_MINGW_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
install(FILES ${VELT_MINGW_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})

# The JSON library is header-only, so the build machine's headers serve. Its own package file
# would put the whole of the build machine's /usr/include on the include path, so a package file
# of ours stands in for it, exposing only the library's folder through a link in the build tree.
if(NOT EXISTS /usr/include/nlohmann/json.hpp)
    message(FATAL_ERROR "nlohmann/json.hpp not found: install nlohmann-json3-dev")
endif()
set(json_root ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${json_root})
file(CREATE_LINK /usr/include/nlohmann ${json_root}/nlohmann SYMBOLIC)
file(WRITE ${json_root}/nlohmann_jsonConfig.cmake "
if(NOT TARGET nlohmann_json::nlohmann_json)
    add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
    target_include_directories(nlohmann_json::nlohmann_json INTERFACE ${json_root})
endif()
")
set(nlohmann_json_DIR ${json_root} CACHE PATH "Package file of the JSON headers" FORCE)

# GoogleTest from Debian's source package, built for the target (static libraries: the tests are
# the only users). Its own CMake files name the targets GTest::gtest and GTest::gtest_main.
if(VELT_BUILD_TESTS AND NOT TARGET GTest::gtest)
    set(VELT_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources")
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_SHARED_LIBS OFF)
    add_subdirectory(${VELT_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()
