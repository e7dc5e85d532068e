#include "Arena/ReaderSentry.h"

#include <sys/inotify.h>

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace Arena {

namespace {

// The changes that can move the view: the epoch file and owner file being
// written (whole, or replaced by a rename), and files removed. The growth of
// the mapped files is of no interest here.
constexpr uint32_t ReaderEvents = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB;

}  // namespace

const char * toString(ReaderSentry::TableState state) {
  switch (state) {
    case ReaderSentry::TableState::Absent: return "absent";
    case ReaderSentry::TableState::Ready: return "ready";
    case ReaderSentry::TableState::Orphaned: return "orphaned";
  }
  return "";
}

ReaderSentry::ReaderSentry(Basalt::Platform::DebugHandler & handler, std::string directory,
                           ReaderSentryNotifiee & notifiee, Probe probe, Loop::EventLoop & loop)
    : handler_(handler),
      notifiee_(notifiee),
      probe_(std::move(probe)),
      loop_(loop),
      alive_(std::make_shared<bool>(true)),
      watch_(handler, std::move(directory), ReaderEvents, loop, [this] { look("inotify", false); }) {
  BASALT_ASSERT(!notifiee_.localMem(), "Arena/ReaderSentry",
                fmt::format("ReaderSentry::ReaderSentry() {} notifiee is a local table", watch_.directory()));
  BASALT_TRACE(handler_, 2, "ReaderSentry::ReaderSentry() {} mode:{} watching {}", watch_.directory(),
               notifiee_.modeStr(), watch_.watched());
}

ReaderSentry::~ReaderSentry() { *alive_ = false; }

void ReaderSentry::poke(const std::string & reason, uint32_t delayMs) {
  BASALT_TRACE(handler_, 5, "ReaderSentry::poke() {} reason:{} delay:{}ms", watch_.directory(), reason, delayMs);
  if (delayMs > 0) {
    delayed_ = loop_.timerOnce(Loop::EventLoop::Duration(delayMs), [this, reason] { look(reason, true); });
    return;
  }
  watch_.drain();  // re-arms where the tree has changed; the look reads the files anyway
  look(reason, true);
}

void ReaderSentry::purgeInotifyRecord() {
  BASALT_TRACE(handler_, 5, "ReaderSentry::purgeInotifyRecord() {}", watch_.directory());
  watch_.drain();
  record_.reset();
}

void ReaderSentry::look(std::string reason, bool forced) {
  if (!attached()) {
    BASALT_TRACE(handler_, 5, "ReaderSentry::look() {} reason:{} held back", watch_.directory(), reason);
    return;
  }
  const View view = probe_(watch_.directory());
  const bool changed = !record_ || !(*record_ == view);
  BASALT_TRACE(handler_, 5,
               "ReaderSentry::look() {} reason:{} mode:{} table:{} epochId:{:#010x} owner:{} mounted:{:#010x} "
               "notifying:{} changed:{}",
               watch_.directory(), reason, notifiee_.modeStr(), toString(view.state), view.epochId.value,
               view.owner, notifiee_.epochId().value, notifiee_.notifying(), changed);
  if (!changed && !forced) {
    return;
  }
  const std::shared_ptr<bool> alive = alive_;
  record_ = view;
  act(view, reason);
  if (*alive) {
    record_ = view;  // a detach inside act purged it
    if (view.state == TableState::Ready && notifiee_.disconnectedActiveReader()) {
      // Attached but not connected: the writer the files name had gone, its
      // process not yet reaped, or the next one was not listening yet. That
      // writer may keep the generation, and so the view: the next change of
      // the files is looked at afresh.
      record_.reset();
    }
  }
}

void ReaderSentry::act(const View & view, const std::string & reason) {
  const ArenaFiles::EpochId mounted = notifiee_.epochId();
  switch (view.state) {
    case TableState::Orphaned:
      return;
    case TableState::Absent:
      if (!mounted.none()) {
        BASALT_TRACE(handler_, 1, "ReaderSentry::look() {} table gone, detaching", watch_.directory());
        notifiee_.detach(false);
      }
      return;
    case TableState::Ready:
      break;
  }
  if (!mounted.none() && mounted != view.epochId) {
    BASALT_TRACE(handler_, 1, "ReaderSentry::look() {} new generation {:#010x}, detaching {:#010x}",
                 watch_.directory(), view.epochId.value, mounted.value);
    const std::shared_ptr<bool> alive = alive_;
    notifiee_.detach(false);
    if (!*alive || !attached()) {
      return;  // destroyed, or held back while a shadow flushes
    }
  } else if (!mounted.none() && notifiee_.readerFullyAttached() && !notifiee_.disconnectedActiveReader()) {
    return;
  }
  BASALT_TRACE(handler_, 1, "ReaderSentry::look() {} attaching {:#010x} reason:{} owner:{}", watch_.directory(),
               view.epochId.value, reason, view.owner);
  notifiee_.attach(reason);
}

}  // namespace Arena
