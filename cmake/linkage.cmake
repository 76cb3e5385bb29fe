# How much of the system the programs have linked in, as one linkable target.
add_library(linkage INTERFACE)
if(VORN_STATIC)
    target_link_options(linkage INTERFACE $<IF:$<BOOL:${VORN_HARDEN}>,-static-pie,-static>)
elseif(VORN_STATIC_RUNTIME)
    target_link_options(linkage INTERFACE -static-libgcc -static-libstdc++)
endif()
