#pragma once

#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>

#include <spdlog/common.h>

#include "fpga_monitoring/fpga_mon_event.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "tspacket_streaming/pktio_stream_manager.h"
#include "tspacket_streaming/stream_mode.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Bench {

inline constexpr std::uint32_t PID = 0x100;  // of every packet of a file

/// The program from table changes to the data device, with inputs 0 to N-1 that all play the same file. The
/// benchmark takes the place of the monitors. An input starts to play with its first route.
class Player {
public:
    Player(const std::string& file, std::uint32_t inputs, const std::string& device,
           Utils::StreamMode mode = Utils::StreamMode::MaxRate,
           Utils::PcrPacing pacing = Utils::PcrPacing::Batches)
        : m_Dispatcher(device, m_Stop.get_token()),
          m_Manager(m_Dispatcher, mode, {{URI, file}}, m_Stop.get_token(), pacing) {
        Log::getLogsystem()->setLevel(spdlog::level::warn);
        for (std::uint32_t i = 0; i < inputs; ++i) {
            send<Utils::FPGAMonEvent_InputTSAdded>(URI, i);
        }
        endChange();
    }
    /// Like a shutdown, so that paced releases end at once.
    ~Player() { m_Stop.request_stop(); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    static constexpr const char* URI = "udp://239.0.0.1:5000";

    template <class Event, class... Args>
    void send(Args... args) {
        m_Manager.handleEvent(std::make_unique<Event>(args...));
    }
    void endChange() { m_Manager.handleChangeEnd(); }
    std::uint64_t getRecordCount() const { return m_Dispatcher.getRecordCount(); }

private:
    std::stop_source m_Stop;
    Utils::PacketDispatcher m_Dispatcher;
    Utils::PktioStreamManager m_Manager;
};

}  // namespace Vel::Bench
