depot_test(Trie6Test SOURCES Trie6Test.cpp LIBS DepotTrie)
depot_test(Trie6RandomTest SOURCES Trie6RandomTest.cpp LIBS DepotTrie)
