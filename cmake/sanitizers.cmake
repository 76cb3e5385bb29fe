# The sanitizers named by VORN_SANITIZE, as one linkable target; empty when none is named.
add_library(sanitizers INTERFACE)
if(VORN_SANITIZE)
    target_compile_options(sanitizers INTERFACE
        -fsanitize=${VORN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(sanitizers INTERFACE -fsanitize=${VORN_SANITIZE})
endif()
