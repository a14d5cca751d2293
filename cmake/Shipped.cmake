# What every program links that goes onto the board with a package; tests do not.
add_library(kestrel_shipped INTERFACE)
if(CMAKE_CROSSCOMPILING)
    # On MIPS the linker exports what passes through the table of addresses: none of our libraries'
    # names may be taken by a plug-in for its own.
    target_link_options(kestrel_shipped INTERFACE -Wl,--exclude-libs,ALL)
endif()

# For programs of libraries that are headers alone: what is inline in them would be exported there,
# whether anybody calls it or not.
add_library(kestrel_shipped_headers INTERFACE)
target_link_libraries(kestrel_shipped_headers INTERFACE kestrel_shipped)
if(CMAKE_CROSSCOMPILING)
    target_link_options(kestrel_shipped_headers
        INTERFACE -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/nothing.map)
endif()
