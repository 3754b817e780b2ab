# The gateway's target: 32-bit big-endian MIPS Linux, with Debian's cross
# compiler (g++-mips-linux-gnu). Programs built with it run here under
# user-mode emulation (qemu-mips from qemu-user), which ctest uses.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(WD_TARGET_SYSROOT /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${WD_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# -U LD_PRELOAD: a preload of this machine (libfaketime) acts on qemu itself,
# whose clock calls the emulated program then sees; the program must not try
# to load it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L ${WD_TARGET_SYSROOT} -U LD_PRELOAD)
