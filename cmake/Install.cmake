# Installation: the versioned libDepotTrie.so with the headers of its public
# interface (in-tree paths under include/), the depottrie tool, a CMake package
# (find_package(DepotTrie) -> DepotTrie::DepotTrie) and depottrie.pc for
# pkg-config. The platform libraries are inside libDepotTrie.so and are not
# installed: a consumer links libDepotTrie and fmt, which the headers use.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(depotPackageDir ${CMAKE_INSTALL_LIBDIR}/cmake/DepotTrie)

# The library's public headers and every header they include (the install
# test compiles them all outside the tree). A header of the platform that is
# listed here declares part of the public interface: what it declares carries
# DEPOTTRIE_API.
set(depotInstalledHeaders
    TrieLib/DepotTrie.h TrieLib/ConsistentRead.h TrieLib/TrieMount.h TrieLib/TrieCheck.h TrieLib/TrieNode.h
    TrieLib/Export.h RouteTable/RouteTable.h
    platform/Addrkit/Address.h platform/Addrkit/Prefix.h
    platform/Basis/Buffer.h platform/Basis/Exception.h platform/Basis/Ptr.h platform/Basis/Types.h
    platform/Beat/Counter.h platform/Depot/Table.h
    platform/Kiln/Entity.h platform/Kiln/Text.h platform/Kiln/Type.h
    platform/KilnDepot/CollectionControl.h platform/KilnDepot/KilnDepotMap.h)
foreach(header ${depotInstalledHeaders})
  get_filename_component(dir ${header} DIRECTORY)
  string(REGEX REPLACE "^platform/" "" dir ${dir})
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir} COMPONENT dev)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/include/TrieLib/Version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TrieLib
        COMPONENT dev)

# The headers need C++20; consumers of the imported target get it too.
target_compile_features(DepotTrie INTERFACE cxx_std_20)
# Components, one Debian package each (cmake/Package.cmake): runtime (the
# library and the tool) and dev (headers, the unversioned link, CMake
# package, pkg-config file).
install(TARGETS DepotTrie
        EXPORT DepotTrieTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET depottrie)
  install(TARGETS depottrie RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES tools/depottrie/depottrie.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
  install(FILES tools/depottrie/depottrie.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME depottrie COMPONENT runtime)
endif()

install(EXPORT DepotTrieTargets NAMESPACE DepotTrie:: DESTINATION ${depotPackageDir} COMPONENT dev)
configure_package_config_file(cmake/DepotTrieConfig.cmake.in ${PROJECT_BINARY_DIR}/DepotTrieConfig.cmake
                              INSTALL_DESTINATION ${depotPackageDir})
# A 0.x release may change the binary interface with its minor version (see
# the README), so a 0.x package serves requests for its own MAJOR.MINOR only.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(depotCompatibility SameMinorVersion)
else()
  set(depotCompatibility SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DepotTrieConfigVersion.cmake
                                 COMPATIBILITY ${depotCompatibility})
install(FILES ${PROJECT_BINARY_DIR}/DepotTrieConfig.cmake ${PROJECT_BINARY_DIR}/DepotTrieConfigVersion.cmake
        DESTINATION ${depotPackageDir} COMPONENT dev)

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
install(FILES ${PROJECT_BINARY_DIR}/depottrie.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
