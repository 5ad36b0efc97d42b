set(triplet arm-linux-gnueabihf)
set(processor armv7l)
set(emulator qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
