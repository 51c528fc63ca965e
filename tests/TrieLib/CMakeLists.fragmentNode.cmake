depot_test(TrieNodeTest SOURCES TrieNodeTest.cpp LIBS DepotTrie)
