#include "Inspect/Commands.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/DebugHandler.h"
#include "Basalt/Exception.h"
#include "Cairn/CairnMap.h"
#include "Cairn/CairnReader.h"
#include "Cairn/CairnShadow.h"
#include "Cairn/CairnWriter.h"
#include "Cairn/IterHint.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/RootPath.h"
#include "Cairn/SlotTable.h"
#include "Inspect/Json.h"
#include "Inspect/TableFiles.h"
#include "Inspect/TableTypes.h"
#include "Loop/EventLoop.h"
#include "Ripple/RippleFormat.h"
#include "Rig/Exception.h"
#include "Rig/ValueText.h"

namespace Inspect {

namespace {

// Calls visit(TableType<C>{}) for the collection whose entries are named
// `valueType`.
template <typename Visit>
void withTableType(const std::string & table, const std::string & valueType, Visit && visit) {
  if (!TableTypes::dispatch(valueType, visit)) {
    throw Error(1, fmt::format("table {}: unknown value type \"{}\"", table, valueType));
  }
}

template <typename Visit>
void withTableTypeOf(const TableFiles & files, Visit && visit) {
  withTableType(files.name(), Cairn::SlotTableHeader::name(files.slotHeader().valueType), visit);
}

template <typename T>
using Writer = Cairn::CairnWriter<typename T::Key, typename T::Value, typename T::Ops>;

// This process as the writer of `table`, with room for `maxSlots` entries;
// `progress` is told how its validation of the files it found goes.
template <typename T>
std::unique_ptr<Writer<T>> writerOf(Basalt::Platform::DebugHandler & handler, const std::string & table,
                                    uint32_t maxSlots, const std::string & classType,
                                    const CheckProgress & progress = {}) {
  Cairn::MapDescriptor descriptor;
  descriptor.maxSlots = maxSlots;
  static const typename T::Ops ops;
  auto writer = std::make_unique<Writer<T>>(handler, table, descriptor, ops, classType, nullptr);
  writer->validationProgressIs(progress);
  writer->initialize("");
  return writer;
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
    for (const char * file : {Cairn::SlotFileName, Cairn::BucketFileName, Ripple::ControlFileName,
                              Ripple::PrimaryFileName, Ripple::SecondaryFileName, ArenaFiles::EpochFile::EPOCH_NAME,
                              ArenaFiles::OwnerFile::FILENAME}) {
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
CheckResult checkAsNextWriter(const TableFiles & files, const CheckProgress & progress) {
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
    const auto writer = writerOf<T>(handler, files.name(), header.maxSlots,
                                    Cairn::SlotTableHeader::name(header.classType), progress);
    kept = epoch != 0 && writer->epochId().value == epoch;
    entries = writer->members();
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

// When the table's writer last proved it sound: the time its generation was
// recorded, once at each writer's start.
std::string lastValidationText(const TableFiles & files) {
  const int64_t seconds = files.lastValidation();
  return seconds == 0 ? std::string("unknown") : fmt::format("{:%FT%TZ}", fmt::gmtime(static_cast<std::time_t>(seconds)));
}

// What ls and stat both tell of a table, in the order an operator reads it.
nlohmann::ordered_json tableFields(const TableFiles & files, const Cairn::SlotTableHeader & header) {
  const pid_t pid = files.writerPid();
  return {
      {"table", files.name()},
      {"type", Cairn::SlotTableHeader::name(header.valueType)},
      {"class", Cairn::SlotTableHeader::name(header.classType)},
      {"entries", header.occupiedSlots},
      {"capacity", header.numSlots.value},
      {"maxSlots", header.maxSlots},
      {"writerPid", pid},
      {"writerAlive", TableFiles::processAlive(pid)},
      {"epoch", fmt::format("{:#010x}", files.epoch())},
  };
}

// One row of ls: the table's fields, or its name and why they can't be read.
nlohmann::ordered_json summary(const std::string & name) {
  try {
    const TableFiles files(name);
    return tableFields(files, files.slotHeader());
  } catch (const Error & error) {
    return {{"table", name}, {"error", error.what()}};
  }
}

// The entries of a dump: the text forms, one a line, or a JSON array.
struct Dump {
  std::string valueType;  // named by the text forms; empty for JSON
  std::vector<std::string> lines;
  std::optional<nlohmann::json> json;
};

Dump readDump(const std::string & table, const std::string & path) {
  std::ifstream file(path);
  if (!file) {
    throw Error(2, fmt::format("table {}: cannot read the dump {}", table, path));
  }
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  Dump dump;
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start != std::string::npos && text[start] == '[') {
    try {
      dump.json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception & exception) {
      throw Error(2, fmt::format("table {}: the dump {} is not JSON: {}", table, path, exception.what()));
    }
    return dump;
  }
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) {
      dump.lines.push_back(line);
    }
  }
  constexpr std::string_view prefix = "Value('";
  if (!dump.lines.empty() && dump.lines[0].starts_with(prefix)) {
    const size_t end = dump.lines[0].find('\'', prefix.size());
    dump.valueType = dump.lines[0].substr(prefix.size(), end - prefix.size());
  }
  return dump;
}

template <typename T>
std::vector<typename T::Entry> entriesOf(const std::string & table, const Dump & dump) {
  std::vector<typename T::Entry> entries;
  const auto refuse = [&](size_t index, const std::exception & exception) {
    return Error(2, fmt::format("table {}: entry {} of the dump: {}", table, index + 1, exception.what()));
  };
  if (dump.json) {
    if (!dump.json->is_array()) {
      throw Error(2, fmt::format("table {}: a JSON dump is an array of entries", table));
    }
    for (size_t index = 0; index < dump.json->size(); ++index) {
      try {
        entries.push_back(fromJson<typename T::Entry>((*dump.json)[index], "entry"));
      } catch (const std::exception & exception) {
        throw refuse(index, exception);
      }
    }
    return entries;
  }
  for (size_t index = 0; index < dump.lines.size(); ++index) {
    try {
      entries.push_back(Rig::strepToValue<typename T::Entry>(Rig::String(dump.lines[index])));
    } catch (const std::exception & exception) {
      throw refuse(index, exception);
    }
  }
  return entries;
}

// Writes the dump's entries into `table` as its writer: into the table
// `existing` as it is, or into a new one of `maxSlots` entries.
template <typename T>
std::string loadAs(const std::string & table, const Dump & dump, uint32_t maxSlots, const TableFiles * existing) {
  const std::vector<typename T::Entry> entries = entriesOf<T>(table, dump);
  std::string classType = T::classType();
  if (existing != nullptr) {
    const Cairn::SlotTableHeader header = existing->slotHeader();
    maxSlots = header.maxSlots;
    classType = Cairn::SlotTableHeader::name(header.classType);
  } else if (maxSlots == 0) {
    maxSlots = std::max<uint32_t>(1024, static_cast<uint32_t>(2 * entries.size()));
  }
  try {
    const auto writer = writerOf<T>(silentHandler(), table, maxSlots, classType);
    for (const auto & entry : entries) {
      writer->write(typename T::Value(entry), true);
    }
    return fmt::format("table {}: {} entries loaded, {} in the table\n", table, entries.size(), writer->members());
  } catch (const std::exception & exception) {
    throw Error(1, fmt::format("table {}: cannot load: {}", table, exception.what()));
  }
}

template <typename T>
std::string changeLine(const typename T::Key & key, const typename T::Entry * entry, uint64_t sequence) {
  nlohmann::json line = {{"key", toJson(key)}, {"sequence", sequence}};
  if (entry != nullptr) {
    line["value"] = toJson(*entry);
  } else {
    line["deleted"] = true;
  }
  return line.dump();
}

template <typename T>
void watchAs(const TableFiles & files, uint64_t count, const std::function<void(const std::string &)> & line,
             const std::function<void()> & mounted) {
  using Map = Cairn::CairnMap<typename T::Key, typename T::Value, typename T::Ops>;
  using Shadow = Cairn::CairnShadow<typename T::Key, typename T::Value, typename T::Ops>;
  uint64_t made = 0;
  bool wasMounted = false;
  Map * map = nullptr;
  const auto sequence = [&] {
    auto * shadow = dynamic_cast<Shadow *>(map->backend());
    return shadow == nullptr ? uint64_t{0} : shadow->sequence();
  };
  const auto told = [&](const std::string & text) {
    line(text);
    if (count != 0 && ++made >= count) {
      Loop::processLoop().stop();
    }
  };
  Map shadowMap(files.name(),
                typename Map::Callbacks(
                    [&](const typename T::Value & value) {
                      told(changeLine<T>(value.fwkKey(), &value.value, sequence()));
                    },
                    {}, [&](const typename T::Key & key) { told(changeLine<T>(key, nullptr, sequence())); },
                    [&] {
                      if (map->mountStatus() == 2 && !wasMounted) {
                        wasMounted = true;
                        if (mounted) {
                          mounted();
                        }
                      }
                    }));
  map = &shadowMap;
  Cairn::MapDescriptor descriptor;
  descriptor.mode = Cairn::CairnType::shadow;
  descriptor.maxSlots = files.slotHeader().maxSlots;
  shadowMap.init(descriptor);
  Loop::processLoop().run();
  shadowMap.controlDetach();
}

}  // namespace

std::string ls(bool json) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const std::string & name : TableFiles::list()) {
    rows.push_back(summary(name));
  }
  if (json) {
    return rows.dump(2) + "\n";
  }
  std::string text = fmt::format("{:<40} {:<44} {:>9} {:>9} {:>8} {:<5} {}\n", "TABLE", "TYPE", "ENTRIES",
                                 "CAPACITY", "WRITER", "ALIVE", "EPOCH");
  for (const auto & row : rows) {
    if (row.contains("error")) {
      text += fmt::format("{:<40} {}\n", row["table"].get<std::string>(), row["error"].get<std::string>());
      continue;
    }
    text += fmt::format("{:<40} {:<44} {:>9} {:>9} {:>8} {:<5} {}\n", row["table"].get<std::string>(),
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
  nlohmann::ordered_json row = tableFields(files, slots);
  row["directory"] = files.directory();
  row["mostSlots"] = slots.mostSlots;
  row["fillPercent"] = slots.numSlots.value == 0 ? 0.0 : 100.0 * slots.occupiedSlots / slots.numSlots.value;
  row["buckets"] = buckets.numBuckets.value;
  row["lastValidation"] = lastValidationText(files);
  row["writeInProgress"] = (slots.runtimeFlags & 1) != 0;
  if (const auto queue = files.queueHeaders()) {
    const uint32_t current = queue->control.swapCount & 1;
    row["queue"] = {{"swaps", queue->control.swapCount},
                    {"depth", queue->tables[current].size},
                    {"capacity", queue->tables[current].capacity},
                    {"corralStart", queue->control.corralStart},
                    {"corralEnd", queue->control.corralEnd}};
  }
  const auto marker = files.corruptionMarker();
  row["corruptionMarker"] = marker ? nlohmann::ordered_json(*marker) : nlohmann::ordered_json(nullptr);
  if (json) {
    return row.dump(2) + "\n";
  }
  std::string text;
  for (const auto & [field, value] : row.items()) {
    text += fmt::format("{:<18} {}\n", field, value.is_string() ? value.get<std::string>() : value.dump());
  }
  return text;
}

CheckResult check(const std::string & table, const CheckProgress & progress) {
  const TableFiles files(table);
  CheckResult result{false, ""};
  withTableTypeOf(files, [&](auto type) { result = checkAsNextWriter<decltype(type)>(files, progress); });
  return result;
}

std::string load(const std::string & table, const std::string & dumpFile, const std::string & valueType,
                 uint32_t maxSlots) {
  const Dump dump = readDump(table, dumpFile);
  const std::optional<TableFiles> files = TableFiles::find(table);
  std::string type = files ? Cairn::SlotTableHeader::name(files->slotHeader().valueType)
                           : (valueType.empty() ? dump.valueType : valueType);
  if (type.empty()) {
    throw Error(2, fmt::format("table {}: a new table needs its value type (--type) for a JSON dump", table));
  }
  if (!dump.valueType.empty() && dump.valueType != type) {
    throw Error(2, fmt::format("table {}: holds {}, the dump {}", table, type, dump.valueType));
  }
  std::string result;
  withTableType(table, type, [&](auto tableType) {
    result = loadAs<decltype(tableType)>(table, dump, maxSlots, files ? &*files : nullptr);
  });
  return result;
}

void watch(const std::string & table, uint64_t count, const std::function<void(const std::string &)> & line,
           const std::function<void()> & mounted) {
  const TableFiles files(table);
  withTableTypeOf(files, [&](auto type) { watchAs<decltype(type)>(files, count, line, mounted); });
}

}  // namespace Inspect
