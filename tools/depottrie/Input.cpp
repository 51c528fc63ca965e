#include "Input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Basis/Exception.h"

namespace DepotTrieTool {
namespace {

constexpr size_t rawChunk = size_t(1) << 16;
constexpr size_t textChunk = size_t(1) << 18;
constexpr U8 xzMagic[6] = {0xFD, '7', 'z', 'X', 'Z', 0x00};

const char* lzmaMessage(lzma_ret ret) {
  switch (ret) {
    case LZMA_FORMAT_ERROR: return "not in xz format";
    case LZMA_DATA_ERROR: return "compressed data is corrupt";
    case LZMA_BUF_ERROR: return "compressed data is truncated";
    case LZMA_MEM_ERROR: return "out of memory while decompressing";
    case LZMA_MEMLIMIT_ERROR: return "decompression needs too much memory";
    case LZMA_OPTIONS_ERROR: return "unsupported xz options";
    default: return "xz decoder error";
  }
}

}  // namespace

InputFile::InputFile(const std::string& path) : raw_(rawChunk) {
  if (path == "-") {
    displayName_ = "<stdin>";
    fd_ = STDIN_FILENO;
  } else {
    displayName_ = path;
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw Basis::SystemException(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
    ownsFd_ = true;
  }
  try {
    start(path);
  } catch (...) {
    if (ownsFd_) ::close(fd_);
    throw;
  }
}

void InputFile::start(const std::string& path) {
  struct stat st {};
  if (::fstat(fd_, &st) == 0) {
    if (S_ISDIR(st.st_mode)) throw Basis::SystemException(fmt::format("cannot read {}: {}", path, std::strerror(EISDIR)));
    if (S_ISREG(st.st_mode)) size_ = U64(st.st_size);
  }
  // Enough bytes to tell xz data from text; a pipe may deliver them
  // piecemeal, and a short first line typed at a terminal is text already.
  while (rawLen_ < sizeof xzMagic && !rawEnd_ && std::memcmp(raw_.data(), xzMagic, rawLen_) == 0) {
    size_t n = readRaw(raw_.data() + rawLen_, raw_.size() - rawLen_);
    if (n == 0) rawEnd_ = true;
    rawLen_ += n;
  }
  if (rawLen_ >= sizeof xzMagic && std::memcmp(raw_.data(), xzMagic, sizeof xzMagic) == 0) {
    lzma_ret ret = lzma_stream_decoder(&lzma_, UINT64_MAX, LZMA_CONCATENATED);
    if (ret != LZMA_OK) throw Basis::Exception(fmt::format("{}: {}", displayName_, lzmaMessage(ret)));
    xz_ = true;
  }
}

InputFile::~InputFile() {
  if (xz_) lzma_end(&lzma_);
  if (ownsFd_) ::close(fd_);
}

size_t InputFile::readRaw(U8* buf, size_t n) {
  if (beforeWait_) beforeWait_();
  for (;;) {
    ssize_t got = ::read(fd_, buf, n);
    if (got >= 0) {
      readBytes_ += U64(got);
      return size_t(got);
    }
    if (errno != EINTR) throw Basis::SystemException(fmt::format("cannot read {}: {}", displayName_, std::strerror(errno)));
  }
}

bool InputFile::fill() {
  text_.erase(0, textPos_);
  textPos_ = 0;
  if (!xz_) {
    if (rawPos_ == rawLen_) {
      if (rawEnd_) return false;
      rawPos_ = 0;
      rawLen_ = readRaw(raw_.data(), raw_.size());
      if (rawLen_ == 0) {
        rawEnd_ = true;
        return false;
      }
    }
    text_.append(reinterpret_cast<const char*>(raw_.data() + rawPos_), rawLen_ - rawPos_);
    rawPos_ = rawLen_;
    return true;
  }
  while (!decodeEnd_) {
    if (rawPos_ == rawLen_ && !rawEnd_) {
      rawPos_ = 0;
      rawLen_ = readRaw(raw_.data(), raw_.size());
      rawEnd_ = rawLen_ == 0;
    }
    lzma_.next_in = raw_.data() + rawPos_;
    lzma_.avail_in = rawLen_ - rawPos_;
    const size_t old = text_.size();
    text_.resize(old + textChunk);
    lzma_.next_out = reinterpret_cast<U8*>(text_.data() + old);
    lzma_.avail_out = textChunk;
    lzma_ret ret = lzma_code(&lzma_, rawEnd_ ? LZMA_FINISH : LZMA_RUN);
    const size_t produced = textChunk - lzma_.avail_out;
    text_.resize(old + produced);
    rawPos_ = rawLen_ - lzma_.avail_in;
    if (ret == LZMA_STREAM_END) {
      decodeEnd_ = true;
    } else if (ret != LZMA_OK) {
      throw Basis::Exception(fmt::format("{}: {}", displayName_, lzmaMessage(ret)));
    }
    if (produced > 0) return true;
  }
  return false;
}

// Past maxLineBytes without a line end, the line's start is kept and the
// rest of it is dropped as it is read.
bool InputFile::readLine(std::string& line) {
  tooLong_ = false;
  size_t scanFrom = textPos_;
  for (;;) {
    size_t nl = text_.find('\n', scanFrom);
    if (nl != std::string::npos) {
      if (!tooLong_ && nl - textPos_ > maxLineBytes) tooLong_ = true, line.assign(text_, textPos_, maxLineBytes);
      if (!tooLong_) line.assign(text_, textPos_, nl - textPos_);
      textPos_ = nl + 1;
      break;
    }
    if (!tooLong_ && text_.size() - textPos_ > maxLineBytes) tooLong_ = true, line.assign(text_, textPos_, maxLineBytes);
    if (tooLong_) textPos_ = text_.size();
    scanFrom = text_.size() - textPos_;
    if (!fill()) {
      if (textPos_ == text_.size() && !tooLong_) return false;
      if (!tooLong_) line.assign(text_, textPos_, std::string::npos);
      textPos_ = text_.size();
      break;
    }
  }
  if (!tooLong_ && !line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

}  // namespace DepotTrieTool
