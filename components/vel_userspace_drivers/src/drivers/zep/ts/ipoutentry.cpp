#include "vel/userspace_drivers/drivers/zep/ts/ipoutentry.h"

namespace Vel::Drivers::Zep {

using CppUtil::IpAdrContainer;
using CppUtil::MacAdrContainer;

IpOutEntry::IpOutEntry(std::uint32_t tsoIdx, const MacAdrContainer& mac, const IpAdrContainer& ip,
                       std::uint32_t udpPort, bool rtp)
    : m_Mac(mac), m_Ip(ip), m_Rtp(rtp) {
    setTSOIDX(tsoIdx);
    setUdpPort(udpPort);
}

void IpOutEntry::setTSOIDX(std::uint32_t tsoIdx) {
    if (!TSOIDX_RANGE.contains(tsoIdx)) {
        throw ZepDriverError("TSOIdx out of range");
    }
    m_TSOIDX = tsoIdx;
}

void IpOutEntry::setMac(const MacAdrContainer& mac) {
    m_Mac = mac;
    m_Enabled = true;
}

void IpOutEntry::setIp(const IpAdrContainer& ip) {
    m_Ip = ip;
    m_Enabled = true;
}

void IpOutEntry::setUdpPort(std::uint32_t udpPort) {
    if (!UDP_PORT_RANGE.contains(udpPort)) {
        throw ZepDriverError("UDPPort out of range");
    }
    m_UdpPort = udpPort;
    m_Enabled = true;
}

void IpOutEntry::setRtp(bool rtp) {
    m_Rtp = rtp;
    m_Enabled = true;
}

void IpOutEntry::clear() {
    setTSOIDX(TSOIDX_RANGE.max);
    setIp(IpAdrContainer());
    setUdpPort(UDP_PORT_RANGE.max);
    setRtp(false);
    m_Enabled = false;
}

}  // namespace Vel::Drivers::Zep
