#pragma once
// Line-by-line reading of route files: plain text or xz-compressed (told
// apart by the xz magic bytes, so compressed standard input works too).
#include <lzma.h>

#include <functional>
#include <string>
#include <vector>

#include "Basis/Types.h"
#include "Lines.h"

namespace DepotTrieTool {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

class InputFile {
 public:
  // "-" is standard input. Raises Basis::SystemException naming the file
  // when it cannot be opened.
  explicit InputFile(const std::string& path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  // The name used in messages ("<stdin>" for standard input).
  const std::string& displayName() const { return displayName_; }
  // Next line without its line end; false at the end of the input. Raises
  // Basis::Exception naming the file on a read error or damaged xz data. A
  // line longer than maxLineBytes gives its first bytes and lineTooLong().
  bool readLine(std::string& line);
  bool lineTooLong() const { return tooLong_; }
  // Bytes of the file taken in so far (read and passed on to the decoder or
  // the line buffer), and its size (0 when unknown).
  U64 consumed() const { return readBytes_ - (rawLen_ - rawPos_); }
  U64 size() const { return size_; }
  // Called before each read that may wait for input: a reader that answers
  // as it reads (lookup -) sends what it has before it waits.
  void beforeWaitIs(std::function<void()> hook) { beforeWait_ = std::move(hook); }

 private:
  // Everything after opening: file kind, size, xz detection.
  void start(const std::string& path);
  // Refills text_ from the file; false at the end.
  bool fill();
  size_t readRaw(U8* buf, size_t n);

  std::string displayName_;
  int fd_ = -1;
  bool ownsFd_ = false;
  bool xz_ = false;
  bool rawEnd_ = false;
  bool decodeEnd_ = false;
  lzma_stream lzma_ = LZMA_STREAM_INIT;
  std::vector<U8> raw_;
  size_t rawPos_ = 0;
  size_t rawLen_ = 0;
  std::string text_;
  size_t textPos_ = 0;
  U64 readBytes_ = 0;
  U64 size_ = 0;
  bool tooLong_ = false;
  std::function<void()> beforeWait_;
};

}  // namespace DepotTrieTool
