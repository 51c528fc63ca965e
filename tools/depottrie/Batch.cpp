#include "Batch.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Lines.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::IpGenPrefix;
using Routing::Lattice::Trie;
using Routing::Lattice::TrieNode;
using Routing::Lattice::TrieNode6;
using Routing::Lattice::WalkAction;

std::vector<std::string_view> splitWords(std::string_view line) {
  std::vector<std::string_view> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  return words;
}

[[noreturn]] void usage(std::string_view form) { throw Basis::RangeException(fmt::format("usage: {}", form)); }

// Records every delivered prefix; answers abortWalk or skipSubtree for the
// listed prefixes, continueWalk otherwise.
class RecordingWalk : public Routing::Lattice::TrieWalkCallback {
 public:
  RecordingWalk(std::vector<IpGenPrefix> skip, std::vector<IpGenPrefix> abort)
      : skip_(std::move(skip)), abort_(std::move(abort)) {}

  WalkAction handleWalkCallback(const IpGenPrefix& p) override {
    delivered_.push_back(p);
    if (std::find(abort_.begin(), abort_.end(), p) != abort_.end()) return Routing::Lattice::abortWalk;
    if (std::find(skip_.begin(), skip_.end(), p) != skip_.end()) return Routing::Lattice::skipSubtree;
    return Routing::Lattice::continueWalk;
  }
  const std::vector<IpGenPrefix>& delivered() const { return delivered_; }

 private:
  std::vector<IpGenPrefix> skip_;
  std::vector<IpGenPrefix> abort_;
  std::vector<IpGenPrefix> delivered_;
};

// Runs the commands on the trie itself, or (read-only) only the queries,
// each through a consistent reader, on a trie whose writer is another
// process.
class Session {
 public:
  Session(Trie& trie, std::FILE* out, bool readOnly) : trie_(trie), out_(out) {
    if (readOnly) reader_.emplace(trie);
  }

  // Carries out one command; raises Basis::Exception with the reason when the
  // line cannot be carried out, before anything has changed.
  void execute(const std::vector<std::string_view>& w) {
    const std::string_view cmd = w[0];
    if (reader_ && (cmd == "add" || cmd == "del")) {
      throw Basis::RangeException(fmt::format("{} changes the trie; this batch is read-only", cmd));
    }
    if (cmd == "add") {
      if (w.size() != 2) usage("add PREFIX");
      trie_.prefixIs(prefixFromText(w[1]));
    } else if (cmd == "del") {
      if (w.size() != 2) usage("del PREFIX");
      answer(trie_.prefixDel(prefixFromText(w[1])) ? "true" : "false");
    } else if (cmd == "lpm") {
      if (w.size() != 2) usage("lpm PREFIX");
      const IpGenPrefix p = prefixFromText(w[1]);
      answer(prefixText(reader_ ? reader_->lpm(p) : trie_.lpm(p)));
    } else if (cmd == "lookup") {
      if (w.size() != 2) usage("lookup PREFIX");
      const IpGenPrefix p = prefixFromText(w[1]);
      answer(prefixText(reader_ ? reader_->longestMatch(p) : trie_.longestMatch(p)));
    } else if (cmd == "next") {
      if (w.size() != 2) usage("next PREFIX");
      IpGenPrefix p = prefixFromText(w[1]);
      if (defaultRouteKey(p)) {
        throw Basis::RangeException(fmt::format("next {}: the default route's storage key cannot start a search", p));
      }
      answer(prefixText(reader_ ? reader_->getNext(p) : trie_.getNext(p)));
    } else if (cmd == "visited") {
      if (w.size() != 1) usage("visited");
      answer(fmt::format("{}", trie_.nodesVisitedCount()));
    } else if (cmd == "walk") {
      walk(w);
    } else if (cmd == "records") {
      if (w.size() != 2 || (w[1] != "4" && w[1] != "6")) usage("records 4|6");
      if (w[1] == "4") {
        records4();
      } else {
        records6();
      }
    } else {
      throw Basis::RangeException(fmt::format("unknown command '{}'", cmd));
    }
  }

 private:
  static std::string prefixText(const IpGenPrefix& p) { return p.isEmpty() ? "none" : p.stringValue(); }
  void answer(std::string_view text) { fmt::print(out_, "{}\n", text); }

  void walk(const std::vector<std::string_view>& w) {
    constexpr std::string_view form = "walk PREFIX [skip PREFIX]... [abort PREFIX]...";
    if (w.size() < 2 || w.size() % 2 != 0) usage(form);
    IpGenPrefix root = prefixFromText(w[1]);
    std::vector<IpGenPrefix> skip;
    std::vector<IpGenPrefix> abort;
    for (size_t i = 2; i < w.size(); i += 2) {
      if (w[i] == "skip") {
        skip.push_back(prefixFromText(w[i + 1]));
      } else if (w[i] == "abort") {
        abort.push_back(prefixFromText(w[i + 1]));
      } else {
        usage(form);
      }
    }
    Basis::Ptr<RecordingWalk> callback(new RecordingWalk(std::move(skip), std::move(abort)));
    if (reader_) {
      reader_->preOrderWalk(callback, root);
    } else {
      trie_.preOrderWalk(callback, root);
    }
    answer(fmt::format("{}", fmt::join(callback->delivered(), " ")));
  }

  // Every record of the family, sorted; in a read-only batch all of one
  // state between two updates.
  template <class Record, class Map, class Less>
  std::vector<Record> collect(Addrkit::AddressFamily af, const Map& map, Less&& less) {
    std::vector<Record> all;
    auto collectAll = [&] {
      all.clear();
      for (auto it = map.begin(); it.valid(); it.advance()) all.push_back(*it);
      return true;
    };
    if (reader_) {
      reader_->read(af, collectAll);
    } else {
      collectAll();
    }
    std::sort(all.begin(), all.end(), less);
    return all;
  }

  void records4() {
    const std::vector<TrieNode> all =
        collect<TrieNode>(Addrkit::AddressFamily::ipv4, trie_.trieNodeMap(), [](const TrieNode& a, const TrieNode& b) {
          U32 x = a.key().addrHost(), y = b.key().addrHost();
          return x != y ? x < y : a.key().len() < b.key().len();
        });
    for (const TrieNode& n : all) {
      answer(fmt::format("{} 0x{:08x} {} {} {} {}", n.key(), n.black(), n.child00(), n.child01(), n.child10(),
                         n.child11()));
    }
    answer("end");
  }

  void records6() {
    const std::vector<TrieNode6> all =
        collect<TrieNode6>(Addrkit::AddressFamily::ipv6, trie_.trieNode6Map(), [](const TrieNode6& a, const TrieNode6& b) {
          for (unsigned k = 0; k < 4; ++k) {
            if (a.key().word(k) != b.key().word(k)) return a.key().word(k) < b.key().word(k);
          }
          return a.key().len() < b.key().len();
        });
    for (const TrieNode6& n : all) {
      answer(fmt::format("{} 0x{:08x} 0x{:08x} 0x{:08x} 0x{:08x} {} {}", n.key(), n.black0(), n.black1(), n.black2(),
                         n.black3(), n.leftChild(), n.rightChild()));
    }
    answer("end");
  }

  Trie& trie_;
  std::FILE* out_;
  std::optional<Routing::Lattice::ConsistentReader> reader_;
};

}  // namespace

int runBatch(Trie& trie, std::istream& in, std::FILE* out, std::FILE* err, bool readOnly) {
  Session session(trie, out, readOnly);
  int status = 0;
  std::string line;
  bool tooLong = false;
  // Answers go out before the session waits for more input, so that a
  // program can hold a conversation with it over pipes.
  auto waitFor = [&] {
    if (in.rdbuf()->in_avail() <= 0) std::fflush(out);
    return readBoundedLine(in, line, tooLong);
  };
  for (U64 lineNo = 1; waitFor(); ++lineNo) {
    std::vector<std::string_view> words = splitWords(line);
    if (words.empty() || words[0].front() == '#') continue;
    try {
      if (tooLong) throw Basis::RangeException(tooLongMessage(line));
      session.execute(words);
    } catch (const Basis::Exception& e) {
      std::fflush(out);
      fmt::print(err, "error: line {}: {}\n", lineNo, e.what());
      std::fflush(err);
      status = 1;
    }
  }
  return status;
}

}  // namespace DepotTrieTool
