// The receiving end of the notification protocol.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string>

class NotifySocket {
 public:
  NotifySocket() = default;
  ~NotifySocket() { close(socket_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  [[nodiscard]] int descriptor() const { return socket_; }
  [[nodiscard]] const std::string& address() const { return address_; }  // for NOTIFY_SOCKET

  // Makes a socket at an address of our own; on false, errno tells why.
  bool open() {
    // An abstract address, written with "@": nothing to clean up, whatever way we end.
    address_ = "@qurn-guard-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    address_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
    const int yes = 1;
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return socket_ >= 0 && bind(socket_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
           setsockopt(socket_, SOL_SOCKET, SO_PASSCRED, &yes, sizeof(yes)) == 0;
  }

  // The next message, or nothing when it is from another process than the sender.
  [[nodiscard]] std::string receive(pid_t sender) const {
    std::array<char, 4096> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec part{text.data(), text.size()};
    msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
    const ssize_t length = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (length <= 0 || header == nullptr || header->cmsg_type != SCM_CREDENTIALS) {
      return {};
    }
    ucred credentials{};
    std::memcpy(&credentials, CMSG_DATA(header), sizeof(credentials));
    return credentials.pid == sender ? std::string(text.data(), static_cast<size_t>(length))
                                     : std::string();
  }

 private:
  int socket_ = -1;
  std::string address_;
};
