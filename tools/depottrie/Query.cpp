// depottrie lookup, list, next and batch.
#include <fmt/format.h>

#include <cstdio>
#include <iostream>

#include "Batch.h"
#include "Commands.h"
#include "Input.h"
#include "Json.h"
#include "Progress.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;
using Routing::Lattice::WalkAction;

std::string answerText(const IpGenPrefix& p) { return p.isEmpty() ? "none" : p.stringValue(); }

// Prints the delivered prefixes covered by `under` (all when it is empty),
// skipping the subtrees that lie beside it.
class ListingWalk : public Routing::Lattice::TrieWalkCallback {
 public:
  ListingWalk(const IpGenPrefix& under, bool json, Progress& progress) : under_(under), json_(json), progress_(progress) {}

  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    if (under_.isEmpty() || covers(under_, p)) {
      if (json_) {
        fmt::print("{}\n", jsonObject({{"prefix", jsonPrefix(p)}}));
      } else {
        fmt::print("{}\n", p);
      }
      progress_.update(0, ++listed_);
      return Routing::Lattice::continueWalk;
    }
    // A prefix above `under` leads towards it; one beside it holds nothing
    // below `under` in its subtree.
    return covers(p, under_) ? Routing::Lattice::continueWalk : Routing::Lattice::skipSubtree;
  }

 private:
  IpGenPrefix under_;
  const bool json_;
  Progress& progress_;
  U64 listed_ = 0;
};

// Answers queries in the order given, in batches of the reader's batched
// longest match: a batch is answered when it is full or when the input is
// about to wait, so answers stream out as fast as queries come in.
class Lookups {
 public:
  Lookups(Routing::Lattice::ConsistentReader& reader, bool json) : reader_(reader), json_(json) {}
  void add(std::string_view text) {
    queries_.emplace_back(text);
    prefixes_.push_back(prefixFromText(text));
    if (prefixes_.size() == batchSize) answer();
  }
  // A query that cannot be answered: reported after the answers before it.
  void fail(std::string_view message) {
    answer();
    fmt::print(stderr, "depottrie: {}\n", message);
    std::fflush(stderr);
    failed_ = true;
  }
  void answer() {
    if (prefixes_.empty()) return;
    matches_.resize(prefixes_.size());
    reader_.longestMatch(prefixes_, matches_);
    for (size_t i = 0; i < prefixes_.size(); ++i) {
      if (json_) {
        fmt::print("{}\n", jsonObject({{"query", jsonString(queries_[i])}, {"match", jsonPrefix(matches_[i])}}));
      } else {
        fmt::print("{} {}\n", queries_[i], answerText(matches_[i]));
      }
    }
    std::fflush(stdout);
    queries_.clear();
    prefixes_.clear();
  }
  bool failed() const { return failed_; }

 private:
  static constexpr size_t batchSize = 256;
  Routing::Lattice::ConsistentReader& reader_;
  const bool json_;
  std::vector<std::string> queries_;
  std::vector<IpGenPrefix> prefixes_;
  std::vector<IpGenPrefix> matches_;
  bool failed_ = false;
};

// Queries from standard input, one a line; blank lines and # comments are
// passed over.
void lookupLines(Lookups& lookups) {
  lookups.answer();  // the queries before "-" are not kept waiting for the first line
  InputFile in("-");
  in.beforeWaitIs([&lookups] { lookups.answer(); });
  std::string line;
  for (U64 lineNo = 1; in.readLine(line); ++lineNo) {
    const std::string_view text = trimmed(line);
    try {
      if (in.lineTooLong()) throw Basis::RangeException(tooLongMessage(line));
      if (text.empty() || text[0] == '#') continue;
      if (text.find_first_of(" \t") != std::string_view::npos)
        throw Basis::RangeException(fmt::format("one address or prefix a line, not '{}'", text));
      lookups.add(text);
    } catch (const Basis::RangeException& e) {
      lookups.fail(fmt::format("{}:{}: {}", in.displayName(), lineNo, e.what()));
    }
  }
}

}  // namespace

int lookupCommand(const Target& target, const std::vector<std::string>& queries, bool json) {
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  Routing::Lattice::ConsistentReader reader(*trie);
  Lookups lookups(reader, json);
  for (const std::string& q : queries) {
    if (q == "-") {
      lookupLines(lookups);
      continue;
    }
    try {
      lookups.add(q);
    } catch (const Basis::RangeException& e) {
      lookups.fail(e.what());
    }
  }
  lookups.answer();
  return lookups.failed() ? 1 : 0;
}

int listCommand(const Target& target, const std::string& under, int family, bool json) {
  IpGenPrefix root;
  if (!under.empty()) {
    root = prefixFromText(under);
    const int rootFamily = root.af() == AddressFamily::ipv4 ? 4 : 6;
    if (family != 0 && family != rootFamily) {
      throw UsageError(fmt::format("--under {} is not an IPv{} prefix", under, family));
    }
    family = rootFamily;
  }
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  Routing::Lattice::ConsistentReader reader(*trie);
  Progress progress("listing", {.items = "prefixes", .streamsToStdout = true});
  Basis::Ptr<ListingWalk> walk(new ListingWalk(root, json, progress));
  if (family != 6) reader.preOrderWalk(walk, IpGenPrefix(Routing::Lattice::rootPrefix));
  if (family != 4) reader.preOrderWalk(walk, IpGenPrefix(Routing::Lattice::rootPrefix6));
  return 0;
}

int nextCommand(const Target& target, const std::string& prefix, bool json) {
  IpGenPrefix p = prefixFromText(prefix);
  if (defaultRouteKey(p)) {
    throw UsageError(fmt::format("{} is where the default route is stored; it cannot start a search", p));
  }
  Basis::Ptr<Routing::Lattice::Trie> trie = Routing::Lattice::trieReaderNew(target.name, target.mount);
  const IpGenPrefix next = Routing::Lattice::ConsistentReader(*trie).getNext(p);
  if (json) {
    fmt::print("{}\n", jsonObject({{"prefix", jsonPrefix(p)}, {"next", jsonPrefix(next)}}));
  } else {
    fmt::print("{}\n", answerText(next));
  }
  return 0;
}

int batchCommand(const Target& target, bool local, bool readOnly) {
  Basis::Ptr<Routing::Lattice::Trie> trie = local      ? Routing::Lattice::trieFactory("batch")
                                            : readOnly ? Routing::Lattice::trieReaderNew(target.name, target.mount)
                                                       : Routing::Lattice::trieWriterNew(target.name, target.mount);
  std::ios::sync_with_stdio(false);
  return runBatch(*trie, std::cin, stdout, stderr, readOnly);
}

}  // namespace DepotTrieTool
