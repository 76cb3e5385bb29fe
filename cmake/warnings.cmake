# The warnings that every target of the project is compiled with, as one linkable target.
add_library(warnings INTERFACE)
target_compile_options(warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${VORN_WERROR}>:-Werror>)
