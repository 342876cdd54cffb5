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

find_package(Python3 COMPONENTS Interpreter)
find_program(ZP_MINGW_OBJDUMP ${ZP_MINGW_TRIPLET}-objdump)
find_program(ZP_MINGW_CXXFILT ${ZP_MINGW_TRIPLET}-c++filt)

# Tests of the suite that do not run under Wine, with the reason (also in
# docs/windows.md). Whole files that cannot even be built for Windows are in
# cmake/platform_sources.cmake (ZP_POSIX_ONLY_TESTS).
set(ZP_WINE_EXCLUDED_TESTS
    # Wine 8 ignores socket receive time-outs (SO_RCVTIMEO), on which its
    # WinHTTP receive time-out rests too: these wait for ever under Wine.
    SocketCalls.ReceiveEndsAtTheTimeOutWithAnError
    ScriptedDownload.GivesUpOnAServerThatStopsSending
    HttpClient.SuccessiveCallsOnOneThreadCarryNothingOver
    CssFilter.DestroyedWhileDownloadsRunAtMostSixteenAtOnce
    # Makes its speech sample by running espeak-ng, a program of the build
    # machine that a Windows process cannot start.
    AudioServerTest.PacksRealRecordings
    # Tells a rewritten cache entry by its inode number, which the Windows
    # C runtime's stat leaves at 0 (the parity check compares the entries).
    ScriptedDownload.RewritesTheEntryOnlyWhenAValidatorChanged
    # Wine's GDI+ ignores the JPEG quality parameter (every quality gives its
    # default), so the quality search cannot be seen; the Linux build's tests
    # prove it, and the Wine tests compare JPEG sheets by geometry and PSNR.
    ImageServer.JpegSheetsTakeTheFirstQualityThatBeatsTheirSources
    # Compares a JPEG sheet drawn band by band with a whole 32-bit canvas
    # encoded after; on Windows GDI+ draws JPEG sheets whole into a 24-bit
    # bitmap (nothing is banded), where transparent pixels keep their colour,
    # while a 32-bit canvas drawn by GDI+ holds them premultiplied, black.
    ImageCodec.JpegSheetDrawnInBandsEqualsTheWholeCanvas)

function(zp_add_windows_tests)
  # The cross-built suite is compiled lighter than the library (no debug
  # information, less optimisation): it is built on every run of the
  # Windows stage, and the engine under test keeps the release flags.
  target_compile_options(zelvarpack_tests PRIVATE -O1 -g0)
  set(prefix ${CMAKE_BINARY_DIR}/wine)
  set(nginx_state ${CMAKE_BINARY_DIR}/loopback-nginx.state)
  # One wineserver for the whole run (-p: it stays up between test
  # processes), the prefix made on first use.
  add_test(NAME wine.start COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-server.sh start ${prefix})
  add_test(NAME wine.stop COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-server.sh stop ${prefix})
  # gtest_discover_tests passes no list-valued property through, so each
  # test requires one fixture name: wine_nginx or wine_postgres.
  set_tests_properties(wine.start PROPERTIES FIXTURES_SETUP "wine_nginx;wine_postgres"
                                             LABELS windows TIMEOUT 300)
  set_tests_properties(wine.stop PROPERTIES FIXTURES_CLEANUP "wine_nginx;wine_postgres"
                                            LABELS windows)
  # The real nginx runs on the build machine; the tests reach it over
  # loopback through WinHTTP.
  add_test(NAME nginx.start COMMAND ${CMAKE_SOURCE_DIR}/scripts/loopback-nginx-fixture.sh start
                                    ${nginx_state})
  add_test(NAME nginx.stop COMMAND ${CMAKE_SOURCE_DIR}/scripts/loopback-nginx-fixture.sh stop
                                   ${nginx_state})
  set_tests_properties(nginx.start PROPERTIES FIXTURES_SETUP wine_nginx LABELS windows)
  set_tests_properties(nginx.stop PROPERTIES FIXTURES_CLEANUP wine_nginx LABELS windows)
  add_test(NAME postgres.start COMMAND ${CMAKE_SOURCE_DIR}/scripts/loopback-postgres.sh start
                                       ${CMAKE_BINARY_DIR}/loopback-postgres.state)
  add_test(NAME postgres.stop COMMAND ${CMAKE_SOURCE_DIR}/scripts/loopback-postgres.sh stop
                                      ${CMAKE_BINARY_DIR}/loopback-postgres.state)
  set_tests_properties(postgres.start PROPERTIES FIXTURES_SETUP wine_postgres LABELS windows)
  set_tests_properties(postgres.stop PROPERTIES FIXTURES_CLEANUP wine_postgres LABELS windows)

  # scripts/wine-run.sh finds the prefix beside the program.
  set(environment "ZP_NGINX_STATE=${nginx_state}")
  string(JOIN ":" excluded ${ZP_WINE_EXCLUDED_TESTS})
  set(filter "-*Postgres*")
  if(excluded)
    set(filter "${filter}:${excluded}")
  endif()
  gtest_discover_tests(zelvarpack_tests DISCOVERY_TIMEOUT 120 DISCOVERY_MODE PRE_TEST
                       TEST_FILTER "${filter}"
                       PROPERTIES LABELS windows FIXTURES_REQUIRED wine_nginx
                                  ENVIRONMENT "${environment}" TIMEOUT 300)
  gtest_discover_tests(zelvarpack_tests DISCOVERY_TIMEOUT 120 DISCOVERY_MODE PRE_TEST
                       TEST_FILTER "*Postgres*"
                       PROPERTIES LABELS windows FIXTURES_REQUIRED wine_postgres
                                  ENVIRONMENT "${environment}" TIMEOUT 300)

  # Parity with the Linux tool (tests/windows/parity.sh) when a Linux build's
  # zelvarpack is named: scripts/test-windows.sh names the default build's.
  # The longest test (about three minutes): started first.
  set(ZP_LINUX_TOOL "" CACHE FILEPATH "The Linux zelvarpack the parity test compares with")
  if(ZP_LINUX_TOOL)
    add_test(NAME windows.parity COMMAND ${CMAKE_SOURCE_DIR}/tests/windows/parity.sh
                                         ${ZP_LINUX_TOOL} $<TARGET_FILE:zelvarpack>)
    set_tests_properties(windows.parity PROPERTIES LABELS windows FIXTURES_REQUIRED wine_nginx
                                                   TIMEOUT 1200 COST 1000)
  endif()

  # The DLL's imports and exports, read with objdump on the build machine.
  if(Python3_Interpreter_FOUND AND ZP_MINGW_OBJDUMP AND ZP_MINGW_CXXFILT)
    add_test(NAME windows.dll_surface
             COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tests/windows/check_dll.py
                     --objdump ${ZP_MINGW_OBJDUMP} --cxxfilt ${ZP_MINGW_CXXFILT}
                     --surface ${CMAKE_SOURCE_DIR}/tests/exports_test.cc --java-entries 30
                     $<TARGET_FILE:ZelvarPackCore> $<TARGET_FILE:zelvarpack>
                     $<TARGET_FILE:zelvarpack_tests>)
    set_tests_properties(windows.dll_surface PROPERTIES LABELS windows)
  endif()
endfunction()
