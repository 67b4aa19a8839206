#include "testing/raw_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace saffra::testing {

RawConnection::RawConnection(int port, const std::string& sourceAddress, int readTimeoutSeconds)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (fd_ < 0) return;
  timeval limit{readTimeoutSeconds, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (!sourceAddress.empty()) {
    sockaddr_in source{};
    source.sin_family = AF_INET;
    inet_pton(AF_INET, sourceAddress.c_str(), &source.sin_addr);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0) return;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

RawConnection::~RawConnection() {
  if (fd_ >= 0) close(fd_);
}

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

std::string RawConnection::reply(bool toHead) {
  while (true) {
    std::size_t end = buffer_.find("\r\n\r\n");
    if (end != std::string::npos) {
      std::size_t length = 0;
      std::size_t at = buffer_.find("Content-Length: ");
      if (at != std::string::npos && at < end) length = std::stoul(buffer_.substr(at + 16));
      if (toHead || buffer_.compare(0, 10, "HTTP/1.1 1") == 0) length = 0;
      if (buffer_.size() >= end + 4 + length) {
        std::string reply = buffer_.substr(0, end + 4 + length);
        buffer_.erase(0, end + 4 + length);
        return reply;
      }
    }
    char chunk[16384];
    ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return "";
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

bool RawConnection::closedByPeer() {
  char byte;
  return recv(fd_, &byte, 1, 0) == 0;
}

int RawConnection::statusOf(const std::string& reply) {
  return reply.size() > 12 ? std::stoi(reply.substr(9, 3)) : 0;
}

std::string RawConnection::bodyOf(const std::string& reply) {
  std::size_t end = reply.find("\r\n\r\n");
  return end == std::string::npos ? "" : reply.substr(end + 4);
}

}  // namespace saffra::testing
