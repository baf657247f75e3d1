# Read after CMake's platform files (CMAKE_USER_MAKE_RULES_OVERRIDE of
# cmake/mingw-w64-x86_64.cmake): find_library, and with it pkg-config's -l
# flags, takes static archives only, never the import library of a DLL that
# would then have to ship beside the program (Debian's mingw zlib has both).
set(CMAKE_FIND_LIBRARY_SUFFIXES ".a")
