# 64-bit ARM (Debian arm64) with Debian's cross compiler; see debian-cross.cmake.
set(HLS_CROSS_TRIPLE aarch64-linux-gnu)
set(HLS_CROSS_PROCESSOR aarch64)
set(HLS_CROSS_QEMU qemu-aarch64)
# A 64-bit program under qemu-user maps straight into the host's address
# space; a test that fills its address space to run out of memory would fill
# the host's. Give it 4 GiB of its own, as a 32-bit program always has.
set(HLS_CROSS_QEMU_OPTIONS -R 4G)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
