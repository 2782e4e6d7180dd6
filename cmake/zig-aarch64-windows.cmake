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

# zig links libc++ and the mingw CRT statically into every image; say it anyway for symmetry with win64.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# zig's linker driver knows --whole-archive/--no-whole-archive but not --push-state/--pop-state, which CMake
# would otherwise choose for $<LINK_LIBRARY:WHOLE_ARCHIVE,...> after asking the host's ld.
set(_CMAKE_LINKER_PUSHPOP_STATE_SUPPORTED FALSE CACHE INTERNAL "zig's linker driver has no --push-state")

# Nothing built here runs on this machine, and linking a test program would make zig build its C++ runtime
# once more for executables: compiler checks stop at a static library.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
