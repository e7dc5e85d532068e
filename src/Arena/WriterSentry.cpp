#include "Arena/WriterSentry.h"

#include <sys/inotify.h>

#include "Basalt/Exception.h"

namespace Arena {

namespace {

// Every change to a file that the file system sees.
constexpr uint32_t WriterEvents = IN_MODIFY | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE;

}  // namespace

WriterSentry::WriterSentry(Basalt::Platform::DebugHandler & handler, WriterSentryNotifiee & notifiee,
                           std::string directory, Loop::EventLoop & loop)
    : handler_(handler),
      notifiee_(notifiee),
      loop_(loop),
      alive_(std::make_shared<bool>(true)),
      watch_(handler, std::move(directory), WriterEvents, loop, [this] { check("inotify"); }) {
  BASALT_TRACE(handler_, 2, "WriterSentry::WriterSentry() {} watching {}", watch_.directory(), watch_.watched());
}

WriterSentry::~WriterSentry() { *alive_ = false; }

void WriterSentry::poke(const std::string & reason, uint32_t delayMs) {
  BASALT_TRACE(handler_, 5, "WriterSentry::poke() {} reason:{} delay:{}ms", watch_.directory(), reason, delayMs);
  if (delayMs > 0) {
    delayed_ = loop_.timerOnce(Loop::EventLoop::Duration(delayMs), [this, reason] {
      if (watch_.drain()) {
        check(reason);
      }
    });
    return;
  }
  if (watch_.drain()) {
    check(reason);
  }
}

void WriterSentry::purgeInotifyRecord() {
  BASALT_TRACE(handler_, 5, "WriterSentry::purgeInotifyRecord() {}", watch_.directory());
  watch_.drain();
}

void WriterSentry::check(const std::string & reason) {
  if (!attached()) {
    BASALT_TRACE(handler_, 5, "WriterSentry::check() {} reason:{} held back", watch_.directory(), reason);
    return;
  }
  BASALT_TRACE(handler_, 1, "WriterSentry::check() {} files touched, reason:{} epochId:{:#010x}",
               watch_.directory(), reason, notifiee_.epochId().value);
  const std::shared_ptr<bool> alive = alive_;
  try {
    notifiee_.validateFiles();
  } catch (const Basalt::CorruptionDetectedException & exception) {
    if (*alive) {
      BASALT_TRACE(handler_, 0, "WriterSentry::check() {} epochId:{:#010x} files failed validation: {}",
                   watch_.directory(), notifiee_.epochId().value, exception.what());
    }
  }
}

}  // namespace Arena
