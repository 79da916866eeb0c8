#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include "tspacket_streaming/monotonic_clock.h"
#include "tspacket_streaming/packet_dispatcher.h"
#include "vel/cpp_utils/log.h"

namespace Vel::Utils {

/// Releases the due packets of all clocked inputs, on one thread: it sleeps until the earliest packet is due,
/// and then releases from every input what is due within GROUP_TIME. So the number of wake-ups does not
/// depend on the number of inputs.
///
/// All due times are in the pacer's time: the monotonic clock minus the time by which the schedule of all
/// inputs has been shifted so far. Thread-safe.
class Pacer {
public:
    /// What is due within this time is sent together.
    static constexpr std::chrono::microseconds GROUP_TIME{250};
    /// Packets that are late are sent at once. If the pacer itself is later than this, because the device or
    /// the processor is too slow, was blocked or stopped, the schedule of all inputs is shifted instead.
    static constexpr std::chrono::seconds MAX_LATENESS{1};

    /// What is left after a release.
    struct Rest {
        std::optional<std::chrono::nanoseconds> nextDue;  ///< none if no packet has a due time
        bool isDeviceFull = false;                        ///< the release could not be finished
    };

    /// A clocked input.
    struct Input {
        /// Sends the packets that are due by `limit`, or the first ones of them. Must not throw, nor wait for
        /// the device. Called by the pacer's thread.
        std::function<Rest(std::chrono::nanoseconds limit)> releaseDue;
    };

    static std::string loggerName() { return Log::makeLoggerName(__FILE__, "Vel::Utils::Pacer"); }

    /// @param dispatcher must outlive the pacer, which waits for its device when that is full
    /// @param clock the source of time; the system's by default
    explicit Pacer(PacketDispatcher& dispatcher,
                   std::unique_ptr<const MonotonicClock> clock = std::make_unique<MonotonicClock>());
    /// Starts the thread. Not called by a test that calls releaseDue() itself.
    void start();

    /// The pacer's time. Whoever asks first after the pacer has fallen behind shifts the schedule.
    std::chrono::nanoseconds now();
    /// The pacer's time, but not beyond a packet that should have been sent: a feed is not late by the time
    /// during which the pacer was.
    std::chrono::nanoseconds progress();
    /// When the pacer's time will be `time`, unless the schedule is shifted before.
    std::chrono::steady_clock::time_point toSteady(std::chrono::nanoseconds time) const {
        return std::chrono::steady_clock::time_point(time + m_Shift.load());
    }

    /// Makes room for one more input.
    void add();
    /// Returns once the pacer no longer uses the input: after its release in progress.
    void remove(Input& input);
    /// Tells that an input without packets has some again, the first of which is due at that time.
    void schedule(Input& input, std::chrono::nanoseconds due);

    /// Releases from every input what is due now or within GROUP_TIME. Called by the pacer's thread.
    Rest releaseDue();

private:
    struct Turn {
        std::chrono::nanoseconds due;    // the order of the inputs
        std::chrono::nanoseconds since;  // when the input could have had its turn
        Input* input;
    };

    void run(const std::stop_token& stop) noexcept;
    void sleep(const std::stop_token& stop);
    std::chrono::nanoseconds takeTime();
    void push(Turn turn);

    std::shared_ptr<spdlog::logger> m_Logger;
    PacketDispatcher& m_Dispatcher;
    std::unique_ptr<const MonotonicClock> m_Clock;
    std::atomic<std::chrono::nanoseconds> m_Shift{std::chrono::nanoseconds::zero()};
    std::mutex m_Lock;  // guards the following; never held while another lock is taken or a record is written
    std::vector<Turn> m_Turns;  // a heap, earliest first; one for each input that has packets to send
    std::chrono::nanoseconds m_Unreported{0};  // shifts that have not been logged
    std::size_t m_InputCount = 0;              // m_Turns has room for all of them
    Input* m_Releasing = nullptr;              // in use outside the lock; set by the pacer's thread alone
    bool m_IsLast = false;                     // remove() waits for m_Releasing
    std::condition_variable m_LetGo;
    std::condition_variable_any m_Earlier;  // an input's turn comes before all others
    std::jthread m_Thread;
};

}  // namespace Vel::Utils
