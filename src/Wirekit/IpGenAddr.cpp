#include "Wirekit/IpGenAddr.h"

#include <algorithm>

#include <fmt/format.h>

#include "Wirekit/AddrImpl.h"

namespace Wirekit {

namespace {

constexpr std::string_view unsetText = "unset";
constexpr std::string_view expectedText = "an IPv4 or IPv6 address";

// An address of one family, if there is one, as an IpGenAddr.
template <typename Addr>
std::optional<IpGenAddr> generalised(const std::optional<Addr> & addr) {
  return addr ? std::optional(IpGenAddr(*addr)) : std::nullopt;
}

}  // namespace

IpAddr IpGenAddr::ipAddr() const {
  IpAddr::Bytes bytes;
  std::copy_n(bytes_.begin(), bytes.size(), bytes.begin());
  return IpAddr(bytes);
}

bool IpGenAddr::isAddrZero() const {
  switch (family_) {
    case Family::ipv4: return ipAddr().isAny();
    case Family::ipv6: return ip6Addr().isUnspecified();
    default: return true;
  }
}

void IpGenAddr::handleInitialized(std::string_view text) {
  std::optional<IpGenAddr> addr = parse(text);
  if (!addr) {
    throw Impl::badAddressText("Wirekit::IpGenAddr::handleInitialized()", expectedText, text);
  }
  *this = *addr;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
  if (text == unsetText) {
    return IpGenAddr();
  }
  if (text.find(':') != std::string_view::npos) {
    return generalised(Ip6Addr::parse(text));
  }
  return generalised(IpAddr::parse(text));
}

Rig::String valueToStrep(const IpGenAddr & addr) {
  switch (addr.family()) {
    case IpGenAddr::Family::unset: return Rig::String(unsetText);
    case IpGenAddr::Family::ipv4: return valueToStrep(addr.ipAddr());
    case IpGenAddr::Family::ipv6: return valueToStrep(addr.ip6Addr());
  }
  return fmt::format("unknown-family-{}", static_cast<uint32_t>(addr.family()));
}

IpGenAddr sequenceToValue(Rig::Cursor & cursor, Rig::Cursor end, std::string_view attributeName,
                          IpGenAddr *) {
  return Impl::takeAddress<IpGenAddr>(cursor, end, attributeName, expectedText);
}

std::ostream & operator<<(std::ostream & stream, const IpGenAddr & addr) {
  return stream << valueToStrep(addr);
}

}  // namespace Wirekit
