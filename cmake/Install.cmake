# Installation: headers under include/ with their in-tree paths, the versioned
# libDepotTrie.so, the static platform libraries it links publicly (in a
# private lib/depottrie/ folder, their names being generic), the depottrie
# tool, a CMake package (find_package(DepotTrie) -> DepotTrie::DepotTrie) and
# depottrie.pc for pkg-config.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(depotPlatformLibs Addrkit Basis Kiln Beat Ringlog Chunker Depot KilnDepot)
set(depotPackageDir ${CMAKE_INSTALL_LIBDIR}/cmake/DepotTrie)

# The headers need C++20; consumers of the imported target get it too.
target_compile_features(DepotTrie INTERFACE cxx_std_20)

install(TARGETS DepotTrie ${depotPlatformLibs}
        EXPORT DepotTrieTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/depottrie
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(lib ${depotPlatformLibs})
  install(DIRECTORY platform/${lib} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY TrieLib DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

if(TARGET depottrie)
  # The installed tool finds the installed library wherever the prefix is.
  set_target_properties(depottrie PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS depottrie RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES tools/depottrie/depottrie.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES tools/depottrie/depottrie.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME depottrie)
endif()

install(EXPORT DepotTrieTargets NAMESPACE DepotTrie:: DESTINATION ${depotPackageDir})
configure_package_config_file(cmake/DepotTrieConfig.cmake.in ${PROJECT_BINARY_DIR}/DepotTrieConfig.cmake
                              INSTALL_DESTINATION ${depotPackageDir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DepotTrieConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/DepotTrieConfig.cmake ${PROJECT_BINARY_DIR}/DepotTrieConfigVersion.cmake
        DESTINATION ${depotPackageDir})

# depottrie.pc locates the prefix from its own folder, so the installed tree
# can be moved (or installed with cmake --install --prefix) and still work.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(depotPcPrefix ${CMAKE_INSTALL_PREFIX})
  set(depotPcLibdir ${CMAKE_INSTALL_FULL_LIBDIR})
  set(depotPcIncludedir ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH depotPcUp /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" depotPcUp "${depotPcUp}")
  set(depotPcPrefix "\${pcfiledir}/${depotPcUp}")
  set(depotPcLibdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(depotPcIncludedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/depottrie.pc.in ${PROJECT_BINARY_DIR}/depottrie.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/depottrie.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
