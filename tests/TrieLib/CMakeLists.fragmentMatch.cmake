depot_test(LongestMatchTest SOURCES LongestMatchTest.cpp LIBS DepotTrie)
target_compile_definitions(LongestMatchTest PRIVATE DEPOT_DATA_DIR="${PROJECT_SOURCE_DIR}/data")
