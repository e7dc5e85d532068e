#include "ArenaFiles/DoorbellInfo.h"

#include <fmt/format.h>

#include "Basalt/Exception.h"

namespace ArenaFiles {

DoorbellInfo::DoorbellInfo(std::string socketName, uint32_t tableId) : tableId_(tableId) {
  socketNameIs(std::move(socketName));
}

void DoorbellInfo::socketNameIs(std::string socketName) {
  BASALT_ASSERT(socketName.size() <= MaxSocketName && socketName.find('\0') == std::string::npos,
                "ArenaFiles/DoorbellInfo", fmt::format("DoorbellInfo::socketNameIs() bad socket name:{}",
                                                       socketName));
  socketName_ = std::move(socketName);
}

std::string DoorbellInfo::toString() const {
  return fmt::format("socketName:{} tableId:{}", socketName_, tableId_);
}

}  // namespace ArenaFiles
