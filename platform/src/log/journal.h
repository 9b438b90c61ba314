// The system's journal, by its own protocol: a datagram a record, of fields that can be asked for.
#pragma once

#include "destinations.h"

namespace tov::log {

class Journal final : public Destination {
 public:
  explicit constexpr Journal(Destination& otherwise) noexcept : otherwise_(otherwise) {}
  bool take(const Record& record, int patienceMs) noexcept override;

 private:
  DatagramSocket socket_{"/run/systemd/journal/socket"};
  Destination& otherwise_;
};

}  // namespace tov::log
