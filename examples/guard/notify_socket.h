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

  // The next message, empty when it is from another process than the sender. False without one.
  [[nodiscard]] bool receive(pid_t sender, std::string& text) const {
    std::array<char, 4000> bytes{};  // a line of ours with all of it is not too long
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec part{bytes.data(), bytes.size()};
    msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
    const ssize_t length = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    ucred credentials{};
    if (length > 0 && header != nullptr && header->cmsg_type == SCM_CREDENTIALS) {
      std::memcpy(&credentials, CMSG_DATA(header), sizeof(credentials));
    }
    text.assign(bytes.data(), credentials.pid == sender ? static_cast<size_t>(length) : 0);
    return length >= 0;
  }

 private:
  int socket_ = -1;
  std::string address_;
};
