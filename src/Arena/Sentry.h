#pragma once
// Arena::Sentry: what a map holds of the object that watches its table's
// files (its "mounter"): an Arena::ReaderSentry in a reader, shadow or
// keyshadow, an Arena::WriterSentry in a shared writer.
//
// Contract, on the thread of the map's event loop:
//   poke(reason, delay)   look at the files now (delay 0), or once after
//                         `delay` milliseconds on the loop; a later poke with
//                         a delay replaces a pending one. What a look does is
//                         the sentry's own; `reason` goes into its traces.
//   purgeInotifyRecord()  forget what the sentry has seen of the files so
//                         far: the changes queued and not yet looked at, and
//                         the state it last acted on. The next change of the
//                         files, or the next poke, is judged afresh.
//   attached(), attachedIs(on)
//                         while false the sentry is held back: it keeps
//                         watching, but calls nothing on its notifiee. A map
//                         holds its sentry back while a shadow flushes, and
//                         lets it go again with a poke when the flush ends.
//                         True from construction.

#include <cstdint>
#include <string>

namespace Arena {

class Sentry {
 public:
  virtual ~Sentry() = default;

  virtual void poke(const std::string & reason, uint32_t delayMs = 0) = 0;
  virtual void purgeInotifyRecord() = 0;

  bool attached() const { return attached_; }
  void attachedIs(bool attached) { attached_ = attached; }

 private:
  bool attached_ = true;
};

}  // namespace Arena
