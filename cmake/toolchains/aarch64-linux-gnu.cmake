# 64-bit ARM (Debian arm64) with Debian's cross compiler; see debian-cross.cmake.
set(HLS_CROSS_TRIPLE aarch64-linux-gnu)
set(HLS_CROSS_PROCESSOR aarch64)
set(HLS_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
