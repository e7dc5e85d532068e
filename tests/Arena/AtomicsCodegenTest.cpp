// The lock-free protocol rests on the shared-memory primitives being plain
// loads and stores: no `lock` prefix, no `mfence`, no `xchg` with memory
// (which locks without a prefix). This test disassembles the probes of
// AtomicsCodegenProbe.cpp in this very program, with the flags of this build,
// and follows every call they make into the program's own code.

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "AtomicsCodegenProbe.h"

namespace {

std::optional<std::string> findOnPath(const std::string & program) {
  const char * path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string candidate = dir + "/" + program;
    if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string selfPath() {
  std::array<char, 4096> buffer{};
  ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : std::string();
}

std::string runCommand(const std::string & command) {
  std::string output;
  FILE * pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return output;
  }
  std::array<char, 4096> chunk;
  for (std::size_t n; (n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
    output.append(chunk.data(), n);
  }
  pclose(pipe);
  return output;
}

std::vector<std::string> words(const std::string & text) {
  std::istringstream in(text);
  std::vector<std::string> result;
  for (std::string word; in >> word;) {
    result.push_back(word);
  }
  return result;
}

// One function's instructions as objdump prints them without raw bytes, e.g.
// "mov    %rsi,(%rdi)" or "call   1130 <memcpy@plt>".
class Disassembly {
 public:
  Disassembly(std::string objdump, std::string program)
      : objdump_(std::move(objdump)), program_(std::move(program)) {}

  std::vector<std::string> function(const std::string & symbol) const {
    std::istringstream out(runCommand(fmt::format("'{}' -d --no-show-raw-insn --disassemble='{}' '{}' 2>&1",
                                                  objdump_, symbol, program_)));
    std::vector<std::string> instructions;
    bool inside = false;
    for (std::string line; std::getline(out, line);) {
      if (!inside) {
        inside = line.ends_with("<" + symbol + ">:");
        continue;
      }
      if (line.empty()) {
        break;
      }
      std::size_t tab = line.find(":\t");
      if (tab != std::string::npos) {
        instructions.push_back(line.substr(tab + 2));
      }
    }
    return instructions;
  }

 private:
  std::string objdump_;
  std::string program_;
};

// True for an instruction that orders memory at the processor: one with a lock
// prefix, an mfence, or an xchg with memory.
bool isOrderingInstruction(const std::string & instruction) {
  std::vector<std::string> parts = words(instruction);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::string & part = parts[i];
    if (part == "lock" || part == "mfence") {
      return true;
    }
    // xchg with a memory operand is locked by the processor; xchg of two
    // registers (a padding nop) is not.
    if (part.starts_with("xchg") && i + 1 < parts.size() && parts[i + 1].find('(') != std::string::npos) {
      return true;
    }
  }
  return false;
}

bool isMove(const std::string & instruction) {
  std::vector<std::string> parts = words(instruction);
  return !parts.empty() && parts[0].starts_with("mov");
}

// The function a call or a tail jump enters, if it is one of this program's
// own: not a jump inside a function ("<f+0x12>") and not a stub of a shared
// library ("<memcpy@plt>"), whose code is not this build's.
std::optional<std::string> calledFunction(const std::string & instruction) {
  std::vector<std::string> parts = words(instruction);
  if (parts.empty() || !(parts[0] == "call" || parts[0] == "jmp")) {
    return std::nullopt;
  }
  std::size_t open = instruction.find('<');
  std::size_t close = instruction.rfind('>');
  if (open == std::string::npos || close == std::string::npos || close < open) {
    return std::nullopt;
  }
  std::string target = instruction.substr(open + 1, close - open - 1);
  if (target.find('+') != std::string::npos || target.ends_with("@plt")) {
    return std::nullopt;
  }
  return target;
}

struct Findings {
  std::vector<std::string> ordering;  // "function: instruction" of each offender
  std::size_t probeInstructions = 0;
  bool probeHasMove = false;
  std::string listing;  // everything looked at, for the failure message
};

// Scans `probe` and, to `depth` levels, the functions it calls.
Findings scan(const Disassembly & disassembly, const std::string & probe) {
  Findings findings;
  std::set<std::string> seen;
  std::vector<std::pair<std::string, int>> pending{{probe, 0}};
  while (!pending.empty()) {
    auto [symbol, depth] = pending.back();
    pending.pop_back();
    if (!seen.insert(symbol).second) {
      continue;
    }
    std::vector<std::string> instructions = disassembly.function(symbol);
    if (symbol == probe) {
      findings.probeInstructions = instructions.size();
    }
    findings.listing += fmt::format("<{}>: {} instructions\n", symbol, instructions.size());
    for (const std::string & instruction : instructions) {
      findings.listing += "  " + instruction + "\n";
      if (isOrderingInstruction(instruction)) {
        findings.ordering.push_back(symbol + ": " + instruction);
      }
      if (symbol == probe && isMove(instruction)) {
        findings.probeHasMove = true;
      }
      if (std::optional<std::string> callee = calledFunction(instruction); callee && depth < 4) {
        pending.emplace_back(*callee, depth + 1);
      }
    }
  }
  return findings;
}

class AtomicsCodegenTest : public ::testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    std::optional<std::string> objdump = findOnPath("objdump");
    if (!objdump) {
      GTEST_SKIP() << "objdump is not installed (Debian package binutils)";
    }
    disassembly_.emplace(*objdump, selfPath());
  }

  std::optional<Disassembly> disassembly_;
};

TEST_P(AtomicsCodegenTest, PrimitiveIsPlainMovesWithoutLockOrFence) {
  const std::string probe = GetParam();
  Findings findings = scan(*disassembly_, probe);
  ASSERT_NE(findings.probeInstructions, 0u) << "objdump found no " << probe << "\n" << findings.listing;
  EXPECT_TRUE(findings.ordering.empty()) << ::testing::PrintToString(findings.ordering) << "\n"
                                         << findings.listing;
  EXPECT_TRUE(findings.probeHasMove) << findings.listing;
}

INSTANTIATE_TEST_SUITE_P(Probes, AtomicsCodegenTest, ::testing::ValuesIn(kAtomicsProbes),
                         [](const ::testing::TestParamInfo<const char *> & info) {
                           return std::string(info.param);
                         });

// The scanner itself: seq_cst code must be caught, or the test above proves nothing.
TEST(AtomicsCodegenScanner, FindsTheLockedInstructionsOfSeqCstCode) {
  std::optional<std::string> objdump = findOnPath("objdump");
  if (!objdump) {
    GTEST_SKIP() << "objdump is not installed (Debian package binutils)";
  }
  uint64_t word = 0;
  EXPECT_EQ(probeSeqCstControl(&word, 5), 5u);
  EXPECT_EQ(word, 6u);
  Findings findings = scan(Disassembly(*objdump, selfPath()), "probeSeqCstControl");
  EXPECT_GE(findings.ordering.size(), 2u) << findings.listing;
}

TEST(AtomicsCodegenScanner, ClassifiesInstructions) {
  EXPECT_TRUE(isOrderingInstruction("lock xadd %rax,(%rdi)"));
  EXPECT_TRUE(isOrderingInstruction("lock orq $0x0,(%rsp)"));
  EXPECT_TRUE(isOrderingInstruction("mfence"));
  EXPECT_TRUE(isOrderingInstruction("xchg   %rdx,(%rax)"));
  EXPECT_FALSE(isOrderingInstruction("xchg   %ax,%ax"));
  EXPECT_FALSE(isOrderingInstruction("mov    %rsi,(%rdi)"));
  EXPECT_FALSE(isOrderingInstruction("call   1030 <block@plt>"));
  EXPECT_TRUE(isMove("movzbl (%rdx),%edx"));
  EXPECT_FALSE(isMove("ret"));
  EXPECT_EQ(calledFunction("call   1130 <helper>"), std::optional<std::string>("helper"));
  EXPECT_EQ(calledFunction("call   1030 <memcpy@plt>"), std::nullopt);
  EXPECT_EQ(calledFunction("jmp    1144 <probeFences+0x14>"), std::nullopt);
  EXPECT_EQ(calledFunction("mov    %rsi,(%rdi)"), std::nullopt);
}

}  // namespace
