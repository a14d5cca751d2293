# The warnings that every target of ours is built with.
add_library(kestrel_warnings INTERFACE)
target_compile_options(kestrel_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wformat=2 -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
