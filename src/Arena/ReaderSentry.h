#pragma once
// Arena::ReaderSentry: tells a map in reader, shadow or keyshadow mode when
// its table can be mounted, and when it has gone. It watches the table's
// directory (Arena/DirectoryWatch.h) on the map's event loop; at each change
// of the files, and at each poke, it "looks": it reads what the files say
// through its probe, compares that with what its notifiee has mounted, and
// calls attach or detach on the notifiee. The sentry never mounts anything
// itself, and the writer never knows of it.
//
// What a look does, by the probe's view of the table:
//   Absent    (no writer has formatted it, or the writer removed it)
//             detach(false) if the notifiee has files of some generation
//             mounted (its epochId() is not 0).
//   Ready     (formatted, with the generation of the epoch file, and its
//             owner is alive)
//             attach(reason) unless the notifiee is fully attached to that
//             generation and not a disconnected active reader. A notifiee
//             on another generation is detached first: a reader takes up a
//             new generation only through a new attach.
//   Orphaned  (formatted, but no writer is alive) nothing: a reader goes on
//             reading what the dead writer left, and a writer that restarts
//             on sound files keeps their generation.
//
// Invariants:
//  1. A look prompted by the files acts only when the view differs from the
//     one the sentry last acted on (its record), so that what the notifiee
//     itself writes beside the table (a corruption marker after a failed
//     attach) can't make the sentry try again and again. A poke always acts.
//     A notifiee left a disconnected active reader by a look on a Ready
//     table keeps no record: a writer that restarts on the same generation
//     changes nothing in the view, and its socket is what the notifiee
//     still needs.
//  2. While attached() is false the sentry calls nothing on its notifiee.
//  3. Every call to the notifiee is made on the loop's thread, from a look.
//     The notifiee may destroy the sentry inside attach or detach.
// Exceptions out of the notifiee's attach and detach pass to whoever made
// the sentry look: the poker, or the loop's run.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Arena/DirectoryWatch.h"
#include "Arena/Sentry.h"
#include "ArenaFiles/EpochId.h"
#include "Basalt/DebugHandler.h"
#include "Loop/EventLoop.h"

namespace Arena {

// What a reader sentry calls; a map implements it.
class ReaderSentryNotifiee {
 public:
  virtual ~ReaderSentryNotifiee() = default;
  // The notifiee serves from a mounted backend that has all it needs.
  virtual bool readerFullyAttached() const = 0;
  virtual bool notifying() const = 0;
  virtual bool localMem() const = 0;
  // The generation of the files mounted; 0 when none are.
  virtual ArenaFiles::EpochId epochId() const = 0;
  virtual std::string modeStr() const = 0;
  virtual void detach(bool final) = 0;
  // Mounts the table; `name` says what prompted it.
  virtual void attach(const std::string & name) = 0;
  // The notifiee serves from a mounted backend that has lost its writer and
  // is to be attached again when a writer is there.
  virtual bool disconnectedActiveReader() const = 0;
};

class ReaderSentry : public Sentry {
 public:
  enum class TableState { Absent, Ready, Orphaned };

  struct View {
    TableState state = TableState::Absent;
    ArenaFiles::EpochId epochId;  // the epoch file's generation; 0 when Absent
    std::string owner;            // who the owner is, for traces
    // Two views are the same table in the same state; the owner's text is
    // only told.
    bool operator==(const View & other) const { return state == other.state && epochId == other.epochId; }
  };

  // Reads the table's files in `directory`. The Cairn layer gives the
  // probe that knows them (Cairn/Sentry.h).
  using Probe = std::function<View(const std::string & directory)>;

  // Watches `directory`, which may not exist yet; looks at nothing before
  // the first change or poke. A notifiee of a local table, which has no
  // files, is a programming error.
  ReaderSentry(Basalt::Platform::DebugHandler & handler, std::string directory, ReaderSentryNotifiee & notifiee,
               Probe probe, Loop::EventLoop & loop = Loop::processLoop());
  ~ReaderSentry() override;

  void poke(const std::string & reason, uint32_t delayMs = 0) override;
  void purgeInotifyRecord() override;

  const std::string & directory() const { return watch_.directory(); }
  // The view the sentry last acted on, if any.
  const std::optional<View> & record() const { return record_; }

 private:
  // `reason` is a copy: the caller's may go with a sentry destroyed inside.
  void look(std::string reason, bool forced);
  void act(const View & view, const std::string & reason);

  Basalt::Platform::DebugHandler & handler_;
  ReaderSentryNotifiee & notifiee_;
  Probe probe_;
  Loop::EventLoop & loop_;
  std::optional<View> record_;
  Loop::Registration delayed_;
  // False once the sentry is destroyed: a look that called out checks it
  // before it touches a member again.
  std::shared_ptr<bool> alive_;
  DirectoryWatch watch_;
};

// "absent", "ready", "orphaned".
const char * toString(ReaderSentry::TableState state);

}  // namespace Arena
