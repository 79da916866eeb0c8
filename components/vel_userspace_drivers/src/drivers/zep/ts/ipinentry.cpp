#include "vel/userspace_drivers/drivers/zep/ts/ipinentry.h"

#include "vel/cpp_utils/uri/uri.h"

namespace Vel::Drivers::Zep {

using CppUtil::IpAdrContainer;

namespace {

IpAdrContainer parseIp(const std::string& text, const char* refusal) {
    try {
        return IpAdrContainer(text);
    } catch (const CppUtil::ParsingError&) {
        throw ZepDriverError(refusal + text + ")");
    }
}

}  // namespace

IpInEntry::IpInEntry(std::uint32_t tsiidx, const IpAdrContainer& ip, std::uint32_t udpPort)
    : m_TSIIDX(requireInRange(tsiidx, TSIIDX_RANGE, "IpInEntry created with invalid TSIidx (")),
      m_Ip(ip),
      m_UdpPort(requireInRange(udpPort, UDP_PORT_RANGE, "IpInEntry created with invalid UDP port (")) {}

IpInEntry::IpInEntry(std::uint32_t tsiidx, const std::string& ip, std::uint32_t udpPort)
    : IpInEntry(tsiidx, parseIp(ip, "IpInEntry created with invalid IP address ("), udpPort) {}

void IpInEntry::setTSIIDX(std::uint32_t tsiidx) {
    m_TSIIDX = requireInRange(tsiidx, TSIIDX_RANGE, "Attempt to set invalid TSIidx (");
    m_Enabled = true;
}

void IpInEntry::setIp(const IpAdrContainer& ip) {
    m_Ip = ip;
    m_Enabled = true;
}

void IpInEntry::setIp(const std::string& ip) {
    setIp(parseIp(ip, "Attempt to set invalid IP address ("));
}

void IpInEntry::setUdpPort(std::uint32_t udpPort) {
    m_UdpPort = requireInRange(udpPort, UDP_PORT_RANGE, "Attempt to set invalid UDP port (");
    m_Enabled = true;
}

void IpInEntry::clear() {
    setTSIIDX(TSIIDX_RANGE.max);
    setIp(IpAdrContainer(IpLut::ADDRESS.mask()));
    setUdpPort(UDP_PORT_RANGE.max);
    m_Enabled = false;
}

std::string buildInputUri(const IpInEntry& entry) {
    CppUtil::UriAuthority authority;
    authority.setHost(entry.getIp().toString());
    authority.setPort(static_cast<std::uint16_t>(entry.getUdpPort()));
    CppUtil::Uri uri;
    uri.setScheme("udp");
    uri.setAuthority(authority);
    return uri.toString();
}

}  // namespace Vel::Drivers::Zep
