#include "unpacker.h"

#define ZLIB_CONST  // what is unpacked stays as it is
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace qurn::report {
namespace {

constexpr size_t kBlockBytes = size_t{128} * 1024;

struct EndInflate {
  void operator()(z_stream* stream) const {
    inflateEnd(stream);
    delete stream;
  }
};

class Gzip : public Archive {
 public:
  std::string unpack(std::string_view& packed, const Take& take) override {
    if (!isReady_) {
      return "no memory to unpack it";
    }
    int result = Z_OK;
    do {
      stream_->next_in = reinterpret_cast<const Bytef*>(packed.data());
      stream_->avail_in = static_cast<uInt>(packed.size());
      stream_->next_out = reinterpret_cast<Bytef*>(block_.data());
      stream_->avail_out = static_cast<uInt>(block_.size());
      result = inflate(stream_.get(), Z_NO_FLUSH);
      packed.remove_prefix(packed.size() - stream_->avail_in);
      take({block_.data(), block_.size() - stream_->avail_out});
    } while (result == Z_OK && (!packed.empty() || stream_->avail_out == 0));
    setWhole(result == Z_STREAM_END);
    const bool isFine = result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR;
    return isFine ? "" : stream_->msg == nullptr ? "damaged" : stream_->msg;
  }

 private:
  static constexpr int kWithHeader = 16;

  std::unique_ptr<z_stream, EndInflate> stream_{new z_stream{}};
  bool isReady_ = inflateInit2(stream_.get(), MAX_WBITS + kWithHeader) == Z_OK;
  std::vector<char> block_ = std::vector<char>(kBlockBytes);
};

class Zstd : public Archive {
 public:
  std::string unpack(std::string_view& packed, const Take& take) override {
    if (stream_ == nullptr) {
      return "no memory to unpack it";
    }
    ZSTD_inBuffer in{packed.data(), packed.size(), 0};
    ZSTD_outBuffer out{block_.data(), block_.size(), 0};
    size_t result = 0;
    do {
      out.pos = 0;
      result = ZSTD_decompressStream(stream_.get(), &out, &in);
      take({block_.data(), out.pos});
    } while (result != 0 && ZSTD_isError(result) == 0 && (in.pos < in.size || out.pos == out.size));
    packed.remove_prefix(in.pos);
    setWhole(result == 0);
    return ZSTD_isError(result) == 0 ? "" : ZSTD_getErrorName(result);
  }

 private:
  std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> stream_{ZSTD_createDStream(),
                                                                     &ZSTD_freeDStream};
  std::vector<char> block_ = std::vector<char>(kBlockBytes);
};

// It must not pass for a log that tells of nothing.
class Other : public Archive {
 public:
  explicit Other(const char* why) : why_(why) {}
  std::string unpack(std::string_view& /*packed*/, const Take& /*take*/) override { return why_; }

 private:
  const char* why_;
};

std::unique_ptr<Archive> otherPacking() {
  return std::make_unique<Other>("packed by neither gzip nor zstd");
}
std::unique_ptr<Archive> otherEncoding() { return std::make_unique<Other>("not UTF-8"); }

struct Format {
  std::string_view start;
  unsigned char firstMask;  // of the first byte's bits that are always the same
  std::unique_ptr<Archive> (*archive)();
};

template <typename Kind>
std::unique_ptr<Archive> make() {
  return std::make_unique<Kind>();
}

constexpr std::array<Format, 11> kFormats{{
    {"\x1F\x8B", 0xFF, make<Gzip>},
    {"\x28\xB5\x2F\xFD", 0xFF, make<Zstd>},
    {"\x50\x2A\x4D\x18", 0xF0, make<Zstd>},    // a frame that is passed over
    {"\xFD\x37zX", 0xFF, otherPacking},        // xz
    {"BZh", 0xFF, otherPacking},               // bzip2
    {"\x04\x22\x4D\x18", 0xFF, otherPacking},  // lz4
    {"PK\x03\x04", 0xFF, otherPacking},        // zip
    {"LZIP", 0xFF, otherPacking},
    {"\x1F\x9D", 0xFF, otherPacking},   // compress
    {"\xFF\xFE", 0xFF, otherEncoding},  // UTF-16, as it begins in files
    {"\xFE\xFF", 0xFF, otherEncoding},
}};
constexpr size_t kStartBytes = 4;

// As far as the bytes go.
bool fits(const Format& format, std::string_view bytes) {
  const size_t length = std::min(bytes.size(), format.start.size());
  return length == 0 ||
         ((static_cast<unsigned char>(bytes[0] ^ format.start[0]) & format.firstMask) == 0 &&
          bytes.substr(1, length - 1) == format.start.substr(1, length - 1));
}

}  // namespace

void Unpacker::take(std::string_view block) {
  while (!block.empty()) {
    switch (kind_) {
      case Kind::kUnknown:
        recognise(block);
        break;
      case Kind::kPacked:
        unpack(block);
        break;
      case Kind::kPlain:
        take_(block);
        return;
      case Kind::kDamaged:
        return;
    }
  }
}

void Unpacker::recognise(std::string_view& block) {
  const size_t length = std::min(block.size(), kStartBytes - start_.size());
  start_ += block.substr(0, length);
  block.remove_prefix(length);
  const auto* format =
      std::find_if(kFormats.begin(), kFormats.end(),
                   [this](const Format& candidate) { return fits(candidate, start_); });
  if (format != kFormats.end() && start_.size() < format->start.size()) {
    return;
  }
  kind_ = format == kFormats.end() ? Kind::kPlain : Kind::kPacked;
  archive_ = format == kFormats.end() ? nullptr : format->archive();
  take(std::exchange(start_, {}));
}

void Unpacker::unpack(std::string_view& block) {
  mistake_ = archive_->unpack(block, take_);
  if (!mistake_.empty()) {
    kind_ = Kind::kDamaged;
  } else if (archive_->isWhole()) {
    kind_ = Kind::kUnknown;
  }
}

std::string Unpacker::end() {
  if (kind_ == Kind::kPacked) {
    mistake_ = "ends before its archive does";
  }
  if (!start_.empty()) {
    take_(std::exchange(start_, {}));
  }
  kind_ = Kind::kUnknown;
  return std::exchange(mistake_, {});
}

}  // namespace qurn::report
