#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Vel::Utils {

/// What a change in one of the FPGA's tables means for the data paths.
enum class FPGAMonEventType : std::uint32_t {
    InputTSAdded = 0,
    InputTSRemoved = 1,
    CPUPIDAdded = 2,
    CPUPIDRemoved = 3,
};

/// Base of the monitor events, which are plain values from decoded table rows.
class FPGAMonEvent {
public:
    virtual ~FPGAMonEvent() = default;
    FPGAMonEventType getType() const { return m_Type; }

protected:
    explicit FPGAMonEvent(FPGAMonEventType type) : m_Type(type) {}
    FPGAMonEvent(const FPGAMonEvent&) = default;
    FPGAMonEvent& operator=(const FPGAMonEvent&) = default;

private:
    FPGAMonEventType m_Type;
};

/// An enabled IP LUT row appeared or disappeared; see getType().
template <FPGAMonEventType TYPE>
class InputTSEvent : public FPGAMonEvent {
public:
    InputTSEvent(std::string uri, std::uint32_t tsiidx)
        : FPGAMonEvent(TYPE), m_Uri(std::move(uri)), m_TSIIDX(tsiidx) {}
    /// For example udp://239.1.2.3:5000
    const std::string& getUri() const { return m_Uri; }
    std::uint32_t getTSIIDX() const { return m_TSIIDX; }

private:
    std::string m_Uri;
    std::uint32_t m_TSIIDX;
};

/// A PID LUT row with the CPU route appeared or disappeared; see getType().
template <FPGAMonEventType TYPE>
class CPUPIDEvent : public FPGAMonEvent {
public:
    CPUPIDEvent(std::uint32_t tsiidx, std::uint32_t pid) : FPGAMonEvent(TYPE), m_TSIIDX(tsiidx), m_PID(pid) {}
    std::uint32_t getTSIIDX() const { return m_TSIIDX; }
    /// 0..8191
    std::uint32_t getPID() const { return m_PID; }

private:
    std::uint32_t m_TSIIDX;
    std::uint32_t m_PID;
};

using FPGAMonEvent_InputTSAdded = InputTSEvent<FPGAMonEventType::InputTSAdded>;
using FPGAMonEvent_InputTSRemoved = InputTSEvent<FPGAMonEventType::InputTSRemoved>;
using FPGAMonEvent_CPUPIDAdded = CPUPIDEvent<FPGAMonEventType::CPUPIDAdded>;
using FPGAMonEvent_CPUPIDRemoved = CPUPIDEvent<FPGAMonEventType::CPUPIDRemoved>;

}  // namespace Vel::Utils
