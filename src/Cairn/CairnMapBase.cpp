#include "Cairn/CairnMapBase.h"

#include <syslog.h>

#include <sstream>
#include <utility>

#include "ArenaFiles/EpochFile.h"
#include "Basalt/DebugHandlerRegistry.h"
#include "Basalt/Exception.h"
#include "Cairn/RootPath.h"
#include "Cairn/Util.h"

namespace Cairn {

namespace {

CairnMapBase::CorruptionHandler & corruptionHandler() {
  static CairnMapBase::CorruptionHandler handler;
  return handler;
}

bool isShadowMode(CairnType mode) { return mode == CairnType::shadow || mode == CairnType::keyshadow; }

}  // namespace

CairnMapBase::CairnMapBase() : handler_(Basalt::Platform::getDebugHandler(TempHandlerName)) {}

CairnMapBase::~CairnMapBase() = default;

bool CairnMapBase::exists() const {
  if (!initialized_ || localMem()) {
    return initialized_;
  }
  const RootPath rootPath(*handler_, path_, true);
  return !ArenaFiles::EpochFile(*handler_, rootPath.directory(), false).read().none();
}

std::string CairnMapBase::modeStr() const {
  std::ostringstream text;
  text << mode();
  return text.str();
}

bool CairnMapBase::readerFullyAttached() const {
  if (localMem()) {
    return false;
  }
  switch (mode()) {
    case CairnType::reader: return mountStatus() == 1;
    case CairnType::shadow:
    case CairnType::keyshadow: return mountStatus() == 2;
    case CairnType::writer: break;
  }
  return false;
}

bool CairnMapBase::disconnectedActiveReader() const {
  if (localMem() || !isShadowMode(mode())) {
    return false;
  }
  const uint32_t status = mountStatus();
  return (status == 1 || status == 2) && !connected();
}

void CairnMapBase::doCorruptionDetected(const std::string & message) const {
  BASALT_TRACE(*handler_, 0, "CairnMapBase::doCorruptionDetected() table:{} {}", path_, message);
  if (initialized_ && !localMem()) {
    Util::writeCorruptionFile(*handler_, RootPath(*handler_, path_, true).directory(), message);
  }
  if (const CorruptionHandler & handler = corruptionHandler()) {
    handler(path_, message);
  }
}

void CairnMapBase::systemLog(const std::string & text) {
  openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
  syslog(LOG_DEBUG, "%s", text.c_str());
  closelog();
}

CairnMapBase::CorruptionHandler CairnMapBase::corruptionHandlerIs(CorruptionHandler handler) {
  return std::exchange(corruptionHandler(), std::move(handler));
}

Reader::Counters CairnMapBase::cairnMapUpdateReaderCounters(const Reader::Counters & counters) const {
  if (mountStatus() != 0) {
    readerCounters_ = counters;
  }
  return readerCounters_;
}

Writer::Counters CairnMapBase::cairnMapUpdateWriterCounters(const Writer::Counters & counters) const {
  if (mountStatus() != 0) {
    writerCounters_ = counters;
  }
  return writerCounters_;
}

void CairnMapBase::handleDisconnect() {
  BASALT_TRACE(*handler_, 1, "CairnMap::handleDisconnect()");
  BASALT_ASSERT(mode() == CairnType::shadow || mode() == CairnType::keyshadow, "Cairn/CairnMap",
                "CairnMap::handleDisconnect() wrong type:" + modeStr());
  if (mounter_ != nullptr) {
    mounter_->poke("CairnMap::handleDisconnect()", 0);
  }
}

}  // namespace Cairn
