# What `cmake --install` puts under the prefix, and how another project
# finds it there:
#
#   bin/      tovrel (tovrel.exe), and tovrel.dll on Windows
#   lib/      libtovrel.so with its version links, or the import libraries
#             libtovrel.dll.a (mingw-w64) and tovrel.lib (MSVC, the C
#             interface only); cmake/Tovrel/ (the CMake package) and
#             pkgconfig/tovrel.pc
#   include/tovrel/        the exported surface
#   include/tovrel/host/   the host types that surface is written with
#
# Everything a user includes lies under include/tovrel/. The public headers
# name the host types as "host/...", and the host headers name each other
# the same way, so a user's include path holds both include/ (for
# "tovrel/tovrel.h") and include/tovrel/ (for "host/..."); Tovrel::tovrel
# and tovrel.pc carry both.

include(CMakePackageConfigHelpers)

# The host headers that the public headers need, and no more. All are
# header-only but NorvaneString.h, which WStr.h cannot do without: its
# constructors and Wide() are inline, while its two UTF-8 conversions stay
# inside the library, not exported. The host types that only the library's
# inside uses (MutexObject, AutoMutex, Path, AdvancedIdentifierAllocator)
# are compiled into it, not exported, and not installed.
set(TOVREL_INSTALLED_HOST_HEADERS
  ARefObject.h Exception.h GraphicsHeapOperators.h NorvaneHeapOperators.h NorvaneString.h
  OutOfRangeException.h RefPtr.h Tab.h TabOutOfRangeException.h WStr.h)
list(TRANSFORM TOVREL_INSTALLED_HOST_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/host/)

set(TOVREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tovrel)

# Before 1.0 each minor version may change the binary interface, after it
# each major version: the shared library's SOVERSION (libtovrel.so.0.2) and
# the versions the CMake package accepts follow that.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(TOVREL_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  set(TOVREL_COMPATIBILITY SameMinorVersion)
else()
  set(TOVREL_SOVERSION ${PROJECT_VERSION_MAJOR})
  set(TOVREL_COMPATIBILITY SameMajorVersion)
endif()
set_target_properties(tovrel PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${TOVREL_SOVERSION})

target_include_directories(tovrel INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tovrel>)

install(TARGETS tovrel EXPORT TovrelTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tovrel_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(WIN32)
  install(FILES ${TOVREL_MSVC_IMPLIB} DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(DIRECTORY include/tovrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${TOVREL_INSTALLED_HOST_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovrel/host)

# The CMake package: find_package(Tovrel 0.5) gives the targets
# Tovrel::tovrel (C++) and Tovrel::tovrel_c (the C interface; see
# TovrelConfig.cmake.in).
install(EXPORT TovrelTargets NAMESPACE Tovrel:: DESTINATION ${TOVREL_CMAKE_DIR})
configure_package_config_file(cmake/TovrelConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/TovrelConfig.cmake
  INSTALL_DESTINATION ${TOVREL_CMAKE_DIR} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TovrelConfigVersion.cmake
  COMPATIBILITY ${TOVREL_COMPATIBILITY})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TovrelConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/TovrelConfigVersion.cmake
  DESTINATION ${TOVREL_CMAKE_DIR})

# tovrel.pc names its folders relative to its own place (${pcfiledir}), so
# it stays right whatever prefix `cmake --install --prefix` is given.
file(RELATIVE_PATH TOVREL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/tovrel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tovrel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tovrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
