#include "Inspect/Commands.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Basalt/DebugHandler.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnReader.h"
#include "Cairn/CairnWriter.h"
#include "Cairn/IterHint.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/RootPath.h"
#include "Inspect/Json.h"
#include "Inspect/TableFiles.h"
#include "Inspect/TableTypes.h"
#include "Rig/Exception.h"
#include "Rig/ValueText.h"

namespace Inspect {

namespace {

// Calls visit(TableType<Entry>{}) for the table's entry type.
template <typename Visit>
void withTableTypeOf(const TableFiles & files, Visit && visit) {
  const std::string valueType = Cairn::SlotTableHeader::name(files.slotHeader().valueType);
  if (!TableTypes::dispatch(valueType, visit)) {
    throw Error(1, fmt::format("table {}: unknown value type \"{}\"", files.name(), valueType));
  }
}

// A read-only reader of the table, attached.
template <typename T>
class TableReader {
 public:
  explicit TableReader(const TableFiles & files) : reader_(silentHandler(), files.name(), ops_) {
    bool attached = false;
    try {
      attached = reader_.initialize("");
    } catch (const std::exception & exception) {
      throw Error(1, fmt::format("table {}: cannot read it: {}", files.name(), exception.what()));
    }
    if (!attached) {
      throw Error(1, fmt::format("table {}: cannot read it: its files are not a sound table of one generation",
                                 files.name()));
    }
  }

  // Calls each(value) for every entry, in table order.
  template <typename Each>
  void forEach(Each && each) const {
    typename T::Value value;
    Cairn::IterHint hint;
    bool more = reader_.first(value, hint);
    while (more) {
      each(value.value);
      const typename T::Key key = value.fwkKey();
      more = reader_.next(key, value, hint);
    }
  }

  std::optional<typename T::Entry> lookup(const typename T::Key & key) const {
    bool found = false;
    typename T::Value out;
    reader_.lookup(key, found, &out);
    return found ? std::optional(out.value) : std::nullopt;
  }

 private:
  typename T::Ops ops_;
  Cairn::CairnReader<typename T::Key, typename T::Value, typename T::Ops> reader_;
};

template <typename Key>
Key parseKey(const TableFiles & files, const std::string & text) {
  try {
    return Rig::strepToValue<Key>(Rig::String(text));
  } catch (const std::exception & exception) {
    throw Error(2, fmt::format("table {}: bad key {}: {}", files.name(), text, exception.what()));
  }
}

// A private copy of a table's files under a base of its own, removed with
// the object. The environment names that base while the copy lives, so that
// a writer made meanwhile opens the copy.
class PrivateCopy {
 public:
  explicit PrivateCopy(const TableFiles & files) {
    std::string base = (std::filesystem::temp_directory_path() / "tessel-check-XXXXXX").string();
    if (::mkdtemp(base.data()) == nullptr) {
      throw Error(1, fmt::format("table {}: cannot make a private directory for the copy", files.name()));
    }
    base_ = base;
    const std::filesystem::path directory = base_ / Cairn::RootPath(silentHandler(), files.name(), true).cairnName();
    std::filesystem::create_directories(directory);
    for (const char * file : {"slots", "buckets", "ripple-control", "ripple-primary", "ripple-secondary", "epoch",
                              "owner"}) {
      std::error_code error;
      std::filesystem::copy_file(std::filesystem::path(files.directory()) / file, directory / file, error);
    }
    const char * previous = ::getenv(Cairn::RootPath::baseVariable);
    if (previous != nullptr) {
      previousBase_ = previous;
    }
    ::setenv(Cairn::RootPath::baseVariable, base_.c_str(), 1);
  }
  ~PrivateCopy() {
    if (previousBase_) {
      ::setenv(Cairn::RootPath::baseVariable, previousBase_->c_str(), 1);
    } else {
      ::unsetenv(Cairn::RootPath::baseVariable);
    }
    std::error_code error;
    std::filesystem::remove_all(base_, error);
  }
  PrivateCopy(const PrivateCopy &) = delete;
  PrivateCopy & operator=(const PrivateCopy &) = delete;

 private:
  std::filesystem::path base_;
  std::optional<std::string> previousBase_;
};

// Starts a writer on a private copy of the table, as the next writer would
// start: the table is sound when the writer keeps it under its generation.
// The writer's level-0 traces say why it did not.
template <typename T>
CheckResult checkAsNextWriter(const TableFiles & files) {
  const Cairn::SlotTableHeader header = files.slotHeader();
  const uint32_t epoch = files.epoch();
  const PrivateCopy copy(files);
  Basalt::Platform::DebugHandler handler("tessel-check");
  handler.maskIs(1);
  std::vector<std::string> reasons;
  Basalt::Platform::DebugHandler::sinkIs([&](const Basalt::Platform::DebugHandler & from, unsigned level,
                                             std::string_view text) {
    if (&from == &handler && level == 0) {
      reasons.emplace_back(text);
    }
  });
  bool kept = false;
  uint32_t entries = 0;
  try {
    Cairn::MapDescriptor descriptor;
    descriptor.maxSlots = header.maxSlots;
    typename T::Ops ops;
    Cairn::CairnWriter<typename T::Key, typename T::Value, typename T::Ops> writer(
        handler, files.name(), descriptor, ops, Cairn::SlotTableHeader::name(header.classType), nullptr);
    writer.initialize("");
    kept = epoch != 0 && writer.epochId().value == epoch;
    entries = writer.members();
  } catch (const std::exception & exception) {
    reasons.emplace_back(exception.what());
  }
  Basalt::Platform::DebugHandler::sinkIs(nullptr);
  if (kept) {
    return {true, fmt::format("table {}: sound, {} entries, generation {:#010x}\n", files.name(), entries, epoch)};
  }
  std::string why = epoch == 0 ? std::string("no readable epoch file") : std::string("no reason given");
  for (const std::string & reason : reasons) {
    if (reason.find("failed") != std::string::npos || reason.find("Validator") != std::string::npos) {
      why = reason;
      break;
    }
  }
  return {false, fmt::format("table {}: corrupt, the next writer would format it afresh: {}\n", files.name(), why)};
}

nlohmann::json summary(const std::string & name) {
  nlohmann::json row = {{"table", name}};
  try {
    const TableFiles files(name);
    const Cairn::SlotTableHeader header = files.slotHeader();
    const pid_t pid = files.writerPid();
    row["type"] = Cairn::SlotTableHeader::name(header.valueType);
    row["class"] = Cairn::SlotTableHeader::name(header.classType);
    row["entries"] = header.occupiedSlots;
    row["capacity"] = header.numSlots.value;
    row["maxSlots"] = header.maxSlots;
    row["writerPid"] = pid;
    row["writerAlive"] = TableFiles::processAlive(pid);
    row["epoch"] = fmt::format("{:#010x}", files.epoch());
  } catch (const Error & error) {
    row["error"] = error.what();
  }
  return row;
}

}  // namespace

std::string ls(bool json) {
  nlohmann::json rows = nlohmann::json::array();
  for (const std::string & name : TableFiles::list()) {
    rows.push_back(summary(name));
  }
  if (json) {
    return rows.dump(2) + "\n";
  }
  std::string text = fmt::format("{:<40} {:<36} {:>9} {:>9} {:>8} {:<5} {}\n", "TABLE", "TYPE", "ENTRIES",
                                 "CAPACITY", "WRITER", "ALIVE", "EPOCH");
  for (const auto & row : rows) {
    if (row.contains("error")) {
      text += fmt::format("{:<40} {}\n", row["table"].get<std::string>(), row["error"].get<std::string>());
      continue;
    }
    text += fmt::format("{:<40} {:<36} {:>9} {:>9} {:>8} {:<5} {}\n", row["table"].get<std::string>(),
                        row["type"].get<std::string>(), row["entries"].get<uint32_t>(),
                        row["capacity"].get<uint32_t>(), row["writerPid"].get<int>(),
                        row["writerAlive"].get<bool>() ? "yes" : "no", row["epoch"].get<std::string>());
  }
  return text;
}

std::string headers(const std::string & table) { return TableFiles(table).headersText(); }

std::string dump(const std::string & table, bool json, const std::optional<std::string> & key) {
  const TableFiles files(table);
  std::string text;
  nlohmann::json entries = nlohmann::json::array();
  withTableTypeOf(files, [&](auto type) {
    using T = decltype(type);
    const TableReader<T> reader(files);
    auto emit = [&](const typename T::Entry & entry) {
      if (json) {
        entries.push_back(toJson(entry));
      } else {
        text += std::string(valueToStrep(entry));
        text += '\n';
      }
    };
    if (key) {
      const auto entry = reader.lookup(parseKey<typename T::Key>(files, *key));
      if (!entry) {
        throw Error(1, fmt::format("table {}: no entry with key {}", files.name(), *key));
      }
      emit(*entry);
    } else {
      reader.forEach(emit);
    }
  });
  return json ? entries.dump(2) + "\n" : text;
}

std::string stat(const std::string & table, bool json) {
  const TableFiles files(table);
  const Cairn::SlotTableHeader slots = files.slotHeader();
  const Cairn::BucketTableHeader buckets = files.bucketHeader();
  const pid_t pid = files.writerPid();
  nlohmann::json row = {
      {"table", files.name()},
      {"directory", files.directory()},
      {"type", Cairn::SlotTableHeader::name(slots.valueType)},
      {"class", Cairn::SlotTableHeader::name(slots.classType)},
      {"entries", slots.occupiedSlots},
      {"capacity", slots.numSlots.value},
      {"maxSlots", slots.maxSlots},
      {"mostSlots", slots.mostSlots},
      {"fillPercent", slots.numSlots.value == 0 ? 0.0 : 100.0 * slots.occupiedSlots / slots.numSlots.value},
      {"buckets", buckets.numBuckets.value},
      {"epoch", fmt::format("{:#010x}", files.epoch())},
      {"writeInProgress", (slots.runtimeFlags & 1) != 0},
      {"writerPid", pid},
      {"writerAlive", TableFiles::processAlive(pid)},
  };
  if (const auto queue = files.queueHeaders()) {
    const uint32_t current = queue->control.swapCount & 1;
    row["queue"] = {{"swaps", queue->control.swapCount},
                    {"depth", queue->tables[current].size},
                    {"capacity", queue->tables[current].capacity},
                    {"corralStart", queue->control.corralStart},
                    {"corralEnd", queue->control.corralEnd}};
  }
  const auto marker = files.corruptionMarker();
  row["corruptionMarker"] = marker ? nlohmann::json(*marker) : nlohmann::json(nullptr);
  if (json) {
    return row.dump(2) + "\n";
  }
  std::string text;
  for (const auto & [field, value] : row.items()) {
    text += fmt::format("{:<18} {}\n", field, value.is_string() ? value.get<std::string>() : value.dump());
  }
  return text;
}

CheckResult check(const std::string & table) {
  const TableFiles files(table);
  CheckResult result{false, ""};
  withTableTypeOf(files, [&](auto type) { result = checkAsNextWriter<decltype(type)>(files); });
  return result;
}

}  // namespace Inspect
