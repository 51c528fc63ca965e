# Debian packages with CPack (make package): depottrie (the library and the
# tool), depottrie-dev (what a program built against it needs) and, when the
# Python module is built, python3-depottrie. Their dependencies on the
# libraries they link come from dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME depottrie)
set(CPACK_PACKAGE_VENDOR "DepotTrie")
set(CPACK_PACKAGE_CONTACT "DepotTrie maintainers <maintainers@depottrie.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "route table of IPv4 and IPv6 prefixes in shared memory")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME depottrie)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "route table of IPv4 and IPv6 prefixes in shared memory\n libDepotTrie keeps a route table as a prefix trie in shared-memory tables that one\n writer process changes and any number of reader processes read in place; depottrie\n loads, queries, watches and checks such tables from a shell.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME depottrie-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "depottrie (= ${PROJECT_VERSION}), libfmt-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "route table in shared memory: development files\n Headers, the CMake package (find_package(DepotTrie)) and the pkg-config file of\n libDepotTrie.")
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET depottrie_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-depottrie)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  # dpkg-shlibdeps looks for the module's libDepotTrie among installed
  # packages only; the library comes with the depottrie package. The module
  # is built for one minor version of Python.
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "depottrie (= ${PROJECT_VERSION}), python3 (>= ${DEPOT_PYTHON_VERSION}), python3 (<< ${DEPOT_PYTHON_VERSION}.99)")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION "route table in shared memory: Python module\n The depottrie module reads and writes the route tables of libDepotTrie.")
endif()
include(CPack)
