depot_test(TrieEntityTest SOURCES TrieEntityTest.cpp LIBS DepotTrie)
