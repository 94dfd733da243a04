# Compiler settings shared by every target of this project (third-party code is untouched).

set(VELMORIA_WARNINGS -Wall -Wextra -Wpedantic -Werror)
# GCC 12 reports -Wrestrict for plain std::string concatenation at -O2/-O3 (GCC bug 105329, a
# false positive inside libstdc++); keep it a warning there so Release builds are not broken.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND VELMORIA_WARNINGS -Wno-error=restrict)
endif()

set(VELMORIA_SANITIZER_FLAGS "")
if(VELMORIA_SANITIZE_ADDRESS)
  set(VELMORIA_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  # With the sanitizers' instrumentation GCC 12 reports -Wmaybe-uninitialized inside libstdc++'s
  # std::regex (the moved-from std::function of an NFA state); the plain builds do not. Keep it a
  # warning in this build only, so real warnings elsewhere still fail the others.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND VELMORIA_WARNINGS -Wno-error=maybe-uninitialized)
  endif()
elseif(VELMORIA_SANITIZE_THREAD)
  set(VELMORIA_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()

# velmoria_target_defaults(<target>): warnings as errors and the chosen sanitizer.
function(velmoria_target_defaults target)
  target_compile_options(${target} PRIVATE ${VELMORIA_WARNINGS} ${VELMORIA_SANITIZER_FLAGS})
  if(VELMORIA_SANITIZER_FLAGS)
    target_link_options(${target} PRIVATE ${VELMORIA_SANITIZER_FLAGS})
  endif()
endfunction()

# velmoria_add_test_suite(<name> SOURCES ... LIBRARIES ...): one GoogleTest executable per
# folder of tests/, each test case registered with CTest on its own.
function(velmoria_add_test_suite name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  velmoria_target_defaults(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "VELMORIA_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()

# velmoria_add_test_folder(<folder> LIBRARIES ...): a test suite for every *Test.cpp of
# tests/<folder>. Shared helpers of a folder live in tests/<folder>/*.h or tests/common.
function(velmoria_add_test_folder folder)
  cmake_parse_arguments(ARG "" "" "LIBRARIES" ${ARGN})
  file(GLOB test_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${folder}/*Test.cpp)
  string(REPLACE "/" "_" prefix ${folder})
  foreach(test_file ${test_files})
    get_filename_component(test_name ${test_file} NAME_WE)
    velmoria_add_test_suite(${prefix}_${test_name} SOURCES ${test_file} LIBRARIES ${ARG_LIBRARIES})
  endforeach()
endfunction()
