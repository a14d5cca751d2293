# What every program links that goes onto the board with a package; tests do not.
add_library(kestrel_shipped INTERFACE)
if(CMAKE_CROSSCOMPILING)
    # On MIPS the linker exports what passes through the table of addresses: none of our libraries'
    # names may be taken by a plug-in for its own.
    target_link_options(kestrel_shipped INTERFACE -Wl,--exclude-libs,ALL)
endif()
