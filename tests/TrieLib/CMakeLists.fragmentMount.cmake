depot_test(TrieMountTest SOURCES MountTest.cpp LIBS DepotTrie)
