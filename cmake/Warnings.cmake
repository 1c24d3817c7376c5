# lumatie_warnings: what every hand-written target of ours is compiled with. Warnings are errors;
# generated code is compiled without this target, for nobody can mend it.
add_library(lumatie_warnings INTERFACE)
if(MSVC)
    target_compile_options(lumatie_warnings INTERFACE /W4 /WX /permissive- /utf-8)
else()
    target_compile_options(lumatie_warnings INTERFACE
        -Werror -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual
        -Wformat=2 -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wnull-dereference
        -Wdouble-promotion -Wundef
        # Functions like printf cannot be told to be such without extensions; GCC lets them pass.
        $<$<CXX_COMPILER_ID:Clang>:-Wno-format-nonliteral>)
endif()
