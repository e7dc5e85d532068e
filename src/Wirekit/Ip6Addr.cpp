#include "Wirekit/Ip6Addr.h"

#include "Wirekit/AddrImpl.h"

namespace Wirekit {

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
  return Impl::parseInet<Ip6Addr>(text);
}

Rig::String valueToStrep(const Ip6Addr & addr) { return Impl::inetFormat(addr.bytes()); }

Ip6Addr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                        Ip6Addr *) {
  return Impl::takeAddress<Ip6Addr>(cursor, end, attributeName, "an IPv6 address");
}

std::ostream & operator<<(std::ostream & stream, const Ip6Addr & addr) {
  return stream << valueToStrep(addr);
}

}  // namespace Wirekit
