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
# Coverage (scripts/coverage): gcov instrumentation of our own targets; lcov reads the counters.
if(VELMORIA_COVERAGE)
  list(APPEND VELMORIA_SANITIZER_FLAGS --coverage)
endif()

# velmoria_target_defaults(<target>): warnings as errors and the chosen sanitizer.
function(velmoria_target_defaults target)
  target_compile_options(${target} PRIVATE ${VELMORIA_WARNINGS} ${VELMORIA_SANITIZER_FLAGS})
  if(VELMORIA_SANITIZER_FLAGS)
    target_link_options(${target} PRIVATE ${VELMORIA_SANITIZER_FLAGS})
  endif()
endfunction()

# velmoria_add_test_folder(<folder> [NAME <target>] LIBRARIES ...): one GoogleTest executable
# for every *Test.cpp under tests/<folder> (subfolders included), named after the folder
# (host/core -> host_core_tests). Each test case is registered with CTest on its own, so
# `ctest -R Properties` and `ctest -j` work per case. Shared helpers of a folder live in
# tests/<folder>/*.h or tests/common/.
function(velmoria_add_test_folder folder)
  cmake_parse_arguments(ARG "" "NAME" "LIBRARIES" ${ARGN})
  file(GLOB_RECURSE test_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${folder}/*Test.cpp)
  string(REPLACE "/" "_" name ${folder})
  set(name ${name}_tests)
  if(ARG_NAME)
    set(name ${ARG_NAME})
  endif()
  add_executable(${name} ${test_files})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  velmoria_target_defaults(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  # Discovery lists the cases when ctest starts (not at build time, so a build never fails on a
  # test program that crashes); the test names carry no executable prefix, so `ctest -R` takes
  # the GoogleTest suite and case names as they are written.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "VELMORIA_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()

# velmoria_bundle_plugin(<target>): a plug-in that ships with the host. Applications look for
# such plug-ins in lib/velmoria/plugins beside libVelmoriaHost (PluginManager::bundledFolder);
# the build folder gets the same layout through a link, so a built and an installed velmoria
# find them the same way. Installing is cmake/VelmoriaInstall.cmake's job.
function(velmoria_bundle_plugin target)
  set(folder ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/velmoria/plugins)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
    COMMAND ${CMAKE_COMMAND} -E create_symlink ../../$<TARGET_LINKER_FILE_NAME:${target}>
            ${folder}/$<TARGET_LINKER_FILE_NAME:${target}>
    VERBATIM)
endfunction()
