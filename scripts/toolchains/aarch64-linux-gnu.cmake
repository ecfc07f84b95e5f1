# 64-bit ARM (Debian arm64) with clang: Debian's multiarch packages (android-liblog-dev:arm64,
# libgtest-dev:arm64) and the libstdc++/libc cross dev packages; binutils-aarch64-linux-gnu links.
# Tests run under qemu-user, through the sandbox (see tests/CMakeLists.txt).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QXRT_TRIPLE aarch64-linux-gnu)
set(QXRT_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/clang-cross.cmake)
