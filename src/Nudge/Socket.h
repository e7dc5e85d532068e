#pragma once
// The Unix-domain sockets under the wake-up classes: SOCK_SEQPACKET, so that
// every message arrives whole and alone and a send either queues a whole
// message or nothing; non-blocking, so that neither side ever waits for the
// other; close-on-exec.
//
// Socket names. A name with a "/" is a path in the file system: the socket
// is a file that can be seen, is guarded by its directory's permissions, and
// is removed by whoever closes the listener. A name without one is in the
// abstract namespace (`ss -xl` shows it with a leading "@"): it needs no
// directory and vanishes with its last descriptor, however the process ends.
// Arena::WriterLock's names ("tessel-<table>-<hash>-<random>-<pid>") are of
// this kind. A name has 1 to 107 bytes and no NUL.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "Nudge/NudgeFormat.h"

namespace Nudge {

// How many fresh names a listener tries after a taken one before it gives
// up. With names that carry a random part, even one renewal is all but never
// needed.
constexpr int NameRenewals = 8;

// Owns one descriptor and closes it when it goes. Move-only.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  Socket(Socket && other) noexcept;
  Socket & operator=(Socket && other) noexcept;
  Socket(const Socket &) = delete;
  Socket & operator=(const Socket &) = delete;
  ~Socket() { close(); }

  int fd() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void close();
  // The process id of the peer, or 0 if the kernel can't tell it.
  pid_t peerPid() const;

 private:
  int fd_ = -1;
};

// A listening socket bound to a name. A file-system name left behind by a
// process that died (nobody accepts on it) is taken over; a name that a live
// socket listens on is refused. close() removes the file, if it is still the
// one this listener made.
class Listener {
 public:
  Listener() = default;
  Listener(const Listener &) = delete;
  Listener & operator=(const Listener &) = delete;
  ~Listener() { close(); }

  // Binds and listens; on failure the listener stays closed and `error`
  // tells why ("a live socket listens on it" when the name is taken).
  bool listenOn(const std::string & name, std::string & error);
  // listenOn `name`, and while that name is taken by another socket, on the
  // next of at most `renewals` names that `renew` makes. True listening, with
  // `name` the name it listens on; false as listenOn, `error` telling why the
  // last name failed. An abstract name checks no permission: any process
  // may take one first, and so a listener that must start gets a fresh one.
  bool listenOnFree(std::string & name, const std::function<std::string()> & renew, int renewals,
                    std::string & error);
  void close();
  // The next waiting connection, or an empty socket if none is waiting.
  Socket accept() const;
  int fd() const { return socket_.fd(); }
  explicit operator bool() const { return static_cast<bool>(socket_); }

 private:
  // 0 when listening, EADDRINUSE when another socket has the name, another
  // non-zero value when anything else failed.
  int bindAndListen(const std::string & name, std::string & error);

  Socket socket_;
  std::string path_;  // the file-system name, or "" for an abstract one
  dev_t device_ = 0;  // identity of the file that bind made
  ino_t inode_ = 0;
};

// Connects to the socket listening on `name`; an empty socket, with the
// reason in `error`, if that fails. Never waits: a listener whose backlog is
// full refuses at once.
Socket connectTo(const std::string & name, std::string & error);

enum class SendResult {
  Sent,
  Full,    // the peer's queue is full: it doesn't read
  Broken,  // the connection is gone
};
SendResult sendMessage(const Socket & socket, const Message & message, std::string & error);

enum class ReceiveResult {
  Received,
  Empty,      // nothing waiting
  Closed,     // the peer closed the connection, or it broke
  Malformed,  // a record that is not 24 bytes long
};
// Takes the next record; `error` tells what Closed and Malformed mean.
ReceiveResult receiveMessage(const Socket & socket, Message & message, std::string & error);

}  // namespace Nudge
