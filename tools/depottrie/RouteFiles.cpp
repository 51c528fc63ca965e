#include "RouteFiles.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdint>
#include <exception>
#include <optional>
#include <string_view>

#include "Commands.h"
#include "Input.h"
#include "RouteTable/Convert.h"

namespace DepotTrieTool {
namespace {

constexpr const char* blanks = " \t\r\v\f";

// The words of the line before its comment.
std::vector<std::string_view> routeWords(std::string_view line) {
  line = line.substr(0, line.find('#'));
  std::vector<std::string_view> words;
  for (size_t at = line.find_first_not_of(blanks); at != std::string_view::npos;
       at = line.find_first_not_of(blanks, at)) {
    const size_t end = std::min(line.find_first_of(blanks, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

Route routeOf(const std::vector<std::string_view>& words) {
  Route route{prefixFromText(words[0])};
  if (depottrie::RouteTable::reserved(depottrie::detail::fromGen(route.prefix))) {
    throw Basis::RangeException(fmt::format("prefix '{}' is reserved by the trie and cannot be stored", words[0]));
  }
  if (words.size() > 1) {
    const std::string_view v = words[1];
    const auto [end, error] = std::from_chars(v.data(), v.data() + v.size(), route.value);
    if (error != std::errc() || end != v.data() + v.size())
      throw Basis::RangeException(fmt::format("value '{}' is not a number from 0 to {}", v, UINT64_MAX));
  }
  if (words.size() > 2) throw Basis::RangeException(fmt::format("unexpected '{}' after the value", words[2]));
  return route;
}

}  // namespace

U64 routeFilesSize(const std::vector<std::string>& files) {
  U64 total = 0;
  for (const std::string& path : files) {
    struct stat st {};
    if (path != "-" && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += U64(st.st_size);
  }
  return total;
}

RouteFileCounts readRouteFiles(const std::vector<std::string>& files, Progress& progress,
                               const std::function<U64(const Route&)>& each,
                               const std::function<void()>& beforeWait) {
  RouteFileCounts counts;
  U64 bytesBefore = 0;  // of the files finished
  U64 items = 0;
  // Only the files' own errors are caught here: what each() raises (a full
  // table, a writer that lost its tables) ends the whole command.
  auto failed = [&](const Basis::Exception& e) {
    progress.print(stderr, fmt::format("depottrie: {}\n", e.what()));
    ++counts.failedFiles;
  };
  std::exception_ptr waitFailure;  // raised by beforeWait, which belongs to the caller as each() does
  for (const std::string& f : files) {
    std::optional<InputFile> in;
    try {
      in.emplace(f);
      if (beforeWait) in->beforeWaitIs([&] {
        try {
          beforeWait();
        } catch (...) {
          waitFailure = std::current_exception();
          throw;
        }
      });
    } catch (const Basis::Exception& e) {
      failed(e);
      continue;
    }
    std::string line;
    for (U64 lineNo = 1;; ++lineNo) {
      try {
        if (!in->readLine(line)) break;
      } catch (const Basis::Exception& e) {
        if (waitFailure) std::rethrow_exception(waitFailure);
        failed(e);
        break;
      }
      Route route;
      try {
        if (in->lineTooLong()) throw Basis::RangeException(tooLongMessage(line));
        const std::vector<std::string_view> words = routeWords(line);
        if (words.empty()) continue;
        route = routeOf(words);
      } catch (const Basis::RangeException& e) {
        progress.print(stderr, fmt::format("depottrie: {}:{}: {}\n", in->displayName(), lineNo, e.what()));
        ++counts.badLines;
        continue;
      }
      items = each(route);
      progress.update(bytesBefore + in->consumed(), items);
    }
    bytesBefore += in->consumed();
  }
  return counts;
}

}  // namespace DepotTrieTool
