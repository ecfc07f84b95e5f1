# 32-bit ARM (Debian armhf: ARMv7-A, Thumb-2, VFPv3-D16, hard float) with clang: Debian's
# multiarch packages (android-liblog-dev:armhf, libgtest-dev:armhf) and the libstdc++/libc cross
# dev packages; binutils-arm-linux-gnueabihf links. Tests run under qemu-user, through the sandbox.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(QXRT_TRIPLE arm-linux-gnueabihf)
set(QXRT_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/clang-cross.cmake)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
