#include "TesselHwLib/L3IifTH3.h"

namespace TesselHwLib {

RIG_RECORD_DEFINE(L3IifTH3Key)
RIG_KEY_DEFINE(L3IifTH3Key)
RIG_RECORD_DEFINE(L3IifTH3ConfigEntry)
RIG_RECORD_DEFINE(L3IifTH3StatusEntry)

}  // namespace TesselHwLib
