# The library's symbol table (cmake/exports.map): only the host surface.
target_link_options(ZelvarPackCore PRIVATE
                    -Wl,--version-script=${CMAKE_SOURCE_DIR}/cmake/exports.map)
set_property(TARGET ZelvarPackCore APPEND PROPERTY LINK_DEPENDS
             ${CMAKE_SOURCE_DIR}/cmake/exports.map)
