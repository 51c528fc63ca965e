// The batch line protocol over arbitrary input lines, on a fresh local trie
// each run: every line is carried out or refused with an error line, and
// nothing stops the process.
#include <cstdio>
#include <sstream>
#include <string>

#include "Batch.h"
#include "FuzzCheck.h"

namespace {

std::FILE* devNull;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  devNull = std::fopen("/dev/null", "w");
  fuzzCheck(devNull != nullptr, "cannot open /dev/null");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  std::istringstream in{std::string(textOf(data, size))};
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieFactory("fuzz");
  const int status = DepotTrieTool::runBatch(*trie, in, devNull, devNull);
  fuzzCheck(status == 0 || status == 1, "runBatch returned {}", status);
  return 0;
}
