// Runs the depottrie binary as a user would and checks its output and exit
// status.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "TrieLib/DepotTrie.h"
#include "TrieLib/TrieMount.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

class DepottrieCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/depottrie-cli-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    root_ = dir_ + "/root";
    std::filesystem::create_directory(root_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  void writeFile(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
  }
  std::string readFile(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  // Runs depottrie with args (shell words) and input on standard input.
  Result run(const std::string& args, const std::string& input = "") const {
    writeFile("in", input);
    std::string cmd = fmt::format("'{}' {} <'{}' >'{}' 2>'{}'", DEPOTTRIE_BIN, args, path("in"), path("out"),
                                  path("err"));
    int rc = std::system(cmd.c_str());
    Result r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = readFile("out");
    r.err = readFile("err");
    return r;
  }
  // The same against the test's own shared-memory root.
  Result shared(const std::string& args, const std::string& input = "") const {
    return run(fmt::format("--root '{}' {}", root_, args), input);
  }
  Routing::Lattice::MountOptions mountOptions() const {
    Routing::Lattice::MountOptions o;
    o.root = root_;
    return o;
  }

  std::string dir_;
  std::string root_;
};

const std::string null4 = "255.255.255.255/32";
const std::string null6 = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128";

}  // namespace

TEST_F(DepottrieCli, helpAndUsage) {
  Result r = run("--help");
  EXPECT_EQ(r.status, 0);
  for (const char* sub : {"load", "lookup", "list", "next", "stats", "check", "drop", "batch", "bench"}) {
    EXPECT_THAT(r.out, HasSubstr(sub));
  }
  for (const char* sub : {"load", "lookup", "list", "next", "stats", "check", "drop", "batch", "bench"}) {
    Result s = run(fmt::format("{} --help", sub));
    EXPECT_EQ(s.status, 0) << sub;
    EXPECT_THAT(s.out, HasSubstr("--name")) << sub;
  }
  EXPECT_NE(run("").status, 0);
  EXPECT_NE(run("frobnicate").status, 0);
  EXPECT_NE(run("batch --local --name x").status, 0);
  EXPECT_NE(run("list --family 5").status, 0);
}

TEST_F(DepottrieCli, batchIpv4Session) {
  const std::string session =
      "# IPv4 session\n"
      "add 10.0.0.0/8\n"
      "add 11.0.0.0/8\n"
      "add 10.1.0.0/16\n"
      "add 0.0.0.0/0\n"
      "\n"
      "lpm 10.1.2.3\n"
      "lpm 10.2.0.0/16\n"
      "lpm 12.0.0.1\n"
      "next 255.255.255.255/32\n"
      "visited\n"
      "next 0.0.0.0/0\n"
      "next 10.0.0.0/8\n"
      "next 10.1.0.0/16\n"
      "next 11.0.0.0/8\n"
      "walk 255.255.255.255/32\n"
      "walk 255.255.255.255/32 skip 10.0.0.0/8\n"
      "walk 255.255.255.255/32 abort 10.1.0.0/16\n"
      "walk 11.0.0.0/8\n"
      "records 4\n"
      "next 0.0.0.0/32\n"  // line 21
      "add 10.0.0.1/8\n"
      "lpm banana\n"
      "frobnicate 1\n"
      "records 5\n"
      "walk 10.0.0.0/8 skip\n"
      "walk 10.0.0.0/8 jump 10.0.0.0/8\n"  // line 27
      "del 11.0.0.0/8\n"
      "del 11.0.0.0/8\n"
      "del 10.0.0.0/9\n"
      "records 4\n";
  const std::string n = null4;
  const std::string expected =
      "10.1.0.0/16\n"
      "10.0.0.0/8\n"
      "0.0.0.0/0\n"
      "0.0.0.0/0\n"
      "0\n"
      "10.0.0.0/8\n"
      "10.1.0.0/16\n"
      "11.0.0.0/8\n"
      "none\n"
      "0.0.0.0/0 10.0.0.0/8 10.1.0.0/16 11.0.0.0/8\n"
      "0.0.0.0/0 10.0.0.0/8 11.0.0.0/8\n"
      "0.0.0.0/0 10.0.0.0/8 10.1.0.0/16\n"
      "0.0.0.0/0 11.0.0.0/8\n" +
      fmt::format("0.0.0.0/32 0x00000001 {0} {0} {0} {0}\n", n) +
      fmt::format("8.0.0.0/6 0x00000000 {0} {0} 10.1.0.0/16 11.0.0.0/8\n", n) +
      fmt::format("10.1.0.0/16 0x01010000 {0} {0} {0} {0}\n", n) +
      fmt::format("11.0.0.0/8 0x01000000 {0} {0} {0} {0}\n", n) +
      fmt::format("{0} 0x00000000 8.0.0.0/6 {0} {0} {0}\n", n) +
      "end\n"
      "true\n"
      "false\n"
      "false\n" +
      fmt::format("0.0.0.0/32 0x00000001 {0} {0} {0} {0}\n", n) +
      fmt::format("10.1.0.0/16 0x01010000 {0} {0} {0} {0}\n", n) +
      fmt::format("{0} 0x00000000 10.1.0.0/16 {0} {0} {0}\n", n) + "end\n";

  Result r = run("batch --local", session);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, expected);
  std::vector<std::string> errors = lines(r.err);
  ASSERT_EQ(errors.size(), 7u) << r.err;
  EXPECT_THAT(errors[0], StartsWith("error: line 21: "));
  EXPECT_THAT(errors[0], HasSubstr("0.0.0.0/32"));
  EXPECT_EQ(errors[1], "error: line 22: invalid IPv4 prefix '10.0.0.1/8'");
  EXPECT_EQ(errors[2], "error: line 23: invalid IPv4 prefix 'banana'");
  EXPECT_EQ(errors[3], "error: line 24: unknown command 'frobnicate'");
  EXPECT_EQ(errors[4], "error: line 25: usage: records 4|6");
  EXPECT_THAT(errors[5], StartsWith("error: line 26: usage: walk"));
  EXPECT_THAT(errors[6], StartsWith("error: line 27: usage: walk"));
}

TEST_F(DepottrieCli, batchIpv6Session) {
  const std::string n = null6;
  const std::string session = fmt::format(
      "add 2001:db8::/32\n"
      "add 2001:db9::/32\n"
      "add 2001:db8::/48\n"
      "add ::/0\n"
      "lpm 2001:db8::1\n"
      "lpm 2001:db8:1::1\n"
      "lpm 3000::1\n"
      "next {0}\n"
      "visited\n"
      "next ::/0\n"
      "next 2001:db8::/32\n"
      "next 2001:db8::/48\n"
      "next 2001:db9::/32\n"
      "walk {0}\n"
      "walk {0} skip 2001:db8::/32\n"
      "walk {0} abort 2001:db8::/48\n"
      "records 6\n"
      "next ::/128\n"  // line 18
      "add 2001:db8::1/32\n"
      "lpm 2001:db8::/129\n"
      "del 2001:db9::/32\n"
      "del 2001:db9::/32\n"
      "records 6\n"
      "lpm 2001:db9::1\n",
      n);
  const std::string z = "0x00000000";
  const std::string expected =
      "2001:db8::/48\n"
      "2001:db8::/32\n"
      "::/0\n"
      "::/0\n"
      "0\n"
      "2001:db8::/32\n"
      "2001:db8::/48\n"
      "2001:db9::/32\n"
      "none\n"
      "::/0 2001:db8::/32 2001:db8::/48 2001:db9::/32\n"
      "::/0 2001:db8::/32 2001:db9::/32\n"
      "::/0 2001:db8::/32 2001:db8::/48\n" +
      fmt::format("::/128 {1} {1} {1} 0x00000001 {0} {0}\n", n, z) +
      fmt::format("2001:db8::/31 {1} {1} {1} {1} 2001:db8::/48 2001:db9::/32\n", n, z) +
      fmt::format("2001:db8::/48 0x00000001 0x00010000 {1} {1} {0} {0}\n", n, z) +
      fmt::format("2001:db9::/32 0x00000001 {1} {1} {1} {0} {0}\n", n, z) +
      fmt::format("{0} {1} {1} {1} {1} 2001:db8::/31 {0}\n", n, z) +
      "end\n"
      "true\n"
      "false\n" +
      fmt::format("::/128 {1} {1} {1} 0x00000001 {0} {0}\n", n, z) +
      fmt::format("2001:db8::/48 0x00000001 0x00010000 {1} {1} {0} {0}\n", n, z) +
      fmt::format("{0} {1} {1} {1} {1} 2001:db8::/48 {0}\n", n, z) +
      "end\n"
      "::/0\n";

  Result r = run("batch --local", session);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, expected);
  std::vector<std::string> errors = lines(r.err);
  ASSERT_EQ(errors.size(), 3u) << r.err;
  EXPECT_THAT(errors[0], StartsWith("error: line 18: "));
  EXPECT_THAT(errors[0], HasSubstr("::/128"));
  EXPECT_EQ(errors[1], "error: line 19: invalid IPv6 prefix '2001:db8::1/32'");
  EXPECT_EQ(errors[2], "error: line 20: invalid IPv6 prefix '2001:db8::/129'");
}

TEST_F(DepottrieCli, batchWithoutErrorsExitsZeroAndSurvivesGarbage) {
  Result clean = run("batch --local", "  # indented comment\n\tadd 10.0.0.0/8\r\nlpm 10.9.9.9\nwalk 1.0.0.0/8\n");
  EXPECT_EQ(clean.status, 0);
  EXPECT_EQ(clean.out, "10.0.0.0/8\n\n");
  EXPECT_EQ(clean.err, "");

  std::string garbage;
  for (int i = 0; i < 2048; ++i) garbage += char((i * 7919) % 256);
  garbage += "\nadd\nadd 1.2.3.4/33\nlpm ::/0 ::/0\nnext\nvisited 4\n";
  Result r = run("batch --local", garbage);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  for (const std::string& l : lines(r.err)) EXPECT_THAT(l, StartsWith("error: line "));
}

TEST_F(DepottrieCli, loadReportsBadLinesAndKeepsTheRest) {
  writeFile("routes.txt",
            "# sample\n"
            "10.0.0.0/8\n"
            "10.0.0.1/8\n"
            "\n"
            "192.168.0.0/16   # trailing comment\n"
            "2001:db8::/32\n"
            "2001:zz8::/32\n"
            "0.0.0.0/32\n");
  Result r = shared(fmt::format("load --name t '{}'", path("routes.txt")));
  EXPECT_EQ(r.status, 1);
  std::vector<std::string> errors = lines(r.err);
  ASSERT_EQ(errors.size(), 3u) << r.err;
  EXPECT_EQ(errors[0], fmt::format("{}:3: invalid IPv4 prefix '10.0.0.1/8'", path("routes.txt")));
  EXPECT_EQ(errors[1], fmt::format("{}:7: invalid IPv6 prefix '2001:zz8::/32'", path("routes.txt")));
  EXPECT_THAT(errors[2], StartsWith(fmt::format("{}:8: ", path("routes.txt"))));
  EXPECT_THAT(r.out, HasSubstr("loaded 3 prefixes (2 IPv4, 1 IPv6)"));
  EXPECT_THAT(r.out, HasSubstr("3 bad lines"));

  Result look = shared("lookup --name t 10.1.2.3 192.168.7.7 2001:db8::1 172.16.0.1");
  EXPECT_EQ(look.status, 0) << look.err;
  EXPECT_EQ(look.out, "10.1.2.3 10.0.0.0/8\n192.168.7.7 192.168.0.0/16\n2001:db8::1 2001:db8::/32\n172.16.0.1 none\n");

  Result list = shared("list --name t");
  EXPECT_EQ(list.out, "10.0.0.0/8\n192.168.0.0/16\n2001:db8::/32\n");
  EXPECT_EQ(shared("check --name t").status, 0);

  // A clean file exits 0.
  writeFile("good.txt", "172.16.0.0/12\n");
  EXPECT_EQ(shared(fmt::format("load --name t '{}'", path("good.txt"))).status, 0);
}

TEST_F(DepottrieCli, loadReadsXzAndStandardInput) {
  writeFile("v6.txt", "2001:db8::/32\n2001:db8:1::/48\n");
  ASSERT_EQ(std::system(fmt::format("xz -k '{}'", path("v6.txt")).c_str()), 0);
  Result r = shared(fmt::format("load --name t '{}' -", path("v6.txt.xz")), "10.0.0.0/8\n11.0.0.0/8");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("loaded 4 prefixes (2 IPv4, 2 IPv6)"));
  EXPECT_EQ(shared("list --name t --family 6").out, "2001:db8::/32\n2001:db8:1::/48\n");
  EXPECT_EQ(shared("list --name t --under 11.0.0.0/8").out, "11.0.0.0/8\n");

  // Damaged compressed data and unreadable files end in one clear line each.
  std::string xz = readFile("v6.txt.xz");
  writeFile("cut.xz", xz.substr(0, xz.size() / 2));
  Result cut = shared(fmt::format("load --name t '{}'", path("cut.xz")));
  EXPECT_EQ(cut.status, 1);
  EXPECT_THAT(cut.err, HasSubstr(path("cut.xz")));
  Result missing = shared(fmt::format("load --name t '{}'", path("absent.txt")));
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, fmt::format("depottrie: cannot open {}: No such file or directory\n", path("absent.txt")));
}

TEST_F(DepottrieCli, missingTrieIsOneClearError) {
  const std::string expected = fmt::format("depottrie: no trie named nosuch under {}\n", root_);
  for (const char* cmd : {"lookup --name nosuch 10.0.0.1", "list --name nosuch", "next --name nosuch 10.0.0.0/8",
                          "stats --name nosuch", "check --name nosuch", "drop --name nosuch"}) {
    Result r = shared(cmd);
    EXPECT_EQ(r.status, 1) << cmd;
    EXPECT_EQ(r.err, expected) << cmd;
  }
}

TEST_F(DepottrieCli, sharedTrieQueriesAndDrop) {
  Result b = shared("batch --name t",
                    "add 10.0.0.0/8\nadd 10.128.0.0/9\nadd 2001:db8::/32\nadd 0.0.0.0/0\n"
                    "add 1.0.2.0/23\nadd 1.0.0.0/24\n");
  EXPECT_EQ(b.status, 0) << b.err;

  EXPECT_EQ(shared("next --name t 10.0.0.0/8").out, "10.128.0.0/9\n");
  EXPECT_EQ(shared(fmt::format("next --name t {}", null4)).out, "0.0.0.0/0\n");
  Result bad = shared("next --name t 0.0.0.0/32");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(lines(bad.err).size(), 1u);
  EXPECT_EQ(shared("list --name t --under 10.0.0.0/8").out, "10.0.0.0/8\n10.128.0.0/9\n");
  // 1.0.3.5 lies in 1.0.2.0/23, whose node hangs in the slot beside the
  // address's own: lookup still finds it.
  Result look = shared("lookup --name t 10.200.0.1 nonsense 1.0.3.5");
  EXPECT_EQ(look.status, 1);
  EXPECT_EQ(look.out, "10.200.0.1 10.128.0.0/9\n1.0.3.5 1.0.2.0/23\n");
  EXPECT_EQ(look.err, "depottrie: invalid IPv4 prefix 'nonsense'\n");

  Result stats = shared("stats --name t");
  EXPECT_EQ(stats.status, 0) << stats.err;
  EXPECT_THAT(stats.out, HasSubstr("prefixes: 5 IPv4, 1 IPv6"));
  EXPECT_THAT(stats.out, HasSubstr("depth histogram"));

  Result bench = shared("bench --name t --count 1000");
  EXPECT_EQ(bench.status, 0) << bench.err;
  std::vector<std::string> report = lines(bench.out);
  ASSERT_EQ(report.size(), 4u) << bench.out;
  EXPECT_THAT(report[0], StartsWith("IPv4 lpm: 1000 lookups"));
  EXPECT_THAT(report[1], StartsWith("IPv4 longestMatch: 1000 lookups"));
  EXPECT_THAT(report[1], HasSubstr("5 prefixes stored, 0 without an answer"));
  EXPECT_THAT(report[3], HasSubstr("IPv6 longestMatch: 1000 lookups"));
  EXPECT_THAT(report[3], HasSubstr("1 prefixes stored, 0 without an answer"));

  EXPECT_EQ(shared("drop --name t").status, 0);
  EXPECT_THAT(shared("lookup --name t 10.0.0.1").err, HasSubstr("no trie named t"));
}

TEST_F(DepottrieCli, checkFindsDamageAndSecondWriterIsRefused) {
  EXPECT_EQ(shared("batch --name t", "add 10.0.0.0/8\nadd 11.0.0.0/8\n").status, 0);
  Result healthy = shared("check --name t");
  EXPECT_EQ(healthy.status, 0);
  EXPECT_THAT(healthy.out, HasSubstr("no problems"));

  // This process becomes the writer and leaves a child key dangling.
  Basis::Ptr<Routing::Lattice::Trie> writer = Routing::Lattice::trieWriterNew("t", mountOptions());
  Routing::Lattice::TrieNode split = writer->trieNode(Addrkit::Prefix("8.0.0.0/6"));
  split.child01Is(Addrkit::Prefix("9.0.0.0/8"));
  writer->trieNodeIs(split);

  Result damaged = shared("check --name t");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_THAT(damaged.out, HasSubstr("child 9.0.0.0/8 is not stored"));

  Result second = shared("batch --name t", "add 12.0.0.0/8\n");
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(lines(second.err).size(), 1u) << second.err;
  EXPECT_THAT(second.err, StartsWith("depottrie: "));
}

TEST_F(DepottrieCli, traceOptionSwitchesOnLibraryTracing) {
  Result quiet = run("batch --local", "add 10.0.0.0/8\n");
  EXPECT_EQ(quiet.err, "");
  Result traced = run("--trace DepotTrie/8 batch --local", "add 10.0.0.0/8\n");
  EXPECT_EQ(traced.status, 0);
  EXPECT_THAT(traced.err, HasSubstr("[DepotTrie:8]"));
  EXPECT_THAT(traced.err, HasSubstr("10.0.0.0/8"));
  Result bad = run("--trace DepotTrie/x batch --local", "");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(lines(bad.err).size(), 1u);
}
