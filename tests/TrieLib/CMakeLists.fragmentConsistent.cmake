depot_test(ConsistentReadTest SOURCES ConsistentReadTest.cpp LIBS DepotTrie)
depot_test(ConsistentStressTest SOURCES ConsistentStressTest.cpp LIBS DepotTrie)
depot_test(TrieCrashTest SOURCES CrashTest.cpp LIBS DepotTrie)
