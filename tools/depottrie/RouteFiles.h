#pragma once
// Route files as load and diff read them: "PREFIX [VALUE]" a line (VALUE a
// decimal number, 0 when absent), # comments and blank lines ignored, "-"
// for standard input, xz data read directly.
#include <functional>
#include <string>
#include <vector>

#include "Addrkit/Prefix.h"
#include "Progress.h"

namespace DepotTrieTool {

// What a good line of a route file gives.
struct Route {
  Addrkit::IpGenPrefix prefix;
  U64 value = 0;
};

struct RouteFileCounts {
  U64 badLines = 0;
  U64 failedFiles = 0;  // files that could not be opened or read to the end
};

// The bytes of the regular files among them (for the progress bar).
U64 routeFilesSize(const std::vector<std::string>& files);
// Calls each(route) for every good line of the files in order. A bad line
// (bad prefix, a key the trie reserves, a value that is no number, more
// text after it, too long) is
// reported on standard error as "depottrie: FILE:LINE: REASON" and skipped,
// and so is a file that cannot be read, with what is wrong; progress counts
// the bytes read, and items as each returns them. beforeWait, when given,
// is called before each read that may wait for more input (a pipe).
RouteFileCounts readRouteFiles(const std::vector<std::string>& files, Progress& progress,
                               const std::function<U64(const Route&)>& each,
                               const std::function<void()>& beforeWait = {});

}  // namespace DepotTrieTool
