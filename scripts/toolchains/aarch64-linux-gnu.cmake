# 64-bit ARM (Debian arm64) with clang: Debian's multiarch packages (android-liblog-dev:arm64,
# libgtest-dev:arm64) and the libstdc++/libc cross dev packages; binutils-aarch64-linux-gnu links.
# Tests run under qemu-user, through the sandbox (see tests/CMakeLists.txt).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_NM aarch64-linux-gnu-nm CACHE FILEPATH "nm for the target")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
