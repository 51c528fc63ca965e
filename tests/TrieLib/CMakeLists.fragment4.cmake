depot_test(Trie4Test SOURCES Trie4Test.cpp LIBS DepotTrie)
depot_test(Trie4RandomTest SOURCES Trie4RandomTest.cpp LIBS DepotTrie)
