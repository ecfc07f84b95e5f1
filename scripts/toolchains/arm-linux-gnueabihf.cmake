# 32-bit ARM (Debian armhf: ARMv7-A, Thumb-2, VFPv3-D16, hard float) with clang: Debian's
# multiarch packages (android-liblog-dev:armhf, libgtest-dev:armhf) and the libstdc++/libc cross
# dev packages; binutils-arm-linux-gnueabihf links. Tests run under qemu-user, through the sandbox.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
set(CMAKE_NM arm-linux-gnueabihf-nm CACHE FILEPATH "nm for the target")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
