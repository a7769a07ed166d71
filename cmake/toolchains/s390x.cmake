# Big-endian 64-bit: Debian's cross compiler and libraries for s390x. Build with KYTFER_STATIC, because the dynamic
# loader of this architecture fails in the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x-static)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/s390x-linux-gnu/pkgconfig:/usr/share/pkgconfig)
