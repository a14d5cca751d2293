# Toolchain of the board: 32-bit little-endian MIPS, by Debian's cross compiler. What Debian has no
# cross package for lies in the sysroot that scripts/target unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)

get_filename_component(KESTREL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/mipsel-sysroot" ABSOLUTE)
set(CMAKE_C_FLAGS_INIT "-isystem ${KESTREL_SYSROOT}/usr/include -isystem ${KESTREL_SYSROOT}/usr/include/mipsel-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-L${KESTREL_SYSROOT}/usr/lib/mipsel-linux-gnu -static-libstdc++ -static-libgcc")

set(CMAKE_FIND_ROOT_PATH "${KESTREL_SYSROOT}" /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel -L /usr/mipsel-linux-gnu
    -E LD_LIBRARY_PATH=${KESTREL_SYSROOT}/usr/lib/mipsel-linux-gnu)
