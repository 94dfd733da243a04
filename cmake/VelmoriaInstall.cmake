# `cmake --install <build> --prefix <prefix>` lays out:
#   bin/velmoria                          the command-line host
#   lib/libVelmoriaHost.so, libVelmoriaML.so
#   lib/velmoria/plugins/                 the plug-ins that ship with the host: the ML library (a
#                                         link to lib/) and the engines
#   include/velmoria/{host,ml}/...        public headers, included as "host/core/Properties.h"
#   lib/cmake/Velmoria/                   the CMake package: find_package(Velmoria CONFIG) gives
#                                         Velmoria::Host and Velmoria::ML
#   share/doc/velmoria/                   README and docs/
# Every binary finds its libraries relative to itself (RPATH $ORIGIN), so the prefix can move.
include(CMakePackageConfigHelpers)

set(VELMORIA_INSTALL_PLUGIN_DIR lib/velmoria/plugins)
set(VELMORIA_INSTALL_CMAKE_DIR lib/cmake/Velmoria)

install(TARGETS VelmoriaHost VelmoriaML EXPORT VelmoriaTargets
  LIBRARY DESTINATION lib
  RUNTIME DESTINATION bin)
# The ML library is a plug-in too; the plug-in folder holds a link to it, as in the build folder.
install(CODE "
  set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${VELMORIA_INSTALL_PLUGIN_DIR}\")
  file(MAKE_DIRECTORY \"\${folder}\")
  file(CREATE_LINK ../../$<TARGET_LINKER_FILE_NAME:VelmoriaML> \"\${folder}/$<TARGET_LINKER_FILE_NAME:VelmoriaML>\" SYMBOLIC)
")
if(TARGET VelmoriaTorch)
  install(TARGETS VelmoriaTorch LIBRARY DESTINATION ${VELMORIA_INSTALL_PLUGIN_DIR})
endif()
if(TARGET velmoria)
  install(TARGETS velmoria RUNTIME DESTINATION bin)
endif()

foreach(piece host ml)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/${piece}/ DESTINATION include/velmoria/${piece}
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION share/doc/velmoria)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION share/doc/velmoria)

install(EXPORT VelmoriaTargets NAMESPACE Velmoria:: DESTINATION ${VELMORIA_INSTALL_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/VelmoriaConfig.cmake.in
  ${CMAKE_BINARY_DIR}/VelmoriaConfig.cmake INSTALL_DESTINATION ${VELMORIA_INSTALL_CMAKE_DIR}
  PATH_VARS VELMORIA_INSTALL_PLUGIN_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VelmoriaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VelmoriaConfig.cmake ${CMAKE_BINARY_DIR}/VelmoriaConfigVersion.cmake
  DESTINATION ${VELMORIA_INSTALL_CMAKE_DIR})
