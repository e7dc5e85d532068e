#pragma once
// Arena::Notify<K, V>: the callbacks through which a table's changes and
// state reach the collection that owns it.
//
//   value callback         an entry changed, and its value is at hand
//   key callback           an entry changed, and only its key is at hand
//   delete callback        an entry has gone
//   mount-status callback  the table's mount status changed
//   quiesced callback      the reader has caught up with its writer, or no longer has
//
// Invariants:
//  1. No callback is ever an empty function object: each argument left out,
//     or given empty, is a closure that does nothing. A caller just calls.
//  2. While keyNotifications() is true the first three callbacks are the
//     real ones, and the saved three do nothing. suppressKeyNotifications()
//     moves the real three to the saved places and puts no-op closures in
//     theirs, so that a shadow filling itself at start costs the collection
//     no callback per entry; the shadow moves them back when its first walk
//     ends (restoreKeyNotifications). The mount-status and quiesced
//     callbacks are never suppressed.
// A Notify belongs to the thread of its map: it is changed at init and when
// a walk ends, and its callbacks run on that thread.

#include <functional>
#include <utility>

namespace Arena {

template <typename K, typename V>
class Notify {
 public:
  using ValueCallback = std::function<void(const V &)>;
  using KeyCallback = std::function<void(const K &)>;
  using MountStatusCallback = std::function<void()>;
  using QuiescedCallback = std::function<void(bool)>;

  explicit Notify(ValueCallback valueCallback = {}, KeyCallback keyCallback = {},
                  KeyCallback deleteCallback = {}, MountStatusCallback mountStatusCallback = {},
                  QuiescedCallback quiescedCallback = {})
      : valueCallback_(orNothing(std::move(valueCallback))),
        keyCallback_(orNothing(std::move(keyCallback))),
        deleteCallback_(orNothing(std::move(deleteCallback))),
        mountStatusCallback_(orNothing(std::move(mountStatusCallback))),
        quiescedCallback_(orNothing(std::move(quiescedCallback))),
        savedValueCallback_(orNothing(ValueCallback())),
        savedKeyCallback_(orNothing(KeyCallback())),
        savedDeleteCallback_(orNothing(KeyCallback())) {}

  // Moves the value, key and delete callbacks aside and silences them; a
  // second call finds them silenced already and changes nothing.
  void suppressKeyNotifications() {
    if (!keyNotifications_) {
      return;
    }
    savedValueCallback_ = std::exchange(valueCallback_, orNothing(ValueCallback()));
    savedKeyCallback_ = std::exchange(keyCallback_, orNothing(KeyCallback()));
    savedDeleteCallback_ = std::exchange(deleteCallback_, orNothing(KeyCallback()));
    keyNotifications_ = false;
  }

  // Puts the saved callbacks back in their places: what a shadow does when
  // its first walk ends. Nothing if they were never suppressed.
  void restoreKeyNotifications() {
    if (keyNotifications_) {
      return;
    }
    valueCallback_ = std::exchange(savedValueCallback_, orNothing(ValueCallback()));
    keyCallback_ = std::exchange(savedKeyCallback_, orNothing(KeyCallback()));
    deleteCallback_ = std::exchange(savedDeleteCallback_, orNothing(KeyCallback()));
    keyNotifications_ = true;
  }

  bool keyNotifications() const { return keyNotifications_; }
  const ValueCallback & valueCallback() const { return valueCallback_; }
  const KeyCallback & keyCallback() const { return keyCallback_; }
  const KeyCallback & deleteCallback() const { return deleteCallback_; }
  const MountStatusCallback & mountStatusCallback() const { return mountStatusCallback_; }
  const QuiescedCallback & quiescedCallback() const { return quiescedCallback_; }
  const ValueCallback & savedValueCallback() const { return savedValueCallback_; }
  const KeyCallback & savedKeyCallback() const { return savedKeyCallback_; }
  const KeyCallback & savedDeleteCallback() const { return savedDeleteCallback_; }

 protected:
  template <typename Callback>
  static Callback orNothing(Callback callback) {
    if (!callback) {
      callback = [](auto &&...) {};
    }
    return callback;
  }

  // Destroyed last field first, as members are.
  ValueCallback valueCallback_;
  KeyCallback keyCallback_;
  KeyCallback deleteCallback_;
  MountStatusCallback mountStatusCallback_;
  QuiescedCallback quiescedCallback_;
  ValueCallback savedValueCallback_;
  KeyCallback savedKeyCallback_;
  KeyCallback savedDeleteCallback_;
  bool keyNotifications_ = true;
};

}  // namespace Arena
