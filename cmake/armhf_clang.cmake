# The same device with clang, for its sanitizers. They trap (-fsanitize-trap), since the device has no runtime of them.
include(${CMAKE_CURRENT_LIST_DIR}/armhf.cmake)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_LINKER arm-linux-gnueabihf-ld)
