# What a DLL for Windows has beside its code. Nothing of it happens on other systems.
if(MSVC)
    # The runtime library is the DLL, as the interpreter's is. Plain C functions for files and the
    # environment, which this compiler warns about, are what the other platform has, too.
    set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>DLL")
    add_compile_definitions(_CRT_SECURE_NO_WARNINGS)
endif()

# What links with the interpreter. MinGW's linker needs no import library.
set(LUMATIE_WINDOWS_PYTHON_LIBRARY ${LUMATIE_WINDOWS_PYTHON}/libs/python38.lib)
if(MINGW)
    set(LUMATIE_WINDOWS_PYTHON_LIBRARY ${LUMATIE_WINDOWS_PYTHON}/python38.dll)
    # No library of the compiler's has to lie beside what it makes.
    add_link_options(-static)
endif()

# lumatie_finish_dll(<target> <description> EXPORTS <name>... [IMPORTS <DLL>...]): the names that the
# DLL exports, and version information in it. The build fails when it exports others, or needs
# another DLL than those of the system, the C runtime and the named ones.
function(lumatie_finish_dll target description)
    if(NOT WIN32)
        return()
    endif()
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "EXPORTS;IMPORTS")
    set(rc "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${rc}" @ONLY)
    list(JOIN arg_EXPORTS "\n    " lines)
    set(def "${CMAKE_CURRENT_BINARY_DIR}/${target}.def")
    file(CONFIGURE OUTPUT "${def}" CONTENT "EXPORTS\n    @lines@\n" @ONLY)
    target_sources(${target} PRIVATE "${rc}" "${def}")
    if(MINGW)
        # Without the time, the same sources make the same bytes.
        target_link_options(${target} PRIVATE -s LINKER:--no-insert-timestamp)
        set(imports KERNEL32.dll msvcrt.dll ADVAPI32.dll ole32.dll ${arg_IMPORTS})
        add_custom_command(TARGET ${target} POST_BUILD
            COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${CMAKE_OBJDUMP} -DFILE=$<TARGET_FILE:${target}>
                    "-DIMPORTS=${imports}" "-DEXPORTS=${arg_EXPORTS}"
                    -P "${PROJECT_SOURCE_DIR}/cmake/CheckDll.cmake"
            VERBATIM)
    endif()
endfunction()
