# The same device by clang, for its sanitizers. There is no runtime of theirs for it: they trap (-fsanitize-trap).
include(${CMAKE_CURRENT_LIST_DIR}/armhf.cmake)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_LINKER arm-linux-gnueabihf-ld)
