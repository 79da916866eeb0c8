#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <utility>

#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the IP LUT: binds an IPv4 address and UDP port to an input transport stream while it is enabled.
/// Setters enable the row.
class IpInEntry final : public TableRow<IpInEntry, IpLut::TABLE.wordsPerRow> {
public:
    /// A cleared row.
    IpInEntry() { clear(); }
    /// An enabled row of address 0.0.0.0, port 0.
    /// @param tsiidx 0..255
    explicit IpInEntry(std::uint32_t tsiidx) : IpInEntry(tsiidx, CppUtil::IpAdrContainer(), 0) {}
    /// An enabled row.
    /// @param udpPort 0..65535
    IpInEntry(std::uint32_t tsiidx, const CppUtil::IpAdrContainer& ip, std::uint32_t udpPort);
    /// @param ip dotted decimal
    IpInEntry(std::uint32_t tsiidx, const std::string& ip, std::uint32_t udpPort);

    void setTSIIDX(std::uint32_t tsiidx);
    void setIp(const CppUtil::IpAdrContainer& ip);
    void setIp(const std::string& ip);
    void setUdpPort(std::uint32_t udpPort);

    std::uint32_t getTSIIDX() const { return m_TSIIDX; }
    const CppUtil::IpAdrContainer& getIp() const { return m_Ip; }
    std::uint32_t getUdpPort() const { return m_UdpPort; }
    bool isEnabled() const { return m_Enabled; }

    /// TSIIDX 255, address 255.255.255.255, port 65535, not enabled.
    void clear() override;

    /// By address, then by port.
    friend std::weak_ordering operator<=>(const IpInEntry& left, const IpInEntry& right) {
        return left.key() <=> right.key();
    }
    /// Same input at the same address and port, enabled or not.
    friend bool operator==(const IpInEntry& left, const IpInEntry& right) {
        return left.m_TSIIDX == right.m_TSIIDX && left.key() == right.key();
    }

private:
    friend TableRow;
    std::pair<std::uint32_t, std::uint32_t> key() const { return {m_Ip.toUint32(), m_UdpPort}; }
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(IpLut::ADDRESS, row.m_Ip);
        visit(IpLut::UDP_PORT, row.m_UdpPort);
        visit(IpLut::TSIIDX, row.m_TSIIDX);
        visit(IpLut::ENABLED, row.m_Enabled);
    }

    std::uint32_t m_TSIIDX = 0;
    CppUtil::IpAdrContainer m_Ip;
    std::uint32_t m_UdpPort = 0;
    bool m_Enabled = true;
};

/// The URI that names an input, for example udp://239.1.2.3:5000, or udp://239.1.2.3 for port 0. Operators
/// link files to inputs by it.
std::string buildInputUri(const IpInEntry& entry);

}  // namespace Vel::Drivers::Zep
