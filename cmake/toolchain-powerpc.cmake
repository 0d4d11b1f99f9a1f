# 32-bit big-endian PowerPC Linux, with Debian's cross compiler; what it builds runs here through qemu-ppc.
#
# TESS_PPC_EXTRA  folder with what Debian does not package for this processor: below usr, libcrypt, libedit, ncurses and
#                 libmosquitto, and links to those libraries of the host that are headers only. scripts/cross.sh makes it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)

set(triplet powerpc-linux-gnu)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

# The checks that project() and find_package() compile read this file again, in a project of their own.
set(TESS_PPC_EXTRA "" CACHE PATH "What the PowerPC build needs beyond the cross compiler's own libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESS_PPC_EXTRA)

# Programs come from the host, everything else from the target's folders: a header of the host whose library does not
# exist for the target would be found at first, and fail at the link.
set(CMAKE_FIND_ROOT_PATH ${TESS_PPC_EXTRA} /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()

# The compiler has no sysroot option to widen, so the folder is named to it outright; programs remember it for the run.
if(TESS_PPC_EXTRA)
    foreach(language C CXX)
        set(CMAKE_${language}_STANDARD_INCLUDE_DIRECTORIES ${TESS_PPC_EXTRA}/usr/include)
    endforeach()
    foreach(output EXE SHARED)
        set(CMAKE_${output}_LINKER_FLAGS_INIT -L${TESS_PPC_EXTRA}/usr/lib)
    endforeach()
    set(CMAKE_BUILD_RPATH ${TESS_PPC_EXTRA}/usr/lib)
endif()

find_program(TESS_QEMU_PPC NAMES qemu-ppc qemu-ppc-static DOC "Runs the target's programs: tests, and checks of CMake")
if(TESS_QEMU_PPC)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${TESS_QEMU_PPC} -L /usr/${triplet})
endif()
