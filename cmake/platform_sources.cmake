# Sources that differ between the POSIX build and the Windows build. Each
# seam keeps its POSIX file under its own name and gets a Windows file named
# <name>_win.cc (or codec_gdiplus*.cc for the image codec) beside it; the
# shared headers stay the same for both.
#
# ZP_POSIX_ONLY_SOURCES: left out of the Windows build.
# ZP_WINDOWS_SOURCES: left out of every other build. The image codec's GDI+
# files may be split into codec_gdiplus_*.cc; the pattern below takes them.

set(ZP_POSIX_ONLY_SOURCES
    # Cache file sharing and publishing, identifiers, the file stream.
    core/file_lock.cc
    core/cache_files.cc
    core/random_source.cc
    core/zelvar_stream.cc
    # Where the ODBC drivers are and how they name files.
    store/odbc_host.cc
    # HTTP through libcurl.
    net/http_client.cc
    # Images through libpng, libjpeg and giflib (sniffing, image/codec_draw.cc,
    # is shared).
    image/codec_png.cc
    image/codec_jpeg.cc
    image/codec_gif.cc
    # Drawing into sheets (GDI+ draws them on Windows).
    image/codec_draw_scaled.cc)

set(ZP_WINDOWS_SOURCES
    core/file_lock_win.cc
    core/cache_files_win.cc
    core/random_source_win.cc
    core/zelvar_stream_win.cc
    store/odbc_host_win.cc
    net/http_client_win.cc
    image/codec_gdiplus.cc)
set(ZP_WINDOWS_SOURCE_PATTERN "(_win(_test)?\\.cc|/codec_gdiplus[_a-z0-9]*\\.cc)$")

# Tests of the POSIX-only parts that cannot run against the Windows ones.
set(ZP_POSIX_ONLY_TESTS
    image/codec_png_test.cc
    # Reads the ELF symbol table with nm; the DLL's is checked by
    # tests/windows/check_dll.py with objdump on the build machine.
    tests/exports_test.cc
    # Start the tool's server with fork and exec and stop it with SIGTERM.
    tools/serve_command_test.cc)

# zp_platform_filter(<list variable>): drops from the list what does not
# belong to the platform being built.
function(zp_platform_filter list_var)
  set(kept "")
  foreach(src IN LISTS ${list_var})
    file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${src})
    if(WIN32)
      if(rel IN_LIST ZP_POSIX_ONLY_SOURCES OR rel IN_LIST ZP_POSIX_ONLY_TESTS)
        continue()
      endif()
    elseif(src MATCHES "${ZP_WINDOWS_SOURCE_PATTERN}")
      continue()
    endif()
    list(APPEND kept ${src})
  endforeach()
  set(${list_var} ${kept} PARENT_SCOPE)
endfunction()
