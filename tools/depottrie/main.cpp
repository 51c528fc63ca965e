// depottrie: load, inspect and query DepotTrie route tables in shared memory.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <exception>

#include "Commands.h"
#include "Kiln/Trace.h"
#include "TrieLib/TrieTrace.h"
#include "TrieLib/Version.h"

namespace {

using namespace DepotTrieTool;

constexpr int usageStatus = 2;

// Prints "depottrie: MESSAGE" and where to read more; the usage status.
int usageError(const CLI::App& app, std::string_view message) {
  std::string command = "depottrie";
  for (const CLI::App* sub : app.get_subcommands()) command += " " + sub->get_name();
  std::fflush(stdout);
  fmt::print(stderr, "depottrie: {} (see {} --help)\n", message, command);
  return usageStatus;
}

// What CLI11 found wrong with the command line, said as this tool says it.
int parseError(const CLI::App& app, const CLI::ParseError& e) {
  if (app.get_subcommands().empty()) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) names.push_back(sub->get_name());
    const std::vector<std::string> rest = app.remaining();
    const std::string known = fmt::format("{}", fmt::join(names, ", "));
    if (rest.empty()) return usageError(app, fmt::format("a subcommand is required: {}", known));
    if (rest[0].starts_with("-") && rest[0] != "-") return usageError(app, fmt::format("unknown option '{}'", rest[0]));
    return usageError(app, fmt::format("unknown subcommand '{}'; the subcommands are {}", rest[0], known));
  }
  return usageError(app, e.what());
}

// A whole decimal number from min to max, without sign or leading zero.
CLI::Validator wholeNumber(U64 min, U64 max) {
  return CLI::Validator(
      [min, max](std::string& text) {
        U64 v = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
        const bool ok = !text.empty() && ec == std::errc() && end == text.data() + text.size() &&
                        (text[0] != '0' || text.size() == 1) && v >= min && v <= max;
        return ok ? std::string() : fmt::format("{} is not a whole number from {} to {}", text, min, max);
      },
      max == UINT64_MAX ? std::string() : fmt::format("{}..{}", min, max));
}

// Trace settings may only name the handles the tool's libraries trace to.
const CLI::Validator traceSetting(
    [](std::string& text) {
      const std::vector<std::string> known = {Routing::Lattice::trieTrace().name()};
      try {
        for (const std::string& name : Kiln::traceSettingHandles(text)) {
          if (std::find(known.begin(), known.end(), name) == known.end())
            return fmt::format("unknown trace name '{}' in '{}'; the names are {}", name, text, fmt::join(known, ", "));
        }
      } catch (const Basis::RangeException& e) {
        return std::string(e.what());
      }
      return std::string();
    },
    "NAME/LEVELS");

// Prefix text as the commands take it.
const CLI::Validator prefixText(
    [](std::string& text) {
      try {
        prefixFromText(text);
        return std::string();
      } catch (const Basis::RangeException& e) {
        return std::string(e.what());
      }
    },
    "PREFIX");

// Octal permission bits that leave the owner (the writer) read and write.
const CLI::Validator octalMode(
    [](std::string& text) {
      const bool octal = !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
      const unsigned long mode = octal ? std::stoul(text, nullptr, 8) : 0;
      if (!octal || mode > 0777) return fmt::format("{} is not a mode in octal, such as 0600, 0640 or 0644", text);
      return (mode & 0600) == 0600 ? std::string() : fmt::format("{} leaves the owner without read and write", text);
    },
    "OCTAL");

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Load, inspect and query DepotTrie route tables in shared memory.", "depottrie"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", "depottrie " DEPOTTRIE_VERSION, "print the version and exit");
  std::string root;
  std::string trace;
  app.add_option("--root", root, "directory of the shared tables (default: $DEPOT_ROOT, else /dev/shm/depot)");
  app.add_option("--trace", trace, "trace levels as in KILN_TRACE, e.g. DepotTrie/0-9")->check(traceSetting);

  Target target;
  bool json = false;
  auto jsonFlag = [&json](CLI::App* sub, const char* form) {
    sub->add_flag("--json", json, fmt::format("print JSON: {}", form));
  };
  auto nameOption = [&target](CLI::App* sub) {
    return sub->add_option("--name,-n", target.name, "trie name")->capture_default_str();
  };
  auto modeOption = [&target](CLI::App* sub) {
    return sub
        ->add_option_function<std::string>(
            "--mode", [&target](const std::string& text) { target.mount.mode = U32(std::stoul(text, nullptr, 8)); },
            "permission bits of the files of a new trie (default 0644); an existing trie keeps its own")
        ->check(octalMode);
  };

  std::vector<std::string> files;
  CLI::App* load = app.add_subcommand("load", "insert prefixes from files into a shared trie (its writer)");
  load->add_option("files", files,
                   "one route per line, PREFIX [VALUE] (a number, 0 when absent), # comments; - is standard input; .xz "
                   "is read directly")
      ->required();
  nameOption(load);
  modeOption(load);
  load->add_option("--feed-entries", target.feedEntries, "changes a new table's change feed keeps (see watch)")
      ->capture_default_str()
      ->check(wholeNumber(2, U64(1) << 30));

  std::vector<std::string> queries;
  CLI::App* lookup = app.add_subcommand("lookup", "the longest stored prefix covering each address or prefix");
  lookup->add_option("queries", queries, "addresses or prefixes; - reads them from standard input, one a line")
      ->required();
  nameOption(lookup);
  jsonFlag(lookup, "one object a line, {\"query\":...,\"match\":PREFIX or null}");

  std::string under;
  int family = 0;
  CLI::App* list = app.add_subcommand("list", "the stored prefixes in walk order");
  list->add_option("--under", under, "only the prefixes under this one")->check(prefixText);
  list->add_option("--family", family, "4 or 6 (default: both)")->check(CLI::IsMember({4, 6}));
  nameOption(list);
  jsonFlag(list, "one object a line, {\"prefix\":...}");

  std::string prefix;
  CLI::App* next = app.add_subcommand("next", "the stored prefix after a prefix (the null prefix of a family gives its first)");
  next->add_option("prefix", prefix, "a prefix, e.g. 10.0.0.0/8 or 255.255.255.255/32")->required()->check(prefixText);
  nameOption(next);
  jsonFlag(next, "{\"prefix\":...,\"next\":PREFIX or null}");

  CLI::App* stats = app.add_subcommand("stats", "records, occupancy, update counter and writer of each table; trie shape");
  nameOption(stats);
  jsonFlag(stats, "one object");

  CLI::App* check = app.add_subcommand("check", "verify the trie's structure; exit status 1 on damage");
  nameOption(check);
  jsonFlag(check, "one object, the problems as a list");

  CLI::App* drop = app.add_subcommand("drop", "remove a trie's shared tables");
  nameOption(drop);

  std::optional<U64> watchAfter;
  U64 watchCount = 0;
  double watchSeconds = 0;
  CLI::App* watch = app.add_subcommand("watch", "print a table's changes as its writer makes them");
  watch->add_option("--after", watchAfter, "start after this change number (0: the oldest kept; default: the latest)")
      ->check(wholeNumber(0, UINT64_MAX));
  watch->add_option("--count", watchCount, "stop after this many changes (default: never)")->check(wholeNumber(1, UINT64_MAX));
  watch->add_option("--seconds", watchSeconds, "stop after this long without changes to show (default: never)")
      ->check(CLI::PositiveNumber);
  watch->footer("Prints \"+ PREFIX [VALUE]\" for a route stored or given a new value (a value of 0 is not shown), "
                "\"- PREFIX\" for one removed. When changes were missed (the writer went round the feed first, or "
                "made changes it could not announce) it says so on stderr and prints \"*\" and every route as a "
                "\"+\" line: a program that replays the lines forgets what it has at \"*\".");
  nameOption(watch);

  std::string diffFile;
  CLI::App* diff = app.add_subcommand(
      "diff", "the trie against a route file: + for a prefix only the trie holds, - for one only the file holds");
  diff->add_option("file", diffFile, "a route file as load takes it; - is standard input")->required();
  diff->footer("Exit status: 0 when they hold the same prefixes, 1 when they differ, 2 on trouble.");
  nameOption(diff);

  bool local = false;
  bool readOnly = false;
  CLI::App* batch = app.add_subcommand("batch", "run the batch line protocol from standard input");
  CLI::Option* batchName = nameOption(batch);
  CLI::Option* batchMode = modeOption(batch);
  CLI::Option* batchLocal =
      batch->add_flag("--local", local, "use a process-local trie instead of a shared one")->excludes(batchName, batchMode);
  batch->add_flag("--read-only", readOnly, "queries only, as a reader of a shared trie that another process may be writing")
      ->excludes(batchLocal, batchMode);

  U64 count = 1000000;
  U64 seed = 1;
  CLI::App* bench = app.add_subcommand("bench", "timed random lookups of addresses inside stored prefixes");
  bench->add_option("--count", count, "lookups per family")->capture_default_str()->check(wholeNumber(1, 100000000));
  bench->add_option("--seed", seed, "random seed")->capture_default_str()->check(wholeNumber(0, UINT64_MAX));
  nameOption(bench);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help, --version
  } catch (const CLI::ParseError& e) {
    return parseError(app, e);
  }

  try {
    if (!trace.empty()) Kiln::traceConfigIs(trace);
    if (!root.empty()) target.mount.root = root;
    if (*load) return loadCommand(target, files);
    if (*lookup) return lookupCommand(target, queries, json);
    if (*list) return listCommand(target, under, family, json);
    if (*next) return nextCommand(target, prefix, json);
    if (*stats) return statsCommand(target, json);
    if (*check) return checkCommand(target, json);
    if (*drop) return dropCommand(target);
    if (*watch) return watchCommand(target, watchAfter, watchCount, watchSeconds);
    if (*diff) return diffCommand(target, diffFile);
    if (*batch) return batchCommand(target, local, readOnly);
    return benchCommand(target, count, seed);
  } catch (const UsageError& e) {
    return usageError(app, e.what());
  } catch (const std::exception& e) {
    std::fflush(stdout);
    fmt::print(stderr, "depottrie: {}\n", e.what());
    return *diff ? 2 : 1;  // diff's 1 says the two differ
  }
}
