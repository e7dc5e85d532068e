// tessel: the operator's tool for the tables of a switch. Every command but
// demo only reads a table's files, works with no writer running and changes
// no byte of a live table (check validates a private copy).
//
//   tessel ls [--json]                 every table under the base directory
//   tessel headers TABLE               the slot, bucket and queue headers
//   tessel dump TABLE [--json] [--key K]  the entries, or the one under K
//   tessel stat TABLE [--json]         capacity, fill, buckets, queue, writer
//   tessel check TABLE                 would the next writer keep the table?
//   tessel load TABLE FILE [--type T] [--max-slots N]
//                                      write a dump's entries, as the writer
//   tessel watch TABLE [--count N]     one JSON line per changed key
//   tessel types                       every type the library registered
//   tessel demo [--keys N] [--bursts N] [--burst-size N] [--keep]
//                                      three agents at work on real tables
//
// The base directory is TESSEL_SHM_ROOT, or /dev/shm/tessel. Exit status: 0
// done (check: sound), 1 a table found unsound or unreadable, 2 a bad
// command line, a bad table name or a missing table.
//
// The command line is parsed by CLI11 (Debian's libcli11-dev): subcommands
// with their own --help and typed options, which hand-written parsing would
// only repeat.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "Demo.h"
#include "Inspect/Commands.h"
#include "Inspect/TableFiles.h"
#include "Rig/TypeRegistry.h"

namespace {

int types() {
  for (const Rig::RigType * type : Rig::typeNodes()) {
    fmt::print("{}", Rig::describe(*type));
  }
  return 0;
}

// Runs one command: its text to stdout, an error to stderr naming the
// command, and its exit status.
template <typename Command>
int run(const char * name, Command && command) {
  try {
    return command();
  } catch (const Inspect::Error & error) {
    fmt::print(stderr, "tessel {}: {}\n", name, error.what());
    return error.status();
  } catch (const std::exception & error) {
    fmt::print(stderr, "tessel {}: {}\n", name, error.what());
    return 1;
  }
}

// A progress bar on a terminal while check validates a table of more than
// 100,000 entries; nothing otherwise.
Inspect::CheckProgress checkProgress(const std::string & table) {
  if (::isatty(STDOUT_FILENO) == 0) {
    return {};
  }
  return [table](uint32_t walked, uint32_t occupied) {
    if (occupied <= 100000) {
      return;
    }
    constexpr uint32_t Width = 40;
    const uint32_t filled = static_cast<uint32_t>(uint64_t{Width} * std::min(walked, occupied) / occupied);
    fmt::print("\rchecking {} [{}{}] {}/{}{}", table, std::string(filled, '#'), std::string(Width - filled, ' '),
               walked, occupied, walked >= occupied ? "\n" : "");
    std::fflush(stdout);
  };
}

int printed(const std::string & text) {
  fmt::print("{}", text);
  return 0;
}

}  // namespace

int main(int argc, char ** argv) {
  CLI::App app{"tessel: look at the tables of a switch (base directory: TESSEL_SHM_ROOT or /dev/shm/tessel)"};
  app.require_subcommand(1);
  std::string table;
  std::string key;
  bool json = false;
  auto tableArgument = [&](CLI::App * command) {
    command->add_option("TABLE", table, "the table's name, as its writer gave it (for example agent/l3Iif/table)")
        ->required();
  };
  auto jsonFlag = [&](CLI::App * command) { command->add_flag("--json", json, "print JSON"); };

  CLI::App * lsCommand = app.add_subcommand("ls", "every table under the base directory");
  jsonFlag(lsCommand);
  CLI::App * headersCommand = app.add_subcommand("headers", "the slot, bucket and queue headers");
  tableArgument(headersCommand);
  CLI::App * dumpCommand = app.add_subcommand("dump", "the entries in table order, or the entry under --key");
  tableArgument(dumpCommand);
  jsonFlag(dumpCommand);
  CLI::Option * keyOption = dumpCommand->add_option("--key", key, "the key's text form");
  CLI::App * statCommand = app.add_subcommand("stat", "capacity, fill, buckets, queue, generation and writer");
  tableArgument(statCommand);
  jsonFlag(statCommand);
  CLI::App * checkCommand = app.add_subcommand("check", "validate the table as its next writer would, on a copy");
  tableArgument(checkCommand);
  CLI::App * loadCommand = app.add_subcommand("load", "write the entries of a dump (text or JSON) as the table's writer");
  tableArgument(loadCommand);
  std::string dumpFile;
  std::string valueType;
  uint32_t maxSlots = 0;
  loadCommand->add_option("FILE", dumpFile, "a dump made by tessel dump, with or without --json")->required();
  loadCommand->add_option("--type", valueType, "the value type of a new table loaded from JSON");
  loadCommand->add_option("--max-slots", maxSlots, "the size of a new table (default: twice the dump, at least 1024)");
  CLI::App * watchCommand = app.add_subcommand("watch", "follow the table as a shadow: one JSON line per changed key");
  tableArgument(watchCommand);
  uint64_t count = 0;
  watchCommand->add_option("--count", count, "stop after this many changes (default: until interrupted)");
  CLI::App * typesCommand = app.add_subcommand("types", "every type the library registered");
  CLI::App * demoCommand =
      app.add_subcommand("demo", "a config agent, a hardware agent and a reader at work on six tables");
  Demo::Options demo;
  demoCommand->add_option("--keys", demo.keys, "keys per table")->check(CLI::Range(1u, 1000000u));
  demoCommand->add_option("--bursts", demo.bursts, "bursts of config operations");
  demoCommand->add_option("--burst-size", demo.burstSize, "operations per burst");
  demoCommand->add_flag("--keep", demo.keep, "leave the tables for tessel ls, dump, stat and watch");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError & error) {
    return app.exit(error) == 0 ? 0 : 2;
  }

  if (lsCommand->parsed()) {
    return run("ls", [&] { return printed(Inspect::ls(json)); });
  }
  if (headersCommand->parsed()) {
    return run("headers", [&] { return printed(Inspect::headers(table)); });
  }
  if (dumpCommand->parsed()) {
    return run("dump", [&] {
      return printed(Inspect::dump(table, json, keyOption->count() > 0 ? std::optional(key) : std::nullopt));
    });
  }
  if (statCommand->parsed()) {
    return run("stat", [&] { return printed(Inspect::stat(table, json)); });
  }
  if (checkCommand->parsed()) {
    return run("check", [&] {
      const Inspect::CheckResult result = Inspect::check(table, checkProgress(table));
      fmt::print("{}", result.text);
      return result.sound ? 0 : 1;
    });
  }
  if (loadCommand->parsed()) {
    return run("load", [&] { return printed(Inspect::load(table, dumpFile, valueType, maxSlots)); });
  }
  if (watchCommand->parsed()) {
    return run("watch", [&] {
      Inspect::watch(table, count, [](const std::string & line) {
        fmt::print("{}\n", line);
        std::fflush(stdout);
      });
      return 0;
    });
  }
  if (typesCommand->parsed()) {
    return types();
  }
  return demoCommand->parsed() ? Demo::run(demo) : 2;
}
