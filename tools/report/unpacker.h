// Logs as they were before gzip or zstd packed them, known by their first bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qurn::report {

// One packed part, from its first byte to its last.
class Archive {
 public:
  using Take = std::function<void(std::string_view)>;

  Archive() = default;
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  virtual ~Archive() = default;

  // Hands on what it can of the packed bytes, and takes those that are its own off their front.
  // What is wrong with them, empty when nothing is.
  virtual std::string unpack(std::string_view& packed, const Take& take) = 0;
  [[nodiscard]] bool isWhole() const { return isWhole_; }

 protected:
  void setWhole(bool isWhole) { isWhole_ = isWhole; }

 private:
  bool isWhole_ = false;
};

// Takes a file in blocks of any size. What follows an archive is looked at anew: several archives,
// and a log behind them, may be one file.
class Unpacker {
 public:
  explicit Unpacker(Archive::Take take) : take_(std::move(take)) {}

  void take(std::string_view block);
  // What was wrong with the file, empty when nothing was.
  std::string end();

 private:
  enum class Kind : uint8_t { kUnknown, kPlain, kPacked, kDamaged };

  void recognise(std::string_view& block);
  void unpack(std::string_view& block);

  Archive::Take take_;
  Kind kind_ = Kind::kUnknown;
  std::string start_;  // too short to tell yet
  std::unique_ptr<Archive> archive_;
  std::string mistake_;
};

}  // namespace qurn::report
