# Windows x64 with Debian's clang and lld against mingw-w64's headers and CRT and gcc's libstdc++ (POSIX thread
# model, so std::thread and std::mutex exist). LLVM's linker writes a PDB beside every image; g++ and GNU ld
# cannot. Everything that runs on Windows carries its C, C++ and thread runtimes inside: the DLL is loaded into
# the file manager, and the test programs run under Wine without mingw's DLLs on any path.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELMOUNT_MINGW_TRIPLE x86_64-w64-mingw32)
set(VELMOUNT_MINGW_SYSROOT /usr/${VELMOUNT_MINGW_TRIPLE})
# gcc's libstdc++ for this target; clang 14 does not look in Debian's "12-posix" folder by itself.
file(GLOB VELMOUNT_LIBSTDCXX_DIRS LIST_DIRECTORIES TRUE /usr/lib/gcc/${VELMOUNT_MINGW_TRIPLE}/*-posix)
list(SORT VELMOUNT_LIBSTDCXX_DIRS COMPARE NATURAL ORDER DESCENDING)
list(GET VELMOUNT_LIBSTDCXX_DIRS 0 VELMOUNT_LIBSTDCXX_DIR)
if(NOT IS_DIRECTORY ${VELMOUNT_LIBSTDCXX_DIR}/include/c++)
    message(FATAL_ERROR "no POSIX-threads libstdc++ for ${VELMOUNT_MINGW_TRIPLE} (package g++-mingw-w64-x86-64-posix)")
endif()

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${VELMOUNT_MINGW_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${VELMOUNT_MINGW_TRIPLE})
set(CMAKE_SYSROOT ${VELMOUNT_MINGW_SYSROOT})
set(CMAKE_RC_COMPILER ${VELMOUNT_MINGW_TRIPLE}-windres)
set(CMAKE_AR llvm-ar CACHE FILEPATH "")
set(VELMOUNT_OBJCOPY llvm-objcopy)
# Which linker driver cmake/Velmount.cmake gives the PDB and time stamp options to.
set(VELMOUNT_LINKER lld-mingw)
set(CMAKE_RANLIB llvm-ranlib CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH ${VELMOUNT_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers: libstdc++'s, clang's own, then mingw-w64's from the sysroot; never the host's /usr/include.
# Thread-locals are emulated, as gcc's libstdc++ has them: code inlined from its headers reaches its thread-locals
# through __emutls_get_address, and a native access would find no such symbol. CodeView debug information,
# which the PDB is made of.
set(_velmount_cxx_headers "-nostdinc++")
foreach(dir include/c++ include/c++/${VELMOUNT_MINGW_TRIPLE} include/c++/backward)
    string(APPEND _velmount_cxx_headers " -isystem ${VELMOUNT_LIBSTDCXX_DIR}/${dir}")
endforeach()
set(CMAKE_C_FLAGS_INIT "-femulated-tls -gcodeview")
set(CMAKE_CXX_FLAGS_INIT "${_velmount_cxx_headers} -femulated-tls -gcodeview")

# lld, static runtimes, libstdc++'s folder (also libgcc's); winpthreads statically, which gcc's driver would add
# itself. LIBRARY_PATH is the host's and must not add folders to a Windows link. CMake repeats the compile flags
# on link lines, where clang would call each one unused.
unset(ENV{LIBRARY_PATH})
set(_velmount_link "-Qunused-arguments -fuse-ld=lld -static -static-libgcc -static-libstdc++ -L${VELMOUNT_LIBSTDCXX_DIR}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_velmount_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_velmount_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_velmount_link}")
set(CMAKE_C_STANDARD_LIBRARIES "-Wl,-Bstatic -lpthread" CACHE STRING "")
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,-Bstatic -lpthread" CACHE STRING "")

# lld's MinGW driver knows --whole-archive/--no-whole-archive but not --push-state/--pop-state, which CMake would
# otherwise choose for $<LINK_LIBRARY:WHOLE_ARCHIVE,...> after asking the host's ld.
set(_CMAKE_LINKER_PUSHPOP_STATE_SUPPORTED FALSE CACHE INTERNAL "lld's MinGW driver has no --push-state")

# Test executables (and GoogleTest's discovery) run under Wine in this build's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run)
