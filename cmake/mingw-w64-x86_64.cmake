# Windows x64 with Debian's mingw-w64 (POSIX thread model, so std::thread and std::mutex exist).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELMOUNT_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VELMOUNT_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VELMOUNT_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VELMOUNT_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${VELMOUNT_MINGW_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${VELMOUNT_MINGW_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH /usr/${VELMOUNT_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Everything that runs on Windows carries its C, C++ and thread runtimes inside: the DLL is loaded into the file
# manager, and the test executables run under Wine without mingw's DLLs on any path.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test executables (and GoogleTest's discovery) run under Wine in this build's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run)
