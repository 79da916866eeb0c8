#pragma once

#include <compare>
#include <cstdint>
#include <utility>

#include "vel/cpp_utils/network/ipadrcontainer.h"
#include "vel/cpp_utils/network/macadrcontainer.h"
#include "vel/userspace_drivers/drivers/zep/ts/register_map.h"
#include "vel/userspace_drivers/drivers/zep/ts/table_row.h"

namespace Vel::Drivers::Zep {

/// Row of the IP output table: where an output transport stream is sent, and whether with an RTP header. The
/// row's index in the table is its TSOIDX, so its words do not hold it. The setters of all other fields
/// enable the row.
class IpOutEntry final : public TableRow<IpOutEntry, IpOutTable::TABLE.wordsPerRow> {
public:
    /// A cleared row of MAC address 00:00:00:00:00:00.
    IpOutEntry() { clear(); }
    /// The same for an output stream.
    /// @param tsoIdx 0..255
    explicit IpOutEntry(std::uint32_t tsoIdx) : IpOutEntry() { setTSOIDX(tsoIdx); }
    /// An enabled row.
    /// @param udpPort 0..65535
    IpOutEntry(std::uint32_t tsoIdx, const CppUtil::MacAdrContainer& mac, const CppUtil::IpAdrContainer& ip,
               std::uint32_t udpPort, bool rtp);

    /// Does not enable the row.
    void setTSOIDX(std::uint32_t tsoIdx);
    void setMac(const CppUtil::MacAdrContainer& mac);
    void setIp(const CppUtil::IpAdrContainer& ip);
    void setUdpPort(std::uint32_t udpPort);
    void setRtp(bool rtp);

    std::uint32_t getTSOIDX() const { return m_TSOIDX; }
    const CppUtil::MacAdrContainer& getMac() const { return m_Mac; }
    const CppUtil::IpAdrContainer& getIp() const { return m_Ip; }
    std::uint32_t getUdpPort() const { return m_UdpPort; }
    bool isRtp() const { return m_Rtp; }
    bool isEnabled() const { return m_Enabled; }

    /// TSOIDX 255, address 0.0.0.0, port 65535, no RTP, not enabled. Keeps the MAC address.
    void clear() override;

    /// By address, then by port.
    friend std::weak_ordering operator<=>(const IpOutEntry& left, const IpOutEntry& right) {
        return left.key() <=> right.key();
    }
    /// Same output stream to the same address and port.
    friend bool operator==(const IpOutEntry& left, const IpOutEntry& right) {
        return left.m_TSOIDX == right.m_TSOIDX && left.key() == right.key();
    }

private:
    friend TableRow;
    std::pair<std::uint32_t, std::uint32_t> key() const { return {m_Ip.toUint32(), m_UdpPort}; }
    template <class Self, class Visit>
    static void visitFields(Self& row, Visit visit) {
        visit(IpOutTable::MAC, row.m_Mac);
        visit(IpOutTable::ADDRESS, row.m_Ip);
        visit(IpOutTable::UDP_PORT, row.m_UdpPort);
        visit(IpOutTable::RTP, row.m_Rtp);
        visit(IpOutTable::ENABLED, row.m_Enabled);
    }

    std::uint32_t m_TSOIDX = 0;
    CppUtil::MacAdrContainer m_Mac;
    CppUtil::IpAdrContainer m_Ip;
    std::uint32_t m_UdpPort = 0;
    bool m_Rtp = false;
    bool m_Enabled = false;
};

}  // namespace Vel::Drivers::Zep
