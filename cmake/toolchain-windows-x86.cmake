set(TILVARCM_WINDOWS_ARCH i686)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-windows.cmake)
