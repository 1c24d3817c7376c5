# Runs the wrapper generator. The version is pinned: the texts of the method and type tables are
# part of what hosts see, and other versions write others, in another order.
set(LUMATIE_SWIG_VERSION 4.0.2)

if(NOT LUMATIE_SWIG)
    unset(LUMATIE_SWIG CACHE)  # one that is empty would stay so
    find_program(LUMATIE_SWIG swig)
endif()
if(NOT LUMATIE_SWIG)
    message(FATAL_ERROR "SWIG ${LUMATIE_SWIG_VERSION} is needed; name it with -DLUMATIE_SWIG=<path>, "
        "or let ./run build fetch it.")
endif()

# The program that comes out of a Python wheel lies beside its library but does not find it.
get_filename_component(swig_root "${LUMATIE_SWIG}" DIRECTORY)
set(swig_library "${swig_root}/../share/swig/${LUMATIE_SWIG_VERSION}")
set(swig_command "${LUMATIE_SWIG}")
if(EXISTS "${swig_library}/swig.swg")
    set(swig_command ${CMAKE_COMMAND} -E env "SWIG_LIB=${swig_library}" "${LUMATIE_SWIG}")
endif()

execute_process(COMMAND ${swig_command} -version OUTPUT_VARIABLE swig_says RESULT_VARIABLE swig_failed)
string(REGEX MATCH "SWIG Version ([0-9.]+)" ignored "${swig_says}")
if(swig_failed OR NOT CMAKE_MATCH_1 STREQUAL LUMATIE_SWIG_VERSION)
    message(FATAL_ERROR "${LUMATIE_SWIG} is SWIG '${CMAKE_MATCH_1}', but the module is generated with "
        "SWIG ${LUMATIE_SWIG_VERSION} and no other version: see docs/decisions.md.")
endif()

# lumatie_generate_wrapper(<interface> INCLUDED <its header> WRAPPER <variable for the C++ file>
#                          PROXY_DIR <folder>)
function(lumatie_generate_wrapper interface)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "INCLUDED;WRAPPER;PROXY_DIR" "")
    get_filename_component(name ${interface} NAME_WE)
    set(wrapper ${CMAKE_CURRENT_BINARY_DIR}/${name}_wrap.cpp)
    file(MAKE_DIRECTORY ${arg_PROXY_DIR})
    add_custom_command(
        OUTPUT ${wrapper}
        BYPRODUCTS ${arg_PROXY_DIR}/${name}.py
        COMMAND ${swig_command} -python -c++ -Wall -Werror
                -outdir ${arg_PROXY_DIR} -o ${wrapper} ${interface}
        DEPENDS ${interface} ${arg_INCLUDED}
        COMMENT "Generating ${name}_wrap.cpp and ${name}.py"
        VERBATIM)
    # One target owns the command, so that the modules built from it do not run it side by side.
    add_custom_target(${name}_wrapper DEPENDS ${wrapper})
    set(${arg_WRAPPER} ${wrapper} PARENT_SCOPE)
endfunction()
