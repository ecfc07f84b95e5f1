# What the clang cross toolchains share: clang for the target triple QXRT_TRIPLE (Debian's
# multiarch name), the target's nm, and qemu-user (QXRT_QEMU) to run the tests through the sandbox.
# A toolchain file sets CMAKE_SYSTEM_PROCESSOR, QXRT_TRIPLE and QXRT_QEMU, then includes this one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${QXRT_TRIPLE})
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${QXRT_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${QXRT_TRIPLE})
set(CMAKE_NM ${QXRT_TRIPLE}-nm CACHE FILEPATH "nm for the target")
set(CMAKE_CROSSCOMPILING_EMULATOR ${QXRT_QEMU})
