# The Windows build (cmake/mingw-w64.cmake, preset "windows"): one
# ZelvarPackCore.dll that imports from Windows system DLLs only. The C and
# C++ runtimes of the compiler, winpthread and zlib are linked in statically;
# HTTP, images, identifiers and the store go through the system's WinHTTP,
# GDI+, ole32 and ODBC32.

add_link_options(-static -static-libgcc -static-libstdc++)
# Windows headers: no min/max macros, the Windows 7 API surface; 64-bit
# off_t, stat and lseek in the C runtime, as on 64-bit Linux.
add_compile_definitions(NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0601
                        _FILE_OFFSET_BITS=64)

# Windows system libraries behind the seams (import libraries of the mingw
# root; each names a DLL that every Windows installation carries).
set(ZP_WINDOWS_SYSTEM_LIBS winhttp gdiplus odbc32 ole32 oleaut32 uuid shlwapi ws2_32 crypt32)

# The DLL keeps its Windows name (no "lib" prefix); its import library
# beside it is ZelvarPackCore.dll.a.
set(ZP_LIBRARY_OUTPUT_NAME ZelvarPackCore)
