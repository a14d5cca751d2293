# Toolchain of the board: 32-bit little-endian MIPS, by Debian's cross compiler, or by another one
# whose programs' prefix is given as KESTREL_CROSS. What Debian has no cross package for lies in the
# sysroot that scripts/target unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(KESTREL_CROSS mipsel-linux-gnu- CACHE STRING "Prefix of the cross compiler's programs")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_CROSS)
set(CMAKE_C_COMPILER ${KESTREL_CROSS}gcc)
set(CMAKE_CXX_COMPILER ${KESTREL_CROSS}g++)

get_filename_component(KESTREL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/mipsel-sysroot" ABSOLUTE)
set(INCLUDE ${KESTREL_SYSROOT}/usr/include)
set(CMAKE_C_FLAGS_INIT "-isystem ${INCLUDE} -isystem ${INCLUDE}/mipsel-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
# Not libgcc: the C library loads the shared one to cancel a thread, and a second unwinder in the
# program makes that abort.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++")
set(HTTP_PARSER_LIBRARY ${KESTREL_SYSROOT}/usr/lib/mipsel-linux-gnu/libhttp_parser.a
    CACHE FILEPATH "")
set(JPEG_LIBRARY ${KESTREL_SYSROOT}/usr/lib/mipsel-linux-gnu/libjpeg.a CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH "${KESTREL_SYSROOT}" /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KESTREL_QEMU qemu-mipsel REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KESTREL_QEMU} -L /usr/mipsel-linux-gnu)
