#include "Wirekit/IpAddr.h"

#include "Wirekit/AddrImpl.h"

namespace Wirekit {

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
  return Impl::parseInet<IpAddr>(text);
}

Rig::String valueToStrep(const IpAddr & addr) { return Impl::inetFormat(addr.bytes()); }

IpAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                       IpAddr *) {
  return Impl::takeAddress<IpAddr>(cursor, end, attributeName, "an IPv4 address");
}

std::ostream & operator<<(std::ostream & stream, const IpAddr & addr) {
  return stream << valueToStrep(addr);
}

}  // namespace Wirekit
