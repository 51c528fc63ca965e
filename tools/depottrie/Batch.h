#pragma once
// The batch line protocol: one command per line, answers on `out`, one
// "error: line N: REASON" line on `err` for each line that cannot be carried
// out (that line changes nothing and the session goes on).
//
//   add P                        (no output)
//   del P                        true | false
//   lpm P                        PREFIX | none
//   lookup P                     PREFIX | none (the true longest match)
//   next P                       PREFIX | none
//   visited                      nodesVisitedCount
//   walk P [skip Q]... [abort Q]...   delivered prefixes on one line
//   records 4 | records 6        every record, sorted, then "end"
#include <cstdio>
#include <istream>

#include "TrieLib/DepotTrie.h"

namespace DepotTrieTool {

// Returns 1 when any line failed, else 0. readOnly: add and del are line
// errors and the queries read consistently while another process writes.
int runBatch(Routing::Lattice::Trie& trie, std::istream& in, std::FILE* out, std::FILE* err, bool readOnly = false);

}  // namespace DepotTrieTool
