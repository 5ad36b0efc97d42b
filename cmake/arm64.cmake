set(triplet aarch64-linux-gnu)
set(processor aarch64)
set(emulator qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
