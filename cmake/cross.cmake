# What the toolchain files of the cross builds share: Debian's cross compiler for `triplet`, the libraries that multi-arch
# puts beside the machine's own, and qemu for what the build and the tests run. REQUIRES: triplet, processor, emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(PKG_CONFIG_EXECUTABLE ${triplet}-pkg-config)
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
