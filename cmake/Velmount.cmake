# Shared build rules: warnings as errors everywhere, one helper per kind of target.

function(velmount_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unknown-pragmas)
endfunction()

# Line and branch counters in the product's libraries (gcc's --coverage; the host preset), which every test
# program and tool then writes as it ends; scripts/coverage reports them.
option(VELMOUNT_COVERAGE "Count lines and branches of the product's libraries (gcc --coverage)" OFF)
if(VELMOUNT_COVERAGE)
    add_link_options(--coverage)
endif()

# A static library made of every .cpp in a folder (so adding a file needs no list edit).
function(velmount_library name dir)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC vm_win32 ${ARGN})
    velmount_warnings(${name})
    if(VELMOUNT_COVERAGE)
        # Atomic counters: workers count alongside the caller's thread, and counts torn by a race come out
        # as negative branch counts that gcov prints and gcovr can't read.
        target_compile_options(${name} PRIVATE --coverage -fprofile-update=atomic)
    endif()
endfunction()

# Static runtime for anything that runs on Windows: a shell extension imports only system DLLs.
function(velmount_windows_runtime target)
    if(WIN32)
        target_link_options(${target} PRIVATE -static -static-libgcc -static-libstdc++)
    endif()
endfunction()

# Sanitizers for the whole build (GoogleTest included), chosen by the host-asan preset: any report stops the run.
set(VELMOUNT_SANITIZE "" CACHE STRING "Comma-separated -fsanitize= list for every target (empty: none)")
if(VELMOUNT_SANITIZE)
    add_compile_options(-fsanitize=${VELMOUNT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VELMOUNT_SANITIZE} -fno-sanitize-recover=all)
endif()
