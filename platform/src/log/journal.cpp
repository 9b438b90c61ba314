#include "journal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <concepts>
#include <cstring>
#include <utility>

#include "common/scoped_fd.h"
#include "destinations.h"
#include "events.h"
#include "line.h"
#include "text_builder.h"

namespace tov::log {
namespace {

// "KEY=value" lines: no value has a line break in it.
class Fields {
 public:
  explicit Fields(const Record& record) noexcept {  // NOLINT(*-pro-type-member-init)
    constexpr std::array<int, 3> kPriorities{LOG_INFO, LOG_WARNING, LOG_ERR};
    const Line line(record);
    const MessageId id = messageIdOf(record.format);
    add("MESSAGE", line.message());
    add("PRIORITY", kPriorities[static_cast<size_t>(record.level)]);
    add("MESSAGE_ID", {id.data(), id.size()});
    add("SYSLOG_IDENTIFIER", program_invocation_short_name);
    add("CODE_FILE", record.path);
    add("CODE_LINE", record.line);
    add("THREAD_NAME", record.thread);
    add("TID", record.tid);
    Record written = record;
    written.text = line.message();
    addTold(toldBy(written));
  }

  [[nodiscard]] std::string_view text() const noexcept { return text_.text(); }

 private:
  void add(std::string_view key, std::string_view value) noexcept {
    text_.add(key).add("=").addEscaped(value).add("\n");
  }
  template <std::integral Number>
  void add(std::string_view key, Number number) noexcept {
    text_.add(key).add("=").addNumber(static_cast<uint64_t>(number)).add("\n");
  }
  void addTold(const Told& told) noexcept {
    const std::array<std::pair<std::string_view, std::string_view>, 5> values{
        {{"QURN_THREAD", told.thread},
         {"QURN_TID", told.tid},
         {"QURN_SILENCE_MS", told.silenceMs},
         {"QURN_FRAME_NUMBER", told.frameNumber},
         {"QURN_FRAME", told.frame}}};
    for (const auto& [key, value] : values) {
      if (!value.empty()) {
        add(key, value);
      }
    }
  }

  // The message, once more what it tells, and the rest.
  std::array<char, 3 * kMostLineBytes> bytes_;  // NOLINT: filled as far as the text goes
  TextBuilder text_{bytes_.data(), bytes_.size()};
};

// What is too long for a datagram is handed over as a file that nobody can change any more.
DatagramSocket::Answer sendAsFile(DatagramSocket& socket, std::string_view text,
                                  int patienceMs) noexcept {
  const qurn::ScopedFd file(memfd_create("journal record", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!file.valid() || write(file.get(), text.data(), text.size()) < 0 ||
      fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) !=
          0) {
    return DatagramSocket::Answer::kNobody;
  }
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  const int descriptor = file.get();
  memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
  return socket.send(message, patienceMs);
}

}  // namespace

bool writeToJournal(const Record& record, int patienceMs) noexcept {
  static constinit DatagramSocket socket("/run/systemd/journal/socket");
  const Fields fields(record);
  iovec part = partOf(fields.text());
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  auto answer = socket.send(message, patienceMs);
  if (answer == DatagramSocket::Answer::kTooLong) {
    answer = sendAsFile(socket, fields.text(), patienceMs);
  }
  return answer == DatagramSocket::Answer::kNobody ? writeToStandardError(record, patienceMs)
                                                   : answer == DatagramSocket::Answer::kTaken;
}

}  // namespace tov::log
