# 64-bit ARM (Debian arm64) with Debian's cross compiler; see debian-cross.cmake.
set(HLS_CROSS_TRIPLE aarch64-linux-gnu)
set(HLS_CROSS_PROCESSOR aarch64)
set(HLS_CROSS_QEMU qemu-aarch64)
# A 64-bit program under qemu-user maps straight into the host's address
# space; a test that fills its address space to run out of memory would fill
# the host's. Give it 4 GiB of its own, as a 32-bit program always has.
set(HLS_CROSS_QEMU_OPTIONS -R 4G)
# Debian's arm64 kernels use 4 KiB pages. The linker's default alignment for
# 64 KiB pages pads the library's file by about 52 KiB of zeros; drop this
# for a kernel with 64 KiB pages.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
