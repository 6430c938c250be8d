# Compiler settings that every target of the project shares, as the interface target zol_options.

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

if(ZOL_SANITIZE)
    # enough for line numbers in reports; compiles in half of the time
    set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")
else()
    set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")
endif()

add_library(zol_options INTERFACE)
target_compile_options(zol_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Woverloaded-virtual
    -Werror)

if(ZOL_SANITIZE)
    add_compile_options(-fsanitize=${ZOL_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZOL_SANITIZE})
    if(ZOL_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    if(ZOL_SANITIZE MATCHES "thread")
        # g++ 12 warns of atomic_thread_fence under this sanitizer inside the standard library itself
        add_compile_options(-Wno-tsan)
    endif()
    add_compile_definitions(ZOL_SANITIZED)
endif()
if(ZOL_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
