# Small helpers that keep the lists of the folders short.

# zol_sources(VARIABLE folder...): all C++ sources of the folders; a new file is picked up by the next build.
function(zol_sources variable)
    set(found "")
    foreach(folder ${ARGN})
        file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
        list(APPEND found ${files})
    endforeach()
    set(${variable} ${found} PARENT_SCOPE)
endfunction()

# zol_program(name sources...): a program on the shared library, as an application would build it.
function(zol_program name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE zol zol_options)
endfunction()

# zol_test(name [INTERNAL] [TIMEOUT seconds] [LIBS libraries...] SOURCES files...)
# Every test case runs as a process of its own, since the library lives in singletons. INTERNAL links the classes that
# the shared library hides.
function(zol_test name)
    cmake_parse_arguments(arg "INTERNAL" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 300)
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
    if(arg_INTERNAL)
        target_link_libraries(${name} PRIVATE zol_static)
    else()
        target_link_libraries(${name} PRIVATE zol)
    endif()
    target_link_libraries(${name} PRIVATE zol_test_support ${arg_LIBS} GTest::gtest_main zol_options)
    gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 300 PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# zol_asn1_library(name file): the C++ classes that esnacc makes of an ASN.1 file, in the build tree. They are foreign
# code: built without our warnings, and their headers are system headers.
function(zol_asn1_library name file)
    find_program(ESNACC esnacc REQUIRED)
    get_filename_component(base ${file} NAME_WE)
    set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name})
    file(MAKE_DIRECTORY ${folder})
    add_custom_command(
        OUTPUT ${folder}/${base}.cpp ${folder}/${base}.h
        COMMAND ${ESNACC} -C -mo ${folder}/ ${CMAKE_CURRENT_SOURCE_DIR}/${file}
        DEPENDS ${file}
        VERBATIM)
    add_library(${name} STATIC ${folder}/${base}.cpp)
    target_compile_options(${name} PRIVATE -w)
    target_include_directories(${name} SYSTEM PUBLIC ${folder} /usr/include/cxx-lib/inc)
    target_link_libraries(${name} PUBLIC cxxasn1)
endfunction()
