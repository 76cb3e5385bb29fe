# What the compiler and the linker can do against memory errors that an attacker's stream might
# find, for every target: a position-independent executable whose relocations are read-only before
# main, stack protectors, checked C library calls, and branch targets that the processor checks.
if(VORN_HARDEN)
    include(CheckCXXCompilerFlag)
    if(NOT VORN_STATIC) # which has a link option of its own, see linkage.cmake
        include(CheckPIESupported)
        check_pie_supported(LANGUAGES CXX)
    endif()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)

    add_compile_options(-fstack-protector-strong)
    add_compile_definitions(_FORTIFY_SOURCE=2)
    add_link_options(LINKER:-z,relro,-z,now)

    check_cxx_compiler_flag(-fcf-protection=full VORN_HAS_CF_PROTECTION) # x86 only
    if(VORN_HAS_CF_PROTECTION)
        add_compile_options(-fcf-protection=full)
    endif()
endif()
