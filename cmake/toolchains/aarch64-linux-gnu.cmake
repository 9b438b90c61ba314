# Cross-compiles for AArch64 on another Debian machine, with the multiarch libraries that
# scripts/setup --arm64 puts there; what has to run, the tests above all, runs under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# Development packages that do not go beside this machine's own are unpacked here.
set(beside ${CMAKE_CURRENT_LIST_DIR}/../../build/arm64-packages)
list(APPEND CMAKE_PREFIX_PATH ${beside}/usr)
set(ENV{PKG_CONFIG_LIBDIR}
    /usr/lib/aarch64-linux-gnu/pkgconfig:${beside}/usr/lib/aarch64-linux-gnu/pkgconfig)
