#include "Batch.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Lines.h"

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

class Session {
 public:
  Session(Trie& trie, std::FILE* out) : trie_(trie), out_(out) {}

  // Carries out one command; raises Basis::Exception with the reason when the
  // line cannot be carried out, before anything has changed.
  void execute(const std::vector<std::string_view>& w) {
    const std::string_view cmd = w[0];
    if (cmd == "add") {
      if (w.size() != 2) usage("add PREFIX");
      trie_.prefixIs(prefixFromText(w[1]));
    } else if (cmd == "del") {
      if (w.size() != 2) usage("del PREFIX");
      answer(trie_.prefixDel(prefixFromText(w[1])) ? "true" : "false");
    } else if (cmd == "lpm") {
      if (w.size() != 2) usage("lpm PREFIX");
      answer(prefixText(trie_.lpm(prefixFromText(w[1]))));
    } else if (cmd == "next") {
      if (w.size() != 2) usage("next PREFIX");
      IpGenPrefix p = prefixFromText(w[1]);
      if (defaultRouteKey(p)) {
        throw Basis::RangeException(fmt::format("next {}: the default route's storage key cannot start a search", p));
      }
      answer(prefixText(trie_.getNext(p)));
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
    trie_.preOrderWalk(callback, root);
    answer(fmt::format("{}", fmt::join(callback->delivered(), " ")));
  }

  void records4() {
    std::vector<TrieNode> all;
    for (auto it = trie_.trieNodeMap().begin(); it.valid(); it.advance()) all.push_back(*it);
    std::sort(all.begin(), all.end(), [](const TrieNode& a, const TrieNode& b) {
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
    std::vector<TrieNode6> all;
    for (auto it = trie_.trieNode6Map().begin(); it.valid(); it.advance()) all.push_back(*it);
    std::sort(all.begin(), all.end(), [](const TrieNode6& a, const TrieNode6& b) {
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
};

}  // namespace

int runBatch(Trie& trie, std::istream& in, std::FILE* out, std::FILE* err) {
  Session session(trie, out);
  int status = 0;
  std::string line;
  bool tooLong = false;
  for (U64 lineNo = 1; readBoundedLine(in, line, tooLong); ++lineNo) {
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
