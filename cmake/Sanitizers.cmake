# Applies LUMATIE_SANITIZE to every target of the tree.
if(LUMATIE_SANITIZE)
    add_compile_options(-fsanitize=${LUMATIE_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${LUMATIE_SANITIZE})
endif()
if(NOT MSVC)
    # A library with unique symbols is never unloaded again.
    add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-gnu-unique>)
endif()
