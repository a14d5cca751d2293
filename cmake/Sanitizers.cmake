# The sanitizers chosen with KESTREL_SANITIZE. The preloaded camera library never links this target:
# it is loaded behind the sanitizer's own library and must bring none of its own.
add_library(kestrel_sanitizers INTERFACE)
if(KESTREL_SANITIZE)
    target_compile_options(kestrel_sanitizers INTERFACE
        -fsanitize=${KESTREL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    if(KESTREL_SANITIZE MATCHES "undefined")
        # The vptr check probes memory through a pipe: out of descriptors, which has a test, it
        # reports sound objects.
        target_compile_options(kestrel_sanitizers INTERFACE -fno-sanitize=vptr)
    endif()
    target_link_options(kestrel_sanitizers INTERFACE -fsanitize=${KESTREL_SANITIZE})
endif()
