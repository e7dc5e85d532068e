#include "Nudge/Socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <fmt/format.h>

namespace Nudge {

namespace {

std::string errnoText(const char * call, int error) { return fmt::format("{}: {}", call, std::strerror(error)); }

bool abstractName(const std::string & name) { return name.find('/') == std::string::npos; }

struct Address {
  sockaddr_un address{};
  socklen_t length = 0;
};

// The address of `name` (see Socket.h); false, with the reason, if it has none.
bool addressOf(const std::string & name, Address & out, std::string & error) {
  constexpr std::size_t longest = sizeof(out.address.sun_path) - 1;
  if (name.empty()) {
    error = "empty socket name";
    return false;
  }
  if (name.size() > longest) {
    error = fmt::format("socket name longer than {} bytes", longest);
    return false;
  }
  if (name.find('\0') != std::string::npos) {
    error = "socket name holds a NUL byte";
    return false;
  }
  out.address = {};
  out.address.sun_family = AF_UNIX;
  if (abstractName(name)) {
    // sun_path[0] stays NUL, and the name's bytes follow: the address is
    // exactly as long as the name, with no terminator.
    std::memcpy(out.address.sun_path + 1, name.data(), name.size());
    out.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  } else {
    std::memcpy(out.address.sun_path, name.data(), name.size());
    out.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
  }
  return true;
}

Socket newSocket(std::string & error) {
  Socket socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) {
    error = errnoText("socket", errno);
  }
  return socket;
}

// Connects `socket` to `address`: 0, or the errno of the failure.
int connectSocket(const Socket & socket, const Address & address) {
  int status;
  do {
    status = ::connect(socket.fd(), reinterpret_cast<const sockaddr *>(&address.address), address.length);
  } while (status != 0 && errno == EINTR);
  return status == 0 ? 0 : errno;
}

// True if nothing listens on the file-system socket at `address`: the file
// was left behind by a process that died.
bool staleFile(const Address & address) {
  std::string ignored;
  Socket probe = newSocket(ignored);
  return probe && connectSocket(probe, address) == ECONNREFUSED;
}

bool fileIdentity(const std::string & path, dev_t & device, ino_t & inode) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return false;
  }
  device = status.st_dev;
  inode = status.st_ino;
  return true;
}

}  // namespace

// ---------------------------------------------------------------- Socket

Socket::Socket(Socket && other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Socket & Socket::operator=(Socket && other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void Socket::close() {
  if (fd_ >= 0) {
    ::close(std::exchange(fd_, -1));
  }
}

pid_t Socket::peerPid() const {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (::getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return 0;
  }
  return credentials.pid;
}

// ---------------------------------------------------------------- Listener

bool Listener::listenOn(const std::string & name, std::string & error) {
  return bindAndListen(name, error) == 0;
}

bool Listener::listenOnFree(std::string & name, const std::function<std::string()> & renew, int renewals,
                            std::string & error) {
  for (int renewal = 0; bindAndListen(name, error) == EADDRINUSE; ++renewal) {
    if (renewal == renewals) {
      return false;
    }
    name = renew();
  }
  return static_cast<bool>(socket_);
}

int Listener::bindAndListen(const std::string & name, std::string & error) {
  close();
  Address address;
  if (!addressOf(name, address, error)) {
    return -1;
  }
  Socket socket = newSocket(error);
  if (!socket) {
    return -1;
  }
  const auto * raw = reinterpret_cast<const sockaddr *>(&address.address);
  int status = ::bind(socket.fd(), raw, address.length);
  if (status != 0 && errno == EADDRINUSE && !abstractName(name) && staleFile(address)) {
    ::unlink(name.c_str());
    status = ::bind(socket.fd(), raw, address.length);
  }
  if (status != 0) {
    const int failure = errno;
    error = failure == EADDRINUSE ? "a live socket listens on it" : errnoText("bind", failure);
    return failure;
  }
  if (!abstractName(name)) {
    path_ = name;  // from here on close() removes the file
    fileIdentity(path_, device_, inode_);
  }
  socket_ = std::move(socket);
  if (::listen(socket_.fd(), SOMAXCONN) != 0) {
    const int failure = errno;
    error = errnoText("listen", failure);
    close();
    return failure;
  }
  return 0;
}

void Listener::close() {
  dev_t device = 0;
  ino_t inode = 0;
  // Another listener may have taken the name over since (after this process
  // was thought dead): its file is not ours to remove.
  if (!path_.empty() && fileIdentity(path_, device, inode) && device == device_ && inode == inode_) {
    ::unlink(path_.c_str());
  }
  path_.clear();
  socket_.close();
}

Socket Listener::accept() const {
  int fd;
  do {
    fd = ::accept4(socket_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return Socket(fd);
}

// ---------------------------------------------------------------- connecting

Socket connectTo(const std::string & name, std::string & error) {
  Address address;
  if (!addressOf(name, address, error)) {
    return Socket();
  }
  Socket socket = newSocket(error);
  if (!socket) {
    return socket;
  }
  // A Unix-domain connect completes at once or fails at once (EAGAIN when
  // the listener's backlog is full): it never leaves the caller waiting.
  if (int failure = connectSocket(socket, address); failure != 0) {
    error = errnoText("connect", failure);
    return Socket();
  }
  return socket;
}

// ---------------------------------------------------------------- messages

SendResult sendMessage(const Socket & socket, const Message & message, std::string & error) {
  ssize_t sent;
  do {
    sent = ::send(socket.fd(), &message, sizeof(message), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent == static_cast<ssize_t>(sizeof(message))) {
    return SendResult::Sent;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) {
    error = "socket buffer full";
    return SendResult::Full;
  }
  error = errnoText("send", errno);
  return SendResult::Broken;
}

ReceiveResult receiveMessage(const Socket & socket, Message & message, std::string & error) {
  // One byte more than a message, so that a longer record shows.
  unsigned char buffer[sizeof(Message) + 1];
  ssize_t received;
  do {
    received = ::recv(socket.fd(), buffer, sizeof(buffer), MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return ReceiveResult::Empty;
    }
    error = errnoText("recv", errno);
    return ReceiveResult::Closed;
  }
  if (received == 0) {
    // End of file; an empty record reads the same, and ends the connection too.
    error = "connection closed";
    return ReceiveResult::Closed;
  }
  if (received != static_cast<ssize_t>(sizeof(Message))) {
    error = received > static_cast<ssize_t>(sizeof(Message))
                ? fmt::format("a record longer than {} bytes", sizeof(Message))
                : fmt::format("a record of {} bytes, not {}", received, sizeof(Message));
    return ReceiveResult::Malformed;
  }
  std::memcpy(&message, buffer, sizeof(message));
  return ReceiveResult::Received;
}

}  // namespace Nudge
