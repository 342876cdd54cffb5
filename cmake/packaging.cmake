# Installing and packaging: the library, its public headers, a pkg-config
# file, a CMake package (find_package(ZelvarPack) gives
# ZelvarPack::ZelvarPackCore), the tool, and the jar and the web server
# module when they are built; cpack -G DEB makes a Debian package of it all.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The library's symbol table (cmake/exports.map): only the host surface.
target_link_options(ZelvarPackCore PRIVATE
                    -Wl,--version-script=${CMAKE_SOURCE_DIR}/cmake/exports.map)
set_property(TARGET ZelvarPackCore APPEND PROPERTY LINK_DEPENDS
             ${CMAKE_SOURCE_DIR}/cmake/exports.map)
target_include_directories(ZelvarPackCore INTERFACE
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# The headers a host includes: those of the exported classes, and what they
# include in turn. Each compiles on its own (tests/packaging checks it).
set(ZP_PUBLIC_HEADERS
    export.h html_events.h zelvar_buffer.h zelvar_utils.h meta_finder.h savings_calculator.h
    proxy.h zelvar_html_server.h resource.h zelvar_css_server.h zelvar_js_server.h
    zelvar_image_server.h zelvar_file_server.h zelvar_audio_server.h zelvar_video_server.h)
list(TRANSFORM ZP_PUBLIC_HEADERS PREPEND ${CMAKE_SOURCE_DIR}/include/zelvarpack/)

install(TARGETS ZelvarPackCore EXPORT ZelvarPackTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS zelvarpack RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${ZP_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelvarpack)

set(ZP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZelvarPack)
install(EXPORT ZelvarPackTargets NAMESPACE ZelvarPack:: DESTINATION ${ZP_CMAKE_DIR})
file(WRITE ${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfig.cmake.in
     "@PACKAGE_INIT@\ninclude(\"\${CMAKE_CURRENT_LIST_DIR}/ZelvarPackTargets.cmake\")\n"
     "check_required_components(ZelvarPack)\n")
configure_package_config_file(${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfig.cmake
                              INSTALL_DESTINATION ${ZP_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfig.cmake
              ${CMAKE_BINARY_DIR}/packaging/ZelvarPackConfigVersion.cmake
        DESTINATION ${ZP_CMAKE_DIR})

# pkg-config: the library is linked on its own; what it links itself is
# found through its own dependencies at run time.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/zelvarpack.pc.in
     "prefix=\${pcfiledir}/../..\n"
     "exec_prefix=\${prefix}\n"
     "libdir=\${prefix}/@CMAKE_INSTALL_LIBDIR@\n"
     "includedir=\${prefix}/@CMAKE_INSTALL_INCLUDEDIR@\n\n"
     "Name: zelvarpack\n"
     "Description: Web page acceleration engine (ZelvarPackCore)\n"
     "Version: @PROJECT_VERSION@\n"
     "Cflags: -I\${includedir}\n"
     "Libs: -L\${libdir} -lZelvarPackCore\n")
configure_file(${CMAKE_BINARY_DIR}/packaging/zelvarpack.pc.in
               ${CMAKE_BINARY_DIR}/packaging/zelvarpack.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/zelvarpack.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The Java classes and the web server module, when this build makes them.
if(TARGET zelvarpack_jar)
  get_target_property(ZP_JAR_FILE zelvarpack_jar JAR_FILE)
  if(ZP_JAR_FILE)
    install(FILES ${ZP_JAR_FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/java)
  endif()
endif()
# The module is made by nginx's own build (a custom target), so it is
# installed as the file that build wrote.
if(TARGET ngx_http_zelvarpack_module)
  get_target_property(ZP_NGINX_MODULE_SO ngx_http_zelvarpack_module MODULE_FILE)
  install(FILES ${ZP_NGINX_MODULE_SO} DESTINATION ${CMAKE_INSTALL_LIBDIR}/nginx/modules)
endif()

# The Debian package. Its Depends are computed by dpkg-shlibdeps from what
# the library, the tool and the module really link (libcurl4, zlib1g,
# libpng16-16, libjpeg62-turbo, libgif7, libdeflate0, libodbc2, ...).
set(CPACK_PACKAGE_NAME zelvarpack)
set(CPACK_PACKAGE_VENDOR "ZelvarPack")
set(CPACK_PACKAGE_CONTACT "ZelvarPack developers <dev@zelvarpack.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Web page acceleration engine: library, headers and tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
find_program(ZP_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(ZP_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  # Without dpkg-dev: the runtime packages of the libraries linked above,
  # as Debian 12 names them.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
      "libc6, libstdc++6, libgcc-s1, libcurl4, zlib1g, libpng16-16, libjpeg62-turbo, libgif7, libdeflate0, libodbc2")
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)

if(ZP_TESTS)
  # The saved and the proxied copies of the sample pages in Chromium.
  if(Python3_Interpreter_FOUND)
    add_test(NAME browser.savings_proxy
             COMMAND ${Python3_EXECUTABLE}
                     ${CMAKE_SOURCE_DIR}/tests/browser/run_savings_proxy_tests.py
                     --tool $<TARGET_FILE:zelvarpack>)
    set_tests_properties(browser.savings_proxy PROPERTIES LABELS browser SKIP_RETURN_CODE 77
                                                          TIMEOUT 600 PROCESSORS 2)
  endif()
  add_test(NAME packaging.consumer
           COMMAND ${CMAKE_SOURCE_DIR}/tests/packaging/consumer_test.sh ${CMAKE_BINARY_DIR}
                   ${CMAKE_SOURCE_DIR} ${CMAKE_COMMAND} ${CMAKE_CPACK_COMMAND})
  set_tests_properties(packaging.consumer PROPERTIES LABELS packaging TIMEOUT 600
                                                     SKIP_RETURN_CODE 77)
endif()
