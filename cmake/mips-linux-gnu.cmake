# The gateway's target: 32-bit big-endian MIPS Linux, with Debian's cross
# compiler (g++-mips-linux-gnu). Programs built with it run here under
# user-mode emulation (qemu-mips from qemu-user), which ctest uses.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(WD_TARGET_SYSROOT /usr/mips-linux-gnu)
# 64-bit time_t, timeval and stat fields on the 32-bit target (glibc 2.34 and
# later), so that every time and file call of the C library works past
# January 2038. The records the daemon exchanges hold no time_t or off_t.
set(CMAKE_C_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_FIND_ROOT_PATH ${WD_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# -U LD_PRELOAD: a preload of this machine (libfaketime) acts on qemu itself,
# whose clock calls the emulated program then sees; the program must not try
# to load it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L ${WD_TARGET_SYSROOT} -U LD_PRELOAD)
