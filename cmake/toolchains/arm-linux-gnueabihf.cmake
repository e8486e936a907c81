# 32-bit ARM (Debian armhf) with Debian's cross compiler; see debian-cross.cmake.
set(HLS_CROSS_TRIPLE arm-linux-gnueabihf)
set(HLS_CROSS_PROCESSOR arm)
set(HLS_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
