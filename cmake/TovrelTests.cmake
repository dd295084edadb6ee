# Unit tests: one GoogleTest program per subsystem folder, built from the
# *_test.cpp files that sit next to the sources they test. On Windows the
# same programs are cross-built and run under wine by CTest.

set(TOVREL_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
add_subdirectory(${TOVREL_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

file(GLOB support_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/support/*.cpp)
# An object library, so that suites defined in support files (the stream
# contract) are part of every test program that instantiates them.
add_library(tovrel_test_support OBJECT ${support_sources})
target_include_directories(tovrel_test_support PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tests)
# Where the tests find the scripts and files they start servers from.
target_compile_definitions(tovrel_test_support PRIVATE TOVREL_TESTS_DIR="${CMAKE_CURRENT_SOURCE_DIR}/tests")
target_link_libraries(tovrel_test_support PUBLIC tovrel_static GTest::gtest)

function(tovrel_add_test_program name)
  set(sources "")
  foreach(dir ${ARGN})
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*_test.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE tovrel_test_support)
  # Each run leaves GoogleTest's report in test-results/, where tools/test.sh
  # finds the cases that skipped (a relative path: the Windows programs
  # under wine take no Linux path).
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1 --gtest_output=xml:test-results/${name}.xml
           WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
  set_tests_properties(${name} PROPERTIES TIMEOUT 900 ENVIRONMENT "WINEDEBUG=-all")
endfunction()

tovrel_add_test_program(host_tests host)
if(WIN32)
  tovrel_add_test_program(platform_tests src/platform src/platform/win32)
else()
  tovrel_add_test_program(platform_tests src/platform src/platform/posix)
endif()
tovrel_add_test_program(pagefile_tests src/pagefile)
tovrel_add_test_program(streams_tests src/streams)
tovrel_add_test_program(package_tests src/package)
tovrel_add_test_program(shared_tests src/shared)
tovrel_add_test_program(effectcache_tests src/effectcache)
tovrel_add_test_program(capi_tests src/capi)
target_compile_definitions(capi_tests PRIVATE TOVREL_PROJECT_VERSION="${PROJECT_VERSION}")
# Every effect cache test again with background saving on (the caches the
# tests make read the variable), as effectcache_background_tests.
add_test(NAME effectcache_background_tests
         COMMAND effectcache_tests --gtest_brief=1 --gtest_output=xml:test-results/effectcache_background_tests.xml
         WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
set_tests_properties(effectcache_background_tests PROPERTIES TIMEOUT 900
                     ENVIRONMENT "WINEDEBUG=-all;TOVREL_EFFECT_CACHE_BACKGROUND_SAVING=1")

# The tovrel tool's tests: its classes in this process, and the built
# program run as a child process, found beside the test program.
tovrel_add_test_program(tool_tests tools/tovrel)
file(GLOB tool_test_support CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/tool/*.cpp)
target_sources(tool_tests PRIVATE ${tool_test_support})
target_link_libraries(tool_tests PRIVATE tovrel_tool_objects)
target_compile_definitions(tool_tests PRIVATE TOVREL_TOOL_FILE_NAME="$<TARGET_FILE_NAME:tovrel_tool>"
                                              TOVREL_README="${CMAKE_CURRENT_SOURCE_DIR}/README.md")
add_dependencies(tool_tests tovrel_tool)
# The tool's JSON is parsed by its tests with nlohmann-json (header-only):
# its folder alone is put on the include path, so that the Windows
# cross-build sees none of the system's other headers.
set(TOVREL_NLOHMANN_JSON /usr/include/nlohmann CACHE PATH "nlohmann-json's header folder")
if(NOT EXISTS ${TOVREL_NLOHMANN_JSON}/json.hpp)
  message(FATAL_ERROR "nlohmann-json is missing (Debian: nlohmann-json3-dev)")
endif()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/nlohmann-include)
file(CREATE_LINK ${TOVREL_NLOHMANN_JSON} ${CMAKE_BINARY_DIR}/nlohmann-include/nlohmann SYMBOLIC)
target_include_directories(tool_tests PRIVATE ${CMAKE_BINARY_DIR}/nlohmann-include)

# A program outside the library that uses only its exported surface.
add_subdirectory(${CMAKE_CURRENT_SOURCE_DIR}/tests/consumer ${CMAKE_BINARY_DIR}/tests/consumer)

# The names the built library exports, compared with the list checked in for
# its system (tests/exports/linux.txt, windows.txt).
if(WIN32)
  set(TOVREL_SYSTEM windows)
  set(TOVREL_EXPORT_LISTER ${CMAKE_OBJDUMP})
  set(TOVREL_INSTALL_CHECK_TOOL ${CMAKE_TOOLCHAIN_FILE})
else()
  set(TOVREL_SYSTEM linux)
  set(TOVREL_EXPORT_LISTER ${CMAKE_NM})
  set(TOVREL_INSTALL_CHECK_TOOL ${CMAKE_CXX_COMPILER})
endif()
add_test(NAME exports
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tests/exports/check.sh ${TOVREL_SYSTEM} $<TARGET_FILE:tovrel>
          ${TOVREL_EXPORT_LISTER})

# The installed library used from another project (tests/install/check.sh).
# A sanitized build is not one to install.
if(NOT TOVREL_SANITIZE AND NOT TOVREL_TSAN)
  add_test(NAME install
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tests/install/check.sh ${TOVREL_SYSTEM} ${CMAKE_BINARY_DIR}
            ${TOVREL_INSTALL_CHECK_TOOL} $<IF:$<BOOL:${TOVREL_WERROR}>,ON,OFF>)
  set_tests_properties(install PROPERTIES TIMEOUT 900)
endif()
