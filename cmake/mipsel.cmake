# Toolchain of the board: any 32-bit little-endian MIPS Linux, without a floating-point unit and with
# whatever C library. scripts/cross-toolchain builds it; docs/board.md says why.
# Also for a plug-in: cmake -S plugin -B build/plugin-mipsel --toolchain "$PWD/cmake/mipsel.cmake"
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
get_filename_component(TOOLCHAIN "${CMAKE_CURRENT_LIST_DIR}/../build/mipsel-toolchain" ABSOLUTE)
if(NOT EXISTS "${TOOLCHAIN}/key")
    message(FATAL_ERROR "No toolchain of the board: run scripts/cross-toolchain")
endif()
file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/mipsel.flags" FLAGS)
list(JOIN FLAGS " " FLAGS)
string(REPLACE "@TOOLCHAIN@" "${TOOLCHAIN}" FLAGS "${FLAGS}")

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
foreach(TOOL ar nm objcopy objdump ranlib readelf strip)
    string(TOUPPER ${TOOL} NAME)
    set(CMAKE_${NAME} /usr/bin/mipsel-linux-gnu-${TOOL})
endforeach()
set(CMAKE_C_FLAGS_INIT "${FLAGS} -ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -stdlib=libc++")

# All but the C library is linked in, and shown to nobody: on MIPS the linker exports what passes
# through the table of addresses, and a plug-in would take the service's C++ library for its own.
# -static-libgcc is what chooses the static unwinder.
set(LINK "-rtlib=compiler-rt -unwindlib=libunwind -static-libgcc -static-libstdc++")
set(LINK "${LINK} -Wl,--gc-sections,--exclude-libs,libc++.a:libc++abi.a:libunwind.a")
set(LINK "${LINK} -Wl,--exclude-libs,libclang_rt.builtins-mipsel.a:libhttp_parser.a:libjpeg.a:libmd.a")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${LINK}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${LINK}")
# A thread's stack is what the program's header asks for; the C library's own choice is 128 KiB.
set(LOADER /usr/lib/kestrel-server/lib/ld-musl-mipsel-sf.so.1)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "${LINK} -Wl,-z,stack-size=1048576 -Wl,--dynamic-linker=${LOADER}")

set(CMAKE_FIND_ROOT_PATH "${TOOLCHAIN}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${TOOLCHAIN}/usr/lib/pkgconfig")

# A processor without a floating-point unit; the emulator's usual one has it and would hide a fault.
find_program(KESTREL_QEMU qemu-mipsel)
if(KESTREL_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KESTREL_QEMU} -cpu 24Kc -L ${TOOLCHAIN})
endif()
