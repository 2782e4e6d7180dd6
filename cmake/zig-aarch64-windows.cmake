# Windows on ARM64 with zig 0.11 (clang 16 + mingw-w64 headers and CRT + libc++), installed by scripts/setup.
# The compilers are small wrappers in cmake/zig/ that add the target and keep zig's caches in the build directory.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ARM64)

set(VELMOUNT_ZIG_WRAPPERS ${CMAKE_CURRENT_LIST_DIR}/zig)
set(CMAKE_C_COMPILER ${VELMOUNT_ZIG_WRAPPERS}/aarch64-windows-gnu-cc)
set(CMAKE_CXX_COMPILER ${VELMOUNT_ZIG_WRAPPERS}/aarch64-windows-gnu-c++)
set(CMAKE_RC_COMPILER ${VELMOUNT_ZIG_WRAPPERS}/aarch64-windows-gnu-windres)
set(CMAKE_AR ${VELMOUNT_ZIG_WRAPPERS}/aarch64-windows-gnu-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${VELMOUNT_ZIG_WRAPPERS}/aarch64-windows-gnu-ranlib CACHE FILEPATH "")

# Nothing from the host may leak in; zig brings its own sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# zig compiles through temporary files whose names clang would keep in each object's CodeView build record, with
# the rest of its command line: two builds of one commit would never give the same PDB.
set(CMAKE_C_FLAGS_INIT "-gno-codeview-command-line")
set(CMAKE_CXX_FLAGS_INIT "-gno-codeview-command-line")
# Which linker driver cmake/Velmount.cmake gives the PDB and time stamp options to (lld-link, through the wrapper).
set(VELMOUNT_LINKER zig)

# zig links libc++ and the mingw CRT statically into every image; say it anyway for symmetry with win64.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# zig's linker driver knows --whole-archive/--no-whole-archive but not --push-state/--pop-state, which CMake
# would otherwise choose for $<LINK_LIBRARY:WHOLE_ARCHIVE,...> after asking the host's ld.
set(_CMAKE_LINKER_PUSHPOP_STATE_SUPPORTED FALSE CACHE INTERNAL "zig's linker driver has no --push-state")

# Test programs run under ARM64 Wine on qemu-user, in this build's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run)

# Linking a test program for each compiler check would make zig build its C++ runtime once more: compiler checks
# stop at a static library.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# The compiler is known: zig 0.11 is clang 16 with GNU-style options. CMake's identification and ABI runs link
# test programs, and zig builds its whole C and C++ runtime for executables to link the first one (minutes on
# two cores), a runtime this build never uses: the DLL needs its own. So they are skipped, as for a compiler
# CMake is told about rather than asked.
foreach(lang C CXX)
    set(CMAKE_${lang}_COMPILER_ID Clang)
    set(CMAKE_${lang}_COMPILER_VERSION 16.0.6)
    set(CMAKE_${lang}_COMPILER_FRONTEND_VARIANT GNU)
    set(CMAKE_${lang}_COMPILER_ID_RUN TRUE)
    set(CMAKE_${lang}_COMPILER_FORCED TRUE)
    set(CMAKE_${lang}_STANDARD_COMPUTED_DEFAULT 17)
    set(CMAKE_${lang}_EXTENSIONS_COMPUTED_DEFAULT ON)
endforeach()
set(CMAKE_SIZEOF_VOID_P 8)
# Nor does CMake learn the language levels it may ask for (GoogleTest asks for C++14): clang 16 has all of these.
set(CMAKE_C_COMPILE_FEATURES c_std_90 c_std_99 c_std_11 c_std_17)
set(CMAKE_CXX_COMPILE_FEATURES cxx_std_98 cxx_std_11 cxx_std_14 cxx_std_17 cxx_std_20)
# Threads are Windows' own (zig's libc++ uses the Win32 thread API): nothing to link for them. FindThreads would
# otherwise trust a check that only compiles and name a pthreads library zig does not have.
set(CMAKE_HAVE_LIBC_PTHREAD 1 CACHE INTERNAL "Windows threads need no library")
