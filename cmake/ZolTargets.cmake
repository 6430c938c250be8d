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
        set(arg_TIMEOUT 60)
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
    if(arg_INTERNAL)
        target_link_libraries(${name} PRIVATE zol_static)
    else()
        target_link_libraries(${name} PRIVATE zol)
    endif()
    target_link_libraries(${name} PRIVATE zol_test_support ${arg_LIBS} GTest::gtest_main zol_options)
    gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()
