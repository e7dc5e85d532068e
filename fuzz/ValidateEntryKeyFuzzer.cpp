// The fuzz target of L3TunnelTH3Key::validateEntryKey(). The first input
// byte picks how the rest becomes a key:
//   0  its text, through the strict parser (refused texts end the run);
//   1  its fields one after another: numbers of their width, and addresses
//      of every family (unset, IPv4, IPv6), often all zero or all ones;
//   2  its raw 176 bytes, as a slot file could hold them, foreign address
//      families included (bool bytes forced to 0 or 1, the only values a
//      bool may hold).
// Of every key: validation raises nothing, gives the same verdict twice, and
// that verdict is success with an empty message or invalidEntryKey with a
// message. Of every key made by the first two ways, which only make keys that
// keep the address invariant: the key prints and parses back to an equal key,
// whose verdict is the same.

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>
#include <vector>

#include "FuzzCheck.h"
#include "SeedCorpus.h"
#include "TesselHwLib/L3TunnelTH3.h"
#include "TextRoundTrip.h"

namespace {

using P4Runtime::ErrorCode;
using TesselHwLib::L3TunnelTH3Key;
using TesselHwLib::L3TunnelTH3KeyStatus;

enum class Making : uint8_t { text = 0, fields = 1, raw = 2 };

// Address bytes: often all zero or all ones, the values the rules test for.
template <std::size_t N>
std::array<uint8_t, N> addressBytes(FuzzedDataProvider & input) {
  std::array<uint8_t, N> bytes{};
  switch (input.ConsumeIntegralInRange(0, 2)) {
    case 0: break;
    case 1: bytes.fill(0xff); break;
    default: input.ConsumeData(bytes.data(), bytes.size());
  }
  return bytes;
}

template <typename T>
T fieldFromBytes(FuzzedDataProvider & input) {
  if constexpr (std::is_same_v<T, bool>) {
    return input.ConsumeBool();
  } else if constexpr (std::is_same_v<T, Wirekit::IpGenAddr>) {
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0: return Wirekit::IpGenAddr();
      case 1: return Wirekit::IpGenAddr(Wirekit::IpAddr(addressBytes<4>(input)));
      default: return Wirekit::IpGenAddr(Wirekit::Ip6Addr(addressBytes<16>(input)));
    }
  } else {
    return input.ConsumeIntegral<T>();
  }
}

L3TunnelTH3Key keyFromFields(FuzzedDataProvider & input) {
  L3TunnelTH3Key key;
  TesselFuzz::fillFields(key, [&]<typename T>() { return fieldFromBytes<T>(input); });
  return key;
}

// The byte offsets of the key's bools, where only 0 and 1 may lie.
std::vector<std::size_t> boolOffsets() {
  std::vector<std::size_t> offsets;
  L3TunnelTH3Key key;
  Rig::Record::forEachField<L3TunnelTH3Key>([&](const auto & field) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(key.*field.member)>, bool>) {
      offsets.push_back(static_cast<std::size_t>(reinterpret_cast<const char *>(&(key.*field.member)) -
                                                 reinterpret_cast<const char *>(&key)));
    }
  });
  return offsets;
}

L3TunnelTH3Key keyFromRawBytes(FuzzedDataProvider & input) {
  static const std::vector<std::size_t> bools = boolOffsets();
  std::array<unsigned char, sizeof(L3TunnelTH3Key)> bytes{};
  input.ConsumeData(bytes.data(), bytes.size());
  for (std::size_t offset : bools) {
    bytes[offset] &= 1;
  }
  L3TunnelTH3Key key;
  std::memcpy(static_cast<void *>(&key), bytes.data(), bytes.size());
  return key;
}

L3TunnelTH3KeyStatus stableVerdict(const L3TunnelTH3Key & key, std::string_view keyText) {
  L3TunnelTH3KeyStatus verdict = key.validateEntryKey();
  if (!(key.validateEntryKey() == verdict)) {
    TesselFuzz::propertyBroken("validation gives two verdicts", keyText,
                               TesselHwLib::valueToStrep(verdict));
  }
  bool success = verdict.errorCode() == ErrorCode::success && verdict.errorMsg().empty();
  bool failure = verdict.errorCode() == ErrorCode::invalidEntryKey && !verdict.errorMsg().empty();
  if (!success && !failure) {
    TesselFuzz::propertyBroken("a verdict that is neither success nor invalidEntryKey with a message",
                               keyText, TesselHwLib::valueToStrep(verdict));
  }
  return verdict;
}

void checkKey(const L3TunnelTH3Key & key) {
  Rig::String text = TesselHwLib::valueToStrep(key);
  L3TunnelTH3KeyStatus verdict = stableVerdict(key, text);
  std::optional<L3TunnelTH3Key> parsed = TesselFuzz::parsedOrRefused<L3TunnelTH3Key>(text);
  if (!parsed || !(*parsed == key)) {
    TesselFuzz::propertyBroken("a key does not parse back from its text", text,
                               parsed ? TesselHwLib::valueToStrep(*parsed) : "(refused)");
  }
  if (!(parsed->validateEntryKey() == verdict)) {
    TesselFuzz::propertyBroken("a key parsed back from its text gets another verdict", text,
                               TesselHwLib::valueToStrep(verdict));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  std::vector<Rig::String> seeds;
  for (const Rig::String & text : TesselFuzz::seedTexts<L3TunnelTH3Key>()) {
    seeds.push_back(Rig::String(1, static_cast<char>(Making::text)) + text);
  }
  TesselFuzz::writeSeedsIfAsked(seeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  // FuzzedDataProvider takes numbers from the end of its data: the way of
  // making is read here, from the front, where the seeds put it.
  auto making = static_cast<Making>(data[0] % 3);
  FuzzedDataProvider input(data + 1, size - 1);
  switch (making) {
    case Making::text: {
      Rig::String text = input.ConsumeRemainingBytesAsString();
      if (std::optional<L3TunnelTH3Key> key = TesselFuzz::parsedOrRefused<L3TunnelTH3Key>(text)) {
        checkKey(*key);
      }
      break;
    }
    case Making::fields: checkKey(keyFromFields(input)); break;
    case Making::raw: {
      L3TunnelTH3Key key = keyFromRawBytes(input);
      stableVerdict(key, "(raw bytes)");
      break;
    }
  }
  return 0;
}
