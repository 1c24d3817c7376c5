# What the compiler and the linker do against errors that are left. tests/packaging reads the built
# files for it. MinGW's linker marks each DLL for random addresses and pages without code by itself.
if(NOT WIN32 AND NOT LUMATIE_SANITIZE AND NOT LUMATIE_FUZZ)
    add_compile_options(-fstack-protector-strong)
    add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
    # The C library's checks are for optimised code, and it says so otherwise.
    if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
        add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
endif()
