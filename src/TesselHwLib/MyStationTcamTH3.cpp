#include "TesselHwLib/MyStationTcamTH3.h"

namespace TesselHwLib {

RIG_RECORD_DEFINE(MyStationTcamTH3Key)
RIG_KEY_DEFINE(MyStationTcamTH3Key)
RIG_RECORD_DEFINE(MyStationTcamTH3ConfigEntry)
RIG_RECORD_DEFINE(MyStationTcamTH3StatusEntry)

}  // namespace TesselHwLib
