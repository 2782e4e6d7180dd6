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

# The time stamp every Windows image carries: the commit's (SOURCE_DATE_EPOCH when set), never the build's, so
# that two builds of one commit agree. Each commit reconfigures, and so relinks, with its own.
set(VELMOUNT_SOURCE_DATE_EPOCH 0)
if(WIN32)
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        set(VELMOUNT_SOURCE_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
    else()
        execute_process(COMMAND git log -1 --format=%ct HEAD WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                        OUTPUT_VARIABLE commit_time OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
        execute_process(COMMAND git rev-parse --absolute-git-dir WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                        OUTPUT_VARIABLE git_dir OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        if(NOT failed AND commit_time MATCHES "^[0-9]+$")
            set(VELMOUNT_SOURCE_DATE_EPOCH ${commit_time})
        endif()
        if(git_dir AND EXISTS ${git_dir}/logs/HEAD)
            set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${git_dir}/logs/HEAD)
        endif()
    endif()
    if(NOT VELMOUNT_SOURCE_DATE_EPOCH MATCHES "^[0-9]+$" OR VELMOUNT_SOURCE_DATE_EPOCH GREATER 4294967295)
        message(FATAL_ERROR "SOURCE_DATE_EPOCH is not a 32-bit count of seconds: ${VELMOUNT_SOURCE_DATE_EPOCH}")
    endif()
endif()

# Paths in debug information (and in __FILE__) begin with /velmount where the repository is, whatever folder the
# clone is in (cmake/relative-paths), and the linker places what it names relative to the build folder at the
# build folder's place below that. A debugger's source path maps the one root to a checkout.
if(WIN32)
    foreach(lang C CXX)
        set(CMAKE_${lang}_COMPILER_LAUNCHER ${CMAKE_CURRENT_LIST_DIR}/relative-paths)
        set(CMAKE_${lang}_LINKER_LAUNCHER ${CMAKE_CURRENT_LIST_DIR}/relative-paths)
    endforeach()
    file(RELATIVE_PATH VELMOUNT_DEBUG_BUILD_DIR ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
    set(VELMOUNT_PDB_SOURCE_PATH /velmount/${VELMOUNT_DEBUG_BUILD_DIR})
endif()

# Static runtime for anything that runs on Windows: a shell extension imports only system DLLs. Every image gets
# its PDB beside it, named after it, and its debug directory names only that file name: a debugger finds it
# through its symbol path, and no build folder ends up in what ships.
function(velmount_windows_runtime target)
    if(NOT WIN32)
        return()
    endif()
    target_link_options(${target} PRIVATE -static -static-libgcc -static-libstdc++)
    # Both linkers are lld-link underneath (zig's wrapper passes --Xlink on as lld's MinGW driver does).
    target_link_options(${target} PRIVATE LINKER:--Xlink=-pdbaltpath:%_PDB%
                        LINKER:--Xlink=-timestamp:${VELMOUNT_SOURCE_DATE_EPOCH}
                        LINKER:--Xlink=-pdbsourcepath:${VELMOUNT_PDB_SOURCE_PATH})
    if(VELMOUNT_LINKER STREQUAL "lld-mingw")
        target_link_options(${target} PRIVATE LINKER:--pdb=)
        # The DWARF of libstdc++'s and libgcc's own objects reaches the image whatever the linker is told to
        # strip; the PDB holds what a debugger needs. Removing it leaves the debug directory as it is.
        add_custom_command(TARGET ${target} POST_BUILD COMMAND ${VELMOUNT_OBJCOPY} --strip-debug $<TARGET_FILE:${target}>
                           VERBATIM)
    endif()
endfunction()

# Sanitizers for the whole build (GoogleTest included), chosen by the host-asan preset: any report stops the run.
set(VELMOUNT_SANITIZE "" CACHE STRING "Comma-separated -fsanitize= list for every target (empty: none)")
if(VELMOUNT_SANITIZE)
    add_compile_options(-fsanitize=${VELMOUNT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VELMOUNT_SANITIZE} -fno-sanitize-recover=all)
endif()
