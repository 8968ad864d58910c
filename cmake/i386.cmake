# Toolchain for the device target: 32-bit x86 Linux (-m32) on a Debian host
# with g++-multilib and the :i386 development packages.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# 64-bit file offsets, inode numbers and time: a 32-bit process must read
# directories whose entries carry 64-bit offsets or inode numbers (glibc's
# readdir fails with EOVERFLOW otherwise, and a subscription scan would
# silently find nobody), and the device's clocks outlive 2038.
set(TARN_I386_DEFINES "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_C_FLAGS_INIT "-m32 ${TARN_I386_DEFINES}")
set(CMAKE_CXX_FLAGS_INIT "-m32 ${TARN_I386_DEFINES}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
set(CMAKE_PREFIX_PATH /usr/lib/i386-linux-gnu/cmake)
