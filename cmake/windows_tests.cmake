# The test suite of the Windows build, run under Wine by CTest.
#
# GoogleTest is built for the target from Debian's sources (libgtest-dev
# carries them in /usr/src/googletest); its Linux archives cannot link here.
set(ZP_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest's sources")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
add_subdirectory(${ZP_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(library gtest gtest_main)
  # GoogleTest's own code is not held to the project's warnings.
  target_compile_options(${library} PRIVATE -w)
  if(NOT TARGET GTest::${library})
    add_library(GTest::${library} ALIAS ${library})
  endif()
endforeach()

function(zp_add_windows_tests)
  gtest_discover_tests(zelvarpack_tests DISCOVERY_TIMEOUT 120 DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS windows)
endfunction()
