# A wheel that is made of a source distribution: one module, for the interpreter that makes it.

# The names of Canon's library, and nothing behind them: all that linking takes. So no picture of a
# virtual camera has to be compiled, nor what that takes be there.
file(STRINGS "${PROJECT_SOURCE_DIR}/virtual/canon/exports.txt" names REGEX "^Eds")
list(TRANSFORM names REPLACE "(.+)" "void \\1(void) {}")
list(JOIN names "\n" code)
set(source "${CMAKE_CURRENT_BINARY_DIR}/canon_names.c")
file(CONFIGURE OUTPUT "${source}" CONTENT "@code@\n" @ONLY)
add_library(EDSDK SHARED "${source}")
set_target_properties(EDSDK PROPERTIES
    C_VISIBILITY_PRESET default WINDOWS_EXPORT_ALL_SYMBOLS TRUE)
if(WIN32)
    set_target_properties(EDSDK PROPERTIES PREFIX "")
endif()

function(lumatie_add_package tag include_dir suffix)
    lumatie_add_binding(binding${tag} ${include_dir})
    lumatie_add_wheel_module(${tag} ${suffix})
    set_target_properties(_Lumatie_wheel${tag} PROPERTIES EXCLUDE_FROM_ALL FALSE)
    install(TARGETS _Lumatie_wheel${tag} LIBRARY DESTINATION .)
    install(FILES ${LUMATIE_PYTHON_DIR}/Lumatie.py DESTINATION .)
    install(FILES Lumatie.pyi DESTINATION Lumatie-stubs RENAME __init__.pyi)
    install(FILES _Lumatie.pyi DESTINATION _Lumatie-stubs RENAME __init__.pyi)
endfunction()
