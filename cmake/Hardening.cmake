# What makes a mistake in memory harder to exploit, in the builds that are shipped: guarded stacks,
# checked library functions, a program at a random address whose relocations are read-only once it
# runs. scripts/lib/check-hardening lists what a binary has of it. Debug builds go without: checked
# functions need an optimiser, and the sanitizers see more.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)

set(KESTREL_SHIPPED "$<CONFIG:Release,MinSizeRel,RelWithDebInfo>")

check_cxx_compiler_flag(-fstack-protector-strong KESTREL_HAS_STACK_PROTECTOR)
if(KESTREL_HAS_STACK_PROTECTOR)
    add_compile_options($<${KESTREL_SHIPPED}:-fstack-protector-strong>)
endif()

# Undefined first: some compilers define it themselves.
add_compile_options("$<${KESTREL_SHIPPED}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")

foreach(FLAG relro now)
    check_linker_flag(CXX -Wl,-z,${FLAG} KESTREL_HAS_${FLAG})
    if(KESTREL_HAS_${FLAG})
        add_link_options($<${KESTREL_SHIPPED}:-Wl,-z,${FLAG}>)
    endif()
endforeach()

check_linker_flag(CXX -pie KESTREL_HAS_PIE)
if(KESTREL_HAS_PIE)
    # Shared libraries, and what is linked into them, are position-independent already.
    set(PROGRAM "$<IN_LIST:$<TARGET_PROPERTY:TYPE>,EXECUTABLE;STATIC_LIBRARY>")
    set(NOT_PIC "$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>")
    add_compile_options("$<$<AND:${KESTREL_SHIPPED},${PROGRAM},${NOT_PIC}>:-fPIE>")
    add_link_options("$<$<AND:${KESTREL_SHIPPED},$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>>:-pie>")
endif()
