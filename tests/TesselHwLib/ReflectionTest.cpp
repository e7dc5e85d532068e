// The 19 registered type records: names in the ".rig.type" section of the
// program, registration order, the shape of each record, attribute access by
// id (read-only and unhashable cases with their texts), the value methods,
// the whole-value operations, the entity types' attributes, construction
// and iteration.

#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Rig/Directory.h"
#include "Rig/Exception.h"
#include "Rig/GenericIf.h"
#include "Rig/TypeRegistry.h"
#include "TesselHwLib/CollectionTesting.h"
#include "TesselHwLib/Reflection.h"

using namespace CollectionTest;

namespace {

// The 19 names in the order of registration.
const std::vector<std::string> registrationOrder = {
    "TesselHwLib::L3IifTH3Key",           "TesselHwLib::MyStationTcamTH3Status",
    "TesselHwLib::P4RMyStationTcamTableTH3", "TesselHwLib::L3TunnelTH3Key",
    "TesselHwLib::L3IifTH3StatusEntry",   "TesselHwLib::L3IifTH3Config",
    "TesselHwLib::L3TunnelTH3StatusEntry", "TesselHwLib::MyStationTcamTH3Key",
    "TesselHwLib::MyStationTcamTH3StatusEntry", "TesselHwLib::L3IifTH3Status",
    "TesselHwLib::P4RL3IifTableTH3",      "TesselHwLib::L3TunnelTH3Config",
    "TesselHwLib::L3TunnelTH3KeyStatus",  "TesselHwLib::L3TunnelTH3Status",
    "TesselHwLib::L3IifTH3ConfigEntry",   "TesselHwLib::MyStationTcamTH3Config",
    "TesselHwLib::L3TunnelTH3ConfigEntry", "TesselHwLib::P4RL3TunnelTableTH3",
    "TesselHwLib::MyStationTcamTH3ConfigEntry",
};

struct Shape {
  uint32_t size;  // 0: not checked (entities)
  uint32_t attributes;
  const char * base;
};

const std::map<std::string, Shape> shapes = {
    {"TesselHwLib::L3IifTH3Key", {8, 2, nullptr}},
    {"TesselHwLib::L3IifTH3ConfigEntry", {48, 15, "P4Runtime::TableConfigEntryBase"}},
    {"TesselHwLib::L3IifTH3StatusEntry", {32, 5, "P4Runtime::TableStatusEntryBase"}},
    {"TesselHwLib::L3TunnelTH3Key", {176, 16, nullptr}},
    {"TesselHwLib::L3TunnelTH3KeyStatus", {0, 2, nullptr}},
    {"TesselHwLib::L3TunnelTH3ConfigEntry", {224, 20, "P4Runtime::TableConfigEntryBase"}},
    {"TesselHwLib::L3TunnelTH3StatusEntry", {200, 5, "P4Runtime::TableStatusEntryBase"}},
    {"TesselHwLib::MyStationTcamTH3Key", {24, 10, nullptr}},
    {"TesselHwLib::MyStationTcamTH3ConfigEntry", {56, 13, "P4Runtime::TableConfigEntryBase"}},
    {"TesselHwLib::MyStationTcamTH3StatusEntry", {48, 5, "P4Runtime::TableStatusEntryBase"}},
    {"TesselHwLib::L3IifTH3Config", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::L3IifTH3Status", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::L3TunnelTH3Config", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::L3TunnelTH3Status", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::MyStationTcamTH3Config", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::MyStationTcamTH3Status", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::P4RL3IifTableTH3", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::P4RL3TunnelTableTH3", {0, 7, "Rig::Entity"}},
    {"TesselHwLib::P4RMyStationTcamTableTH3", {0, 7, "Rig::Entity"}},
};

const Rig::RigType & type(const std::string & name) {
  const Rig::RigType * found = Rig::typeNode(name);
  if (found == nullptr) {
    throw std::runtime_error("no type " + name);
  }
  return *found;
}

// The strings of section `name` of the ELF file at `path`.
std::vector<std::string> sectionStrings(const std::string & path, const std::string & name) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  Elf64_Ehdr header;
  std::memcpy(&header, bytes.data(), sizeof(header));
  const auto section = [&](unsigned index) {
    Elf64_Shdr result;
    std::memcpy(&result, bytes.data() + header.e_shoff + index * header.e_shentsize, sizeof(result));
    return result;
  };
  const Elf64_Shdr names = section(header.e_shstrndx);
  std::vector<std::string> strings;
  for (unsigned index = 0; index < header.e_shnum; ++index) {
    const Elf64_Shdr candidate = section(index);
    if (name != bytes.data() + names.sh_offset + candidate.sh_name) {
      continue;
    }
    EXPECT_EQ(candidate.sh_flags & SHF_WRITE, 0u) << name << " is read-only";
    EXPECT_NE(candidate.sh_flags & SHF_ALLOC, 0u);
    const char * data = bytes.data() + candidate.sh_offset;
    for (size_t offset = 0; offset < candidate.sh_size;) {
      const std::string text(data + offset);
      if (!text.empty()) {
        strings.push_back(text);
      }
      offset += text.size() + 1;
    }
  }
  return strings;
}

// Operations that only read may be given a const value.
template <typename Value>
uint32_t attributeOp(const Value & value, uint32_t id, uint32_t operation, void * result,
                     const void * argument1 = nullptr, const void * argument2 = nullptr) {
  const Rig::RigType & record = Value::_rigType;
  const Rig::RigAttribute * attribute = record.attribute(id);
  // An id the type does not have reaches the entry point as a foreign record.
  const Rig::RigAttribute foreign{"foreign", &record, nullptr, nullptr, nullptr, nullptr, id, 0};
  return record.genericIfAttributeOp(result, const_cast<Value *>(&value), attribute != nullptr ? attribute : &foreign,
                                     operation, argument1, argument2);
}

template <typename Value>
uint32_t wholeValueOp(const Value & value, uint32_t operation, bool & result, const Value * other = nullptr) {
  return Value::_rigType.genericIfAttributeOp(&result, const_cast<Value *>(&value), nullptr, operation, other,
                                              nullptr);
}

}  // namespace

TEST(ReflectionTypes, TheNineteenNamesLieInTheReadOnlySectionOfTheProgram) {
  auto names = sectionStrings("/proc/self/exe", ".rig.type");
  auto expected = registrationOrder;
  std::sort(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names, expected);
}

TEST(ReflectionTypes, TheRecordsNameTheStringsOfTheSection) {
  // The section is the records' own storage of their names, not a copy.
  for (const std::string & name : registrationOrder) {
    EXPECT_STREQ(type(name).name, name.c_str());
  }
}

TEST(ReflectionTypes, AllNineteenAreRegisteredInTheirOrder) {
  std::vector<std::string> registered;
  for (const Rig::RigType * node : Rig::typeNodes()) {
    if (std::string(node->name).starts_with("TesselHwLib::")) {
      registered.push_back(node->name);
    }
  }
  EXPECT_EQ(registered, registrationOrder);
  EXPECT_EQ(Rig::typeNode("TesselHwLib::NoSuchType"), nullptr);
}

TEST(ReflectionTypes, RegisteringAgainChangesNothingAndASecondRecordOfANameIsRefused) {
  const size_t before = Rig::typeNodes().size();
  tesselHwLibTypesTH3Register();
  Rig::typeNodeIs(&L3IifTH3Key::_rigType);
  EXPECT_EQ(Rig::typeNodes().size(), before);
  const Rig::RigType impostor{"TesselHwLib::L3IifTH3Key", nullptr};
  try {
    Rig::typeNodeIs(&impostor);
    FAIL() << "a second record of a name was taken";
  } catch (const Basalt::InvalidInitializeException & exception) {
    EXPECT_STREQ(exception.what(), "Rig::typeNodeIs() a type named TesselHwLib::L3IifTH3Key is registered already");
  }
  EXPECT_EQ(Rig::typeNode("TesselHwLib::L3IifTH3Key"), &L3IifTH3Key::_rigType);
}

TEST(ReflectionTypes, EachRecordHasItsSizeAttributeCountBaseAndFlags) {
  for (const auto & [name, shape] : shapes) {
    SCOPED_TRACE(name);
    const Rig::RigType & record = type(name);
    EXPECT_EQ(record.attributeCount, shape.attributes);
    if (shape.size != 0) {
      EXPECT_EQ(record.size, shape.size);
    }
    if (shape.base == nullptr) {
      EXPECT_EQ(record.base, nullptr);
    } else {
      ASSERT_NE(record.base, nullptr);
      EXPECT_STREQ(record.base->name, shape.base);
    }
    const bool entity = shape.base != nullptr && std::string(shape.base) == "Rig::Entity";
    EXPECT_EQ(record.flags, entity ? 0x0102FFFFu : 0x0001FFFFu);
    EXPECT_EQ(record.isPolymorphic(), entity);
    EXPECT_NE(record.genericIfAttributeOp, nullptr);
    EXPECT_NE(record.genericIfConstructFromCtorArgs, nullptr);
    const bool collection = entity && !std::string(name).starts_with("TesselHwLib::P4R");
    EXPECT_EQ(record.newEntityForDir != nullptr, collection);
    EXPECT_EQ(record.genericIfIterator != nullptr, collection);
    if (entity) {
      EXPECT_EQ(record.methods, &Rig::GenericIfImpl::GenericIfPtrInterfaceMethods<Rig::Entity>::vtable_);
    }
  }
  EXPECT_EQ(L3IifTH3Config::_rigType.size, sizeof(L3IifTH3Config));
  EXPECT_EQ(L3TunnelTH3KeyStatus::_rigType.size, sizeof(L3TunnelTH3KeyStatus));
}

TEST(ReflectionTypes, AttributeIdsNamesAndFlagsOfTheL3TunnelConfigEntry) {
  const Rig::RigType & record = L3TunnelTH3ConfigEntry::_rigType;
  const std::vector<std::string> names = {"genId",          "entryHandle",      "valid",
                                          "entryId",        "key",              "protocol",
                                          "allowedPortBitmapProfilePtr",        "bfdEnable",
                                          "doNotChangeInnerHdrDscp",            "grePayloadIpv4",
                                          "grePayloadIpv6", "l3Iif",            "payloadIpv4",
                                          "payloadIpv6",    "subTunnelType",    "tunnelClassId",
                                          "tunnelType",     "useOuterHdrDscp",  "useOuterHdrTtl",
                                          "keyIs"};
  ASSERT_EQ(record.attributeCount, names.size());
  for (uint32_t index = 0; index < record.attributeCount; ++index) {
    const Rig::RigAttribute & attribute = record.attributes[index];
    SCOPED_TRACE(attribute.name);
    EXPECT_EQ(attribute.name, names[index]);
    EXPECT_EQ(attribute.id, index < 4 ? index + 2 : index + 126);
  }
  EXPECT_EQ(record.attribute("genId")->owner, record.base);
  EXPECT_EQ(record.attribute("genId")->flags, 0x38000002u);
  EXPECT_STREQ(record.attribute("genId")->valueType->name, "U64");
  EXPECT_EQ(record.attribute("key")->flags, 0x58000002u);
  EXPECT_EQ(record.attribute("key")->owner, &record);
  EXPECT_EQ(record.attribute("key")->valueType, &L3TunnelTH3Key::_rigType);
  EXPECT_STREQ(record.attribute("tunnelType")->valueType->name, "bool");
  const Rig::RigAttribute & keyIs = *record.attribute(145);
  EXPECT_STREQ(keyIs.name, "keyIs");
  EXPECT_EQ(keyIs.flags, 0x10110000u);
  EXPECT_EQ(keyIs.valueType, nullptr);
  EXPECT_STREQ(keyIs.arguments[0].name, "newKey");
  EXPECT_EQ(keyIs.arguments[0].type, &L3TunnelTH3Key::_rigType);
  EXPECT_EQ(keyIs.arguments[1].name, nullptr);
}

TEST(ReflectionTypes, TheL3TunnelKeyValidatesAsSixteenAndHashesAsSeventeen) {
  const Rig::RigType & record = L3TunnelTH3Key::_rigType;
  EXPECT_STREQ(record.attribute(2)->name, "etherType");
  EXPECT_STREQ(record.attribute(15)->name, "ipV6ProtoEntry");
  EXPECT_STREQ(record.attribute(4)->valueType->name, "Wirekit::IpGenAddr");
  EXPECT_STREQ(record.attribute(16)->name, "validateEntryKey");
  EXPECT_EQ(record.attribute(16)->flags, 0x10100000u);
  EXPECT_EQ(record.attribute(16)->valueType, &L3TunnelTH3KeyStatus::_rigType);
  EXPECT_STREQ(record.attribute(17)->name, "hash");
  EXPECT_STREQ(record.attribute(17)->valueType->name, "U32");
  EXPECT_STREQ(L3IifTH3Key::_rigType.attribute(3)->name, "hash");
  EXPECT_STREQ(MyStationTcamTH3Key::_rigType.attribute(11)->name, "hash");
  EXPECT_STREQ(MyStationTcamTH3Key::_rigType.attribute(2)->valueType->name, "Wirekit::EthAddr");

  L3TunnelTH3Key key;
  L3TunnelTH3KeyStatus status;
  ASSERT_EQ(attributeOp(key, 16, 8, &status), Rig::attributeDone);
  EXPECT_EQ(status.errorCode(), P4Runtime::ErrorCode::invalidEntryKey);
  EXPECT_EQ(status.errorMsg(), "Invalid hdr.ethernet.ether_type.");
  const L3TunnelTH3Key valid = Table<L3TunnelTH3Config>::key(7);
  ASSERT_EQ(attributeOp(valid, 16, 8, &status), Rig::attributeDone);
  EXPECT_EQ(status, L3TunnelTH3KeyStatus());
  uint32_t hash = 0;
  ASSERT_EQ(attributeOp(valid, 17, 8, &hash), Rig::attributeDone);
  EXPECT_EQ(hash, valid.hash(0));
  EXPECT_EQ(attributeOp(valid, 17, 0, &hash), Rig::attributeNotAllowed);
  EXPECT_EQ(attributeOp(valid, 16, 1, &status, nullptr, &status), Rig::attributeNotAllowed);
}

TEST(ReflectionTypes, OperationOneOnTheKeyOfEveryEntryIsNotAllowed) {
  const auto refuses = [](auto entry) {
    using Entry = decltype(entry);
    const typename Entry::KeyType newKey;
    EXPECT_EQ(attributeOp(entry, 130, 1, nullptr, nullptr, &newKey), Rig::attributeNotAllowed)
        << Entry::_rigType.name;
    typename Entry::KeyType read;
    EXPECT_EQ(attributeOp(entry, 130, 0, &read), Rig::attributeDone);
    EXPECT_EQ(read, entry.key());
    EXPECT_FALSE(read == newKey) << "the key stays";
  };
  refuses(Table<L3IifTH3Config>::entry(1));
  refuses(Table<L3IifTH3Status>::entry(2));
  refuses(Table<L3TunnelTH3Config>::entry(3));
  refuses(Table<L3TunnelTH3Status>::entry(4));
  refuses(Table<MyStationTcamTH3Config>::entry(5));
  refuses(Table<MyStationTcamTH3Status>::entry(6));
}

TEST(ReflectionTypes, FieldsAreReadAndWrittenByIdAndOtherOperationsAreRefused) {
  L3IifTH3ConfigEntry entry(L3IifTH3Key(12));
  const uint16_t vrf = 4095;
  EXPECT_EQ(attributeOp(entry, 140, 1, nullptr, nullptr, &vrf), Rig::attributeDone);
  EXPECT_EQ(entry.vrf(), 4095);
  uint16_t read = 0;
  EXPECT_EQ(attributeOp(entry, 140, 0, &read), Rig::attributeDone);
  EXPECT_EQ(read, 4095);
  const uint64_t genId = 77;
  EXPECT_EQ(attributeOp(entry, 2, 1, nullptr, nullptr, &genId), Rig::attributeDone);
  EXPECT_EQ(entry.genId(), 77u);
  for (const uint32_t operation : {2u, 3u, 4u, 5u, 8u, 9u}) {
    EXPECT_EQ(attributeOp(entry, 140, operation, &read, &vrf, &vrf), Rig::attributeNotAllowed) << operation;
  }
  EXPECT_EQ(attributeOp(entry, 141, 0, &read), Rig::attributeUnknown);
  EXPECT_EQ(attributeOp(entry, 1, 0, &read), Rig::attributeUnknown);

  MyStationTcamTH3Key key;
  const Wirekit::EthAddr mac({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(attributeOp(key, 2, 1, nullptr, nullptr, &mac), Rig::attributeDone);
  EXPECT_EQ(key.macAddr(), mac);
}

TEST(ReflectionTypes, TheValidationVerdictIsReadOnly) {
  L3TunnelTH3KeyStatus status(P4Runtime::ErrorCode::invalidEntryKey, "bad");
  Rig::String message;
  EXPECT_EQ(attributeOp(status, 3, 0, &message), Rig::attributeDone);
  EXPECT_EQ(message, "bad");
  const Rig::String other = "other";
  EXPECT_EQ(attributeOp(status, 3, 1, nullptr, nullptr, &other), Rig::attributeNotAllowed);
  const auto code = P4Runtime::ErrorCode::success;
  EXPECT_EQ(attributeOp(status, 2, 1, nullptr, nullptr, &code), Rig::attributeNotAllowed);
  EXPECT_EQ(status.errorMsg(), "bad");
  EXPECT_EQ(L3TunnelTH3KeyStatus::_rigType.attribute(2)->flags, 0x58000002u);
  EXPECT_STREQ(L3TunnelTH3KeyStatus::_rigType.attribute(2)->valueType->name, "P4Runtime::ErrorCode");
}

TEST(ReflectionTypes, KeyIsByReflectionOverwritesTheWholeKey) {
  L3TunnelTH3ConfigEntry entry(Table<L3TunnelTH3Config>::key(1));
  const L3TunnelTH3Key newKey = Table<L3TunnelTH3Config>::key(2);
  EXPECT_EQ(attributeOp(entry, 145, 8, nullptr, &newKey), Rig::attributeDone);
  EXPECT_EQ(entry.key(), newKey);
  EXPECT_EQ(attributeOp(entry, 145, 0, nullptr), Rig::attributeNotAllowed);
}

TEST(ReflectionTypes, OperationEightOnTheHashOfAnL3IifKeyIsItsGenericHash) {
  const L3IifTH3Key key(0x1234567890);
  uint32_t hash = 0;
  ASSERT_EQ(attributeOp(key, 3, 8, &hash), Rig::attributeDone);
  EXPECT_EQ(hash, L3IifTH3Key::_rigType.methods->genericIfHash(&key, &L3IifTH3Key::_rigType));
  EXPECT_EQ(hash, Rig::hashSingleAttr(0, 0x1234567890));
}

TEST(ReflectionTypes, TheGenericHashOfAnEntryOrVerdictRaisesNamingTheType) {
  const auto raises = [](const auto & value) {
    const Rig::RigType & record = std::remove_cvref_t<decltype(value)>::_rigType;
    try {
      record.methods->genericIfHash(&value, &record);
      ADD_FAILURE() << record.name << " hashed";
    } catch (const Rig::TypeException & exception) {
      EXPECT_EQ(std::string(exception.what()), std::string("unhashable type: '") + record.name + "'");
    }
  };
  raises(L3IifTH3ConfigEntry());
  raises(L3IifTH3StatusEntry());
  raises(L3TunnelTH3ConfigEntry());
  raises(L3TunnelTH3StatusEntry());
  raises(MyStationTcamTH3ConfigEntry());
  raises(MyStationTcamTH3StatusEntry());
  raises(L3TunnelTH3KeyStatus());
  const MyStationTcamTH3Key key = Table<MyStationTcamTH3Config>::key(3);
  EXPECT_EQ(MyStationTcamTH3Key::_rigType.methods->genericIfHash(&key, &MyStationTcamTH3Key::_rigType), key.hash(0));
}

TEST(ReflectionTypes, OperationNineIsOperatorNotAndTenAndElevenCompareWholeValues) {
  MyStationTcamTH3ConfigEntry entry;
  bool result = false;
  ASSERT_EQ(wholeValueOp(entry, 9, result), Rig::attributeDone);
  EXPECT_TRUE(result);
  entry.discardIs(true);
  ASSERT_EQ(wholeValueOp(entry, 9, result), Rig::attributeDone);
  EXPECT_FALSE(result);
  const MyStationTcamTH3ConfigEntry same = entry;
  ASSERT_EQ(wholeValueOp(entry, 10, result, &same), Rig::attributeDone);
  EXPECT_TRUE(result);
  EXPECT_EQ(wholeValueOp(entry, 11, result, &same), Rig::attributeNotAllowed) << "an entry has no order";

  const L3IifTH3Key low(1);
  const L3IifTH3Key high(2);
  ASSERT_EQ(wholeValueOp(low, 11, result, &high), Rig::attributeDone);
  EXPECT_TRUE(result);
  ASSERT_EQ(wholeValueOp(high, 11, result, &low), Rig::attributeDone);
  EXPECT_FALSE(result);
  ASSERT_EQ(wholeValueOp(low, 10, result, &high), Rig::attributeDone);
  EXPECT_FALSE(result);
  EXPECT_EQ(wholeValueOp(low, 0, result), Rig::attributeNotAllowed);
}

TEST(ReflectionTypes, ValueMethodsConstructCopyPrintAndParse) {
  const Rig::RigType & record = L3TunnelTH3ConfigEntry::_rigType;
  alignas(L3TunnelTH3ConfigEntry) unsigned char storage[sizeof(L3TunnelTH3ConfigEntry)];
  record.methods->genericIfConstruct(storage, nullptr);
  auto & value = *reinterpret_cast<L3TunnelTH3ConfigEntry *>(storage);
  EXPECT_TRUE(!value);
  const L3TunnelTH3ConfigEntry source = Table<L3TunnelTH3Config>::entry(8);
  record.methods->genericIfDestruct(storage);
  record.methods->genericIfConstruct(storage, &source);
  EXPECT_EQ(value, source);
  const Rig::String text = record.methods->genericIfStrRep(&value, &record);
  EXPECT_EQ(text, valueToStrep(source));
  record.methods->genericIfDestruct(storage);
  record.methods->genericIfConstruct(storage, nullptr);
  record.methods->genericIfStrepToValue(storage, text, &record);
  EXPECT_EQ(value, source);
  record.methods->genericIfDestruct(storage);

  // The verdict holds a string: destruction releases it.
  const Rig::RigType & verdict = L3TunnelTH3KeyStatus::_rigType;
  alignas(L3TunnelTH3KeyStatus) unsigned char verdictStorage[sizeof(L3TunnelTH3KeyStatus)];
  const L3TunnelTH3KeyStatus long_(P4Runtime::ErrorCode::invalidEntryKey, std::string(200, 'x'));
  verdict.methods->genericIfConstruct(verdictStorage, &long_);
  EXPECT_EQ(verdict.methods->genericIfStrRep(verdictStorage, &verdict), valueToStrep(long_));
  verdict.methods->genericIfDestruct(verdictStorage);
}

TEST(ReflectionTypes, ConstructorArgumentsOfKeysEntriesAndTheVerdict) {
  EXPECT_EQ(L3IifTH3Key::_rigType.ctorArgs, nullptr);
  EXPECT_EQ(MyStationTcamTH3Key::_rigType.ctorArgs, nullptr);
  const Rig::RigType & entryType = L3IifTH3StatusEntry::_rigType;
  ASSERT_NE(entryType.ctorArgs, nullptr);
  EXPECT_STREQ(entryType.ctorArgs[0].name, "key");
  EXPECT_EQ(entryType.ctorArgs[0].type, &L3IifTH3Key::_rigType);
  EXPECT_EQ(entryType.ctorArgs[1].name, nullptr);
  const L3IifTH3Key key(31);
  const void * keyArgument[] = {&key};
  alignas(L3IifTH3StatusEntry) unsigned char storage[sizeof(L3IifTH3StatusEntry)];
  entryType.genericIfConstructFromCtorArgs(storage, keyArgument);
  EXPECT_EQ(*reinterpret_cast<L3IifTH3StatusEntry *>(storage), L3IifTH3StatusEntry(key));

  const Rig::RigType & verdict = L3TunnelTH3KeyStatus::_rigType;
  EXPECT_STREQ(verdict.ctorArgs[0].name, "errorCode");
  EXPECT_STREQ(verdict.ctorArgs[1].name, "errorMsg");
  EXPECT_EQ(verdict.ctorArgs[2].name, nullptr);
  const auto code = P4Runtime::ErrorCode::invalidEntryKey;
  const Rig::String message = "why";
  const void * arguments[] = {&code, &message};
  alignas(L3TunnelTH3KeyStatus) unsigned char verdictStorage[sizeof(L3TunnelTH3KeyStatus)];
  verdict.genericIfConstructFromCtorArgs(verdictStorage, arguments);
  auto & made = *reinterpret_cast<L3TunnelTH3KeyStatus *>(verdictStorage);
  EXPECT_EQ(made, L3TunnelTH3KeyStatus(code, message));
  verdict.methods->genericIfDestruct(verdictStorage);
}

TEST(ReflectionTypes, PointersConvertToBasesOnlyAndOtherwiseRaiseNamingBothTypes) {
  const Rig::RigType & entry = L3IifTH3ConfigEntry::_rigType;
  L3IifTH3ConfigEntry value;
  EXPECT_EQ(entry.methods->genericIfVoidPtrIs(&value, &entry, &entry), &value);
  EXPECT_EQ(entry.methods->genericIfVoidPtrIs(&value, &entry, entry.base),
            static_cast<P4Runtime::TableConfigEntryBase *>(&value));
  try {
    entry.methods->genericIfVoidPtrIs(&value, &entry, &L3IifTH3Key::_rigType);
    FAIL() << "an entry became a key";
  } catch (const Rig::TypeException & exception) {
    EXPECT_STREQ(exception.what(),
                 "type 'TesselHwLib::L3IifTH3ConfigEntry' is not 'TesselHwLib::L3IifTH3Key' nor derived from it");
  }
  // An entity is its own Rig::Entity, at the same address.
  auto collection = l3IifTH3ConfigFactory(Rig::Name("c"));
  const Rig::RigType & collectionType = L3IifTH3Config::_rigType;
  EXPECT_EQ(collectionType.methods->genericIfVoidPtrIs(collection.ptr(), &collectionType, &Rig::Entity::_rigType),
            static_cast<Rig::Entity *>(collection.ptr()));
}

// ---- entity types

namespace {

template <typename C>
class ReflectionCollectionSuite : public ::testing::Test {
 protected:
  using T = Table<C>;
  ScopedShmRoot shmRoot_;
  Rig::Ptr<Rig::Directory> root_ = Rig::make<Rig::Directory>(Rig::Name("agent"));
};

TYPED_TEST_SUITE(ReflectionCollectionSuite, Collections);

uint32_t entityOp(Rig::Entity & entity, uint32_t id, uint32_t operation, void * result,
                  const void * argument1 = nullptr, const void * argument2 = nullptr) {
  const Rig::RigType & record = *entity.fwkType();
  const Rig::RigAttribute * attribute = record.attribute(id);
  const Rig::RigAttribute foreign{"foreign", &record, nullptr, nullptr, nullptr, nullptr, id, 0};
  return record.genericIfAttributeOp(result, &entity, attribute != nullptr ? attribute : &foreign, operation,
                                     argument1, argument2);
}

}  // namespace

TYPED_TEST(ReflectionCollectionSuite, TheSevenAttributesInTheirOrderWithIdsAndFlags) {
  const Rig::RigType & record = TypeParam::_rigType;
  const std::vector<std::tuple<std::string, uint32_t, uint32_t>> expected = {
      {"name", 130, 0x58000002},        {"fullName", 141, 0x10000000}, {"parent", 138, 0x38200002},
      {"parentAttrName", 139, 0x10000000}, {"entity", 143, 0x10210000}, {"table", 258, 0xB8010002},
      {"tableControl", 259, 0xB8200002}};
  ASSERT_EQ(record.attributeCount, expected.size());
  for (uint32_t index = 0; index < record.attributeCount; ++index) {
    const Rig::RigAttribute & attribute = record.attributes[index];
    EXPECT_EQ(std::tuple(std::string(attribute.name), attribute.id, attribute.flags), expected[index]);
  }
  const Rig::RigAttribute & table = *record.attribute(258);
  EXPECT_EQ(table.valueType, &TypeParam::EntryType::_rigType);
  EXPECT_EQ(table.keyType, &TypeParam::Key::_rigType);
  EXPECT_STREQ(table.keyName, "key");
  EXPECT_EQ(table.owner, &record);
  EXPECT_EQ(record.attribute(130)->owner, &Rig::Entity::_rigType);
  EXPECT_STREQ(record.attribute(259)->valueType->name, "RigCairn::CollectionControl");
}

TYPED_TEST(ReflectionCollectionSuite, TheTableIsWrittenReadCountedAndRemovedByReflection) {
  using T = typename TestFixture::T;
  auto collection = TypeParam::_rigType.newEntityForDir(Rig::Name("byName"), nullptr);
  ASSERT_EQ(collection->fwkType(), &TypeParam::_rigType);
  this->root_->entityIs(collection);
  const auto entry = T::entry(3);
  const auto key = T::key(3);
  EXPECT_EQ(entityOp(*collection, 258, 1, nullptr, nullptr, &entry), Rig::attributeDone);
  typename T::Entry read;
  EXPECT_EQ(entityOp(*collection, 258, 0, &read, &key), Rig::attributeDone);
  EXPECT_EQ(read, entry);
  bool present = false;
  EXPECT_EQ(entityOp(*collection, 258, 5, &present, &key), Rig::attributeDone);
  EXPECT_TRUE(present);
  uint32_t count = 99;
  EXPECT_EQ(entityOp(*collection, 258, 3, &count), Rig::attributeDone);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(entityOp(*collection, 258, 4, &count), Rig::attributeDone);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(entityOp(*collection, 258, 2, &read, &key), Rig::attributeDone);
  EXPECT_EQ(read, entry);
  EXPECT_EQ(entityOp(*collection, 258, 5, &present, &key), Rig::attributeDone);
  EXPECT_FALSE(present);
  EXPECT_EQ(entityOp(*collection, 258, 8, &read, &key), Rig::attributeNotAllowed);
  Rig::Ptr<RigCairn::CollectionControl> control;
  EXPECT_EQ(entityOp(*collection, 259, 0, &control), Rig::attributeDone);
  EXPECT_EQ(control, static_cast<TypeParam &>(*collection).tableControl());
  bool result = false;
  EXPECT_EQ(TypeParam::_rigType.genericIfAttributeOp(&result, collection.ptr(), nullptr, 9, nullptr, nullptr),
            Rig::attributeNotAllowed);
}

TYPED_TEST(ReflectionCollectionSuite, TheEntityAttributesTellNameFullNameParentAndChildren) {
  auto collection = TypeParam::_rigType.newEntityForDir(Rig::Name("leaf"), nullptr);
  Rig::String text;
  EXPECT_EQ(entityOp(*collection, 139, 0, &text), Rig::attributeDone);
  EXPECT_EQ(text, "");
  this->root_->entityIs(collection);
  Rig::Name name;
  EXPECT_EQ(entityOp(*collection, 130, 0, &name), Rig::attributeDone);
  EXPECT_EQ(name, "leaf");
  const Rig::Name other("other");
  EXPECT_EQ(entityOp(*collection, 130, 1, nullptr, nullptr, &other), Rig::attributeNotAllowed);
  EXPECT_EQ(entityOp(*collection, 141, 0, &text), Rig::attributeDone);
  EXPECT_EQ(text, "agent/leaf");
  Rig::Ptr<Rig::Entity> parent;
  EXPECT_EQ(entityOp(*collection, 138, 0, &parent), Rig::attributeDone);
  EXPECT_EQ(parent.ptr(), this->root_.ptr());
  EXPECT_EQ(entityOp(*collection, 139, 0, &text), Rig::attributeDone);
  EXPECT_EQ(text, "entity");
  Rig::Ptr<Rig::Entity> child(collection);
  EXPECT_EQ(entityOp(*collection, 143, 8, &child, &other), Rig::attributeDone);
  EXPECT_EQ(child, nullptr) << "a collection has no children";
  EXPECT_EQ(entityOp(*collection, 143, 0, &child), Rig::attributeNotAllowed);
  EXPECT_EQ(entityOp(*collection, 142, 0, &child), Rig::attributeUnknown);
}

TYPED_TEST(ReflectionCollectionSuite, TheIteratorOfTableControlIsNull) {
  auto collection = TypeParam::_rigType.newEntityForDir(Rig::Name("walked"), nullptr);
  const Rig::GenericIfRaw::Iterator::IteratorVTable * table = nullptr;
  const Rig::RigType & record = TypeParam::_rigType;
  EXPECT_EQ(record.genericIfIterator(collection.ptr(), record.attribute(259), &table), nullptr);
  EXPECT_EQ(record.genericIfIterator(collection.ptr(), record.attribute(130), &table), nullptr);
  EXPECT_EQ(table, nullptr);
}

TYPED_TEST(ReflectionCollectionSuite, TheIteratorWalksEveryEntryAndSurvivesRemovalOfItsKey) {
  using T = typename TestFixture::T;
  auto collection = TypeParam::_rigType.newEntityForDir(Rig::Name("walked"), nullptr);
  this->root_->entityIs(collection);
  auto & typed = static_cast<TypeParam &>(*collection);
  for (uint64_t number = 0; number < 20; ++number) {
    typed.tableIs(T::entry(number));
  }
  const Rig::RigType & record = TypeParam::_rigType;
  const Rig::RigAttribute * table = record.attribute(258);
  const Rig::GenericIfRaw::Iterator::IteratorVTable * vtable = nullptr;
  void * iterator = record.genericIfIterator(collection.ptr(), table, &vtable);
  ASSERT_NE(iterator, nullptr);
  size_t visited = 0;
  for (; vtable->iterNonnull(table, iterator); vtable->iterInc(table, iterator)) {
    typename T::Key key;
    typename T::Entry entry;
    vtable->iterKey(table, iterator, &key);
    vtable->iterObj(table, iterator, &entry);
    EXPECT_EQ(entry.key(), key);
    EXPECT_EQ(entry, typed.tableDel(key)) << "the walk goes on from a removed key";
    ++visited;
  }
  vtable->iterDel(table, iterator);
  EXPECT_EQ(visited, 20u);
  EXPECT_EQ(typed.table().backend()->members(), 0u);
}

TYPED_TEST(ReflectionCollectionSuite, NewEntityForDirWithArgumentsRaisesNamingTheType) {
  const Rig::Name name("x");
  const void * arguments[] = {&name};
  try {
    TypeParam::_rigType.newEntityForDir(Rig::Name("x"), arguments);
    FAIL() << "a collection took arguments";
  } catch (const Rig::NewEntityArgsException & exception) {
    EXPECT_EQ(std::string(exception.what()),
              std::string(TypeParam::_rigType.name) + ": newEntityForDir() of 'x' takes a name and no other argument");
  }
}

TYPED_TEST(ReflectionCollectionSuite, ConstructionFromItsNameCallsTheFactory) {
  const Rig::Name name("made");
  const void * arguments[] = {&name};
  alignas(Rig::Ptr<Rig::Entity>) unsigned char storage[sizeof(Rig::Ptr<Rig::Entity>)];
  TypeParam::_rigType.genericIfConstructFromCtorArgs(storage, arguments);
  auto & made = *reinterpret_cast<Rig::Ptr<Rig::Entity> *>(storage);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->name(), "made");
  EXPECT_EQ(made->fwkType(), &TypeParam::_rigType);
  EXPECT_TRUE(made->hasNotificationActive()) << "made by its factory";
  EXPECT_EQ(TypeParam::_rigType.methods->genericIfStrRep(&made, &TypeParam::_rigType), "made");
  TypeParam::_rigType.methods->genericIfDestruct(storage);
}

TEST(ReflectionP4RTables, ConfigAndStatusAreSetAndReadByReflection) {
  const Rig::RigType & record = P4RL3TunnelTableTH3::_rigType;
  EXPECT_EQ(record.attribute(258)->flags, 0xB8200022u);
  EXPECT_EQ(record.attribute(258)->valueType, &L3TunnelTH3Config::_rigType);
  EXPECT_EQ(record.attribute(259)->flags, 0xB8200002u);
  EXPECT_EQ(record.attribute(259)->valueType, &L3TunnelTH3Status::_rigType);
  EXPECT_STREQ(record.attributes[5].name, "config");
  EXPECT_STREQ(record.attributes[6].name, "status");
  EXPECT_EQ(record.genericIfIterator, nullptr);
  EXPECT_EQ(record.newEntityForDir, nullptr);

  const Rig::Name name("p4r");
  const void * arguments[] = {&name};
  alignas(Rig::Ptr<Rig::Entity>) unsigned char storage[sizeof(Rig::Ptr<Rig::Entity>)];
  record.genericIfConstructFromCtorArgs(storage, arguments);
  auto & object = *reinterpret_cast<Rig::Ptr<Rig::Entity> *>(storage);
  const Rig::Ptr<const L3TunnelTH3Config> config = l3TunnelTH3ConfigFactory(Rig::Name("config"));
  const Rig::Ptr<L3TunnelTH3Status> status = l3TunnelTH3StatusFactory(Rig::Name("status"));
  EXPECT_EQ(entityOp(*object, 258, 1, nullptr, nullptr, &config), Rig::attributeDone);
  EXPECT_EQ(entityOp(*object, 259, 1, nullptr, nullptr, &status), Rig::attributeDone);
  Rig::Ptr<const L3TunnelTH3Config> readConfig;
  Rig::Ptr<L3TunnelTH3Status> readStatus;
  EXPECT_EQ(entityOp(*object, 258, 0, &readConfig), Rig::attributeDone);
  EXPECT_EQ(entityOp(*object, 259, 0, &readStatus), Rig::attributeDone);
  EXPECT_EQ(readConfig, config);
  EXPECT_EQ(readStatus, status);
  EXPECT_EQ(entityOp(*object, 258, 2, &readConfig), Rig::attributeNotAllowed);
  Rig::Name objectName;
  EXPECT_EQ(entityOp(*object, 130, 0, &objectName), Rig::attributeDone);
  EXPECT_EQ(objectName, "p4r");
  record.methods->genericIfDestruct(storage);
}
