// depottrie lookup, list, next and batch.
#include <fmt/format.h>

#include <cstdio>
#include <iostream>

#include "Batch.h"
#include "Commands.h"
#include "Input.h"
#include "Json.h"
#include "Progress.h"
#include "RouteTable/Convert.h"
#include "TrieLib/ConsistentRead.h"

namespace DepotTrieTool {
namespace {

using Addrkit::AddressFamily;
using Addrkit::IpGenPrefix;

// "PREFIX" or "PREFIX VALUE": a value is shown when it is not 0 (what a
// prefix stored without one has).
std::string routeText(const depottrie::Route& r) {
  return r.value == 0 ? r.prefix.toString() : fmt::format("{} {}", r.prefix.toString(), r.value);
}
std::string answerText(const std::optional<depottrie::Route>& r) { return r ? routeText(*r) : "none"; }
// A route's fields as JSON: "prefix" (or `key`) and "value", null when none.
std::string jsonRoute(const std::optional<depottrie::Route>& r, std::string_view key = "prefix") {
  if (!r) return jsonObject({{key, "null"}, {"value", "null"}});
  return jsonObject({{key, jsonString(r->prefix.toString())}, {"value", std::to_string(r->value)}});
}

// Answers queries in the order given, in batches of the table's batched
// lookup: a batch is answered when it is full or when the input is about
// to wait, so answers stream out as fast as queries come in.
class Lookups {
 public:
  Lookups(const depottrie::RouteTable& table, bool json) : table_(table), json_(json) {}
  void add(std::string_view text) {
    queries_.emplace_back(text);
    prefixes_.push_back(depottrie::detail::fromGen(prefixFromText(text)));
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
    table_.lookup(prefixes_, matches_);
    for (size_t i = 0; i < prefixes_.size(); ++i) {
      if (json_) {
        const std::string route = jsonRoute(matches_[i], "match");
        fmt::print("{{\"query\":{},{}\n", jsonString(queries_[i]), std::string_view(route).substr(1));
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
  const depottrie::RouteTable& table_;
  const bool json_;
  std::vector<std::string> queries_;
  std::vector<depottrie::Prefix> prefixes_;
  std::vector<std::optional<depottrie::Route>> matches_;
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
  const depottrie::RouteTable table = depottrie::RouteTable::openReader(target.name, target.options());
  Lookups lookups(table, json);
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

// The prefixes inside `under` (every one of the family when it is empty),
// in order, each family from one state of the table.
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
  const depottrie::RouteTable table = depottrie::RouteTable::openReader(target.name, target.options());
  Progress progress("listing", {.items = "prefixes", .streamsToStdout = true});
  U64 listed = 0;
  auto print = [&](const depottrie::Route& r) {
    fmt::print("{}\n", json ? jsonRoute(r) : routeText(r));
    progress.update(0, ++listed);
    return true;
  };
  if (!root.isEmpty()) table.covered(depottrie::detail::fromGen(root), print);
  if (root.isEmpty() && family != 6) table.covered("0.0.0.0/0", print);
  if (root.isEmpty() && family != 4) table.covered("::/0", print);
  return 0;
}

// The trie's successor order, with its start of an enumeration: the
// all-ones host prefix of a family gives the family's first route.
int nextCommand(const Target& target, const std::string& prefix, bool json) {
  IpGenPrefix p = prefixFromText(prefix);
  if (defaultRouteKey(p)) {
    throw UsageError(fmt::format("{} is where the default route is stored; it cannot start a search", p));
  }
  const depottrie::RouteTable table = depottrie::RouteTable::openReader(target.name, target.options());
  std::optional<depottrie::Route> next;
  if (p == IpGenPrefix(Routing::Lattice::rootPrefix) || p == IpGenPrefix(Routing::Lattice::rootPrefix6)) {
    const depottrie::Prefix all = p.af() == AddressFamily::ipv4 ? "0.0.0.0/0" : "::/0";
    next = table.find(all);
    if (!next) next = table.next(all);
  } else {
    next = table.next(depottrie::detail::fromGen(p));
  }
  if (json) {
    const std::string route = jsonRoute(next, "next");
    fmt::print("{{\"prefix\":{},{}\n", jsonPrefix(p), std::string_view(route).substr(1));
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
