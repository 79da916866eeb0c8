#include "tspacket_streaming/pacer.h"

#include <deque>
#include <vector>

#include "support.h"
#include "tspacket_streaming/fair_lock.h"

namespace Vel::Utils {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr nanoseconds BEGIN = std::chrono::seconds(5);

/// Packets of several inputs, released on a clock that passes only in sleeps and, on request, in releases.
struct PlayedInputs {
    explicit PlayedInputs(std::vector<std::deque<nanoseconds>> inputs) : due(std::move(inputs)) {
        for (std::size_t i = 0; i < due.size(); ++i) {
            pacer.add();
            handles.push_back({[this, i](nanoseconds limit) { return release(i, limit); }});
        }
        for (std::size_t i = 0; i < due.size(); ++i) {
            pacer.schedule(handles[i], BEGIN + due[i].front());
        }
    }

    Pacer::Rest release(std::size_t i, nanoseconds limit) {
        for (int n = 0; n < most && !due[i].empty() && BEGIN + due[i].front() <= limit;
             ++n, due[i].pop_front()) {
            if (onRelease(i)) {
                return {BEGIN + due[i].front(), true};
            }
            sent.emplace_back(i, now() - due[i].front());
        }
        return {due[i].empty() ? std::nullopt : std::optional(BEGIN + due[i].front()), false};
    }

    void run(const std::function<void(nanoseconds nextDue)>& check = [](auto) {}) {
        for (auto rest = pacer.releaseDue(); rest.nextDue; rest = pacer.releaseDue()) {
            ++wakeUps;
            check(*rest.nextDue - BEGIN);
            nowNs = std::max(
                nowNs, static_cast<std::uint64_t>(pacer.toSteady(*rest.nextDue).time_since_epoch().count()));
        }
    }

    nanoseconds now() const { return nanoseconds(nowNs) - BEGIN; }

    std::uint64_t nowNs = BEGIN.count();
    std::vector<std::deque<nanoseconds>> due;                                   // since BEGIN
    std::function<bool(std::size_t i)> onRelease = [](auto) { return false; };  // whether the device is full
    std::vector<std::pair<std::size_t, nanoseconds>> sent;                      // input and lateness
    int most = 1'000'000;                                                       // packets of one release
    int wakeUps = 0;
    PacketDispatcher dispatcher{"/dev/null"};
    std::deque<Pacer::Input> handles;
    Pacer pacer{dispatcher, std::make_unique<FakeClock>(nowNs)};
};

std::deque<nanoseconds> every(microseconds interval, int count, microseconds first = {}) {
    std::deque<nanoseconds> times;
    for (int i = 0; i < count; ++i) {
        times.push_back(first + i * interval);
    }
    return times;
}

TEST(Pacer, WakesUpForGroupsOfAllInputsTogether) {
    std::vector<std::deque<nanoseconds>> inputs(64);
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        inputs[i] = every(microseconds(1500), 1000, i * microseconds(25));
    }
    PlayedInputs play(std::move(inputs));
    play.run([&](nanoseconds nextDue) {
        ASSERT_GT(nextDue, play.now() + Pacer::GROUP_TIME)
            << "a group is everything that is due in this time";
    });
    EXPECT_EQ(play.sent.size(), 64'000U);
    for (const auto& [input, lateness] : play.sent) {
        ASSERT_LE(lateness, nanoseconds(0));
        ASSERT_GE(lateness, -Pacer::GROUP_TIME);
    }
    EXPECT_LE(play.wakeUps, 6001) << "4000 per second";
}

TEST(Pacer, LatePacketsAreSentAtOnceAndALatePacerShiftsAllInputs) {
    for (const int stallMs : {900, 1100, 60'000}) {
        SCOPED_TRACE(stallMs);
        PlayedInputs play({every(milliseconds(1), 3000), every(milliseconds(10), 300)});
        play.onRelease = [&](auto) {
            play.nowNs += play.sent.size() == 1100 ? static_cast<std::uint64_t>(stallMs) * 1'000'000 : 0;
            return false;
        };
        play.run();
        ASSERT_EQ(play.sent.size(), 3300U);
        const nanoseconds shift = play.sent.back().second;
        if (stallMs < 1000) {
            EXPECT_LE(shift, nanoseconds(0)) << "the schedule stays";
        } else {
            EXPECT_NEAR(static_cast<double>(shift.count()) / 1e6, stallMs, 11);
        }
        EXPECT_EQ(std::ranges::count_if(play.sent, [&](const auto& packet) { return packet.second > shift; }),
                  stallMs < 1000 ? 990 : 2)
            << "only what was due during a short stall is late";
    }
}

TEST(Pacer, ShiftsBeforeAStreamSeesTheLateTime) {
    PlayedInputs play({{milliseconds(10)}});
    play.nowNs += 3'000'000'000;
    EXPECT_EQ(play.pacer.now(), BEGIN + milliseconds(10)) << "else a feed would take itself for late";
    play.nowNs += 500'000'000;
    EXPECT_EQ(play.pacer.now(), BEGIN + milliseconds(510));
    EXPECT_EQ(play.pacer.progress(), BEGIN + milliseconds(10));
}

TEST(Pacer, ADeviceThatIsTooSlowButNeverStallsShiftsTheSchedule) {
    PlayedInputs play({every(milliseconds(1), 5000), every(milliseconds(1), 5000)});
    int calls = 0;
    play.onRelease = [&](auto) {
        play.nowNs += 1'000'000;  // twice as long as the streams allow
        return ++calls % 3 == 0;
    };
    play.run();
    EXPECT_EQ(play.sent.size(), 10'000U);
    EXPECT_GT(play.pacer.toSteady({}).time_since_epoch(), std::chrono::seconds(4));
}

TEST(Pacer, EndsAtOnceWhileItWaitsForAnHourOrForPackets) {
    for (const bool hasPackets : {true, false}) {
        // An hour ahead of the time that waits take. A sleep that nothing interrupts takes none.
        auto nowNs = oneHourAhead();
        std::atomic<bool> isReleased = false;
        PacketDispatcher dispatcher("/dev/null");
        Pacer pacer(dispatcher, std::make_unique<FakeClock>(nowNs));
        Pacer::Input input{[&](auto) {
            isReleased = true;
            return Pacer::Rest{};
        }};
        pacer.start();
        pacer.add();
        if (hasPackets) {
            pacer.schedule(input, pacer.now() + milliseconds(1));
        }
        std::this_thread::sleep_for(milliseconds(20));  // until it probably waits
        EXPECT_FALSE(isReleased);
    }
}

TEST(Pacer, ABacklogDoesNotDelayOtherInputs) {
    PlayedInputs play({std::deque<nanoseconds>(20'000), every(milliseconds(1), 10)});
    play.most = 100;
    play.onRelease = [&](auto) {
        play.nowNs += 1000;
        return false;
    };
    play.run();
    for (const auto& [input, lateness] : play.sent) {
        EXPECT_TRUE(input == 0 || lateness <= microseconds(150)) << lateness.count();
    }
}

TEST(Pacer, AnInputIsRemovedAfterItsReleaseInProgress) {
    PlayedInputs play({every(milliseconds(1), 100), every(milliseconds(1), 100)});
    std::atomic<bool> isReleasing = false;
    std::atomic<bool> isReleased = false;
    play.onRelease = [&](std::size_t i) {
        if (i == 0 && !isReleased) {
            isReleasing = true;
            std::this_thread::sleep_for(milliseconds(50));
            isReleased = true;
        }
        return false;
    };
    std::jthread pacing([&] { play.run(); });
    ASSERT_TRUE(TestSupport::eventually([&] { return isReleasing.load(); }));
    play.pacer.remove(play.handles[0]);
    EXPECT_TRUE(isReleased);
    pacing.join();
    EXPECT_EQ(play.sent.size(), 101U) << "it gets no further turn";
}

TEST(Pacer, TheOthersKeepTheirOrderWhenAnInputIsRemoved) {
    PlayedInputs play({{milliseconds(1)}, {milliseconds(10)}, {milliseconds(2)}, {milliseconds(3)}});
    play.pacer.remove(play.handles[0]);
    play.run();
    EXPECT_EQ(std::ranges::max(play.sent, {}, &std::pair<std::size_t, nanoseconds>::second).second.count(),
              0);
}

TEST(FairLock, GoesToTheLongestWaiterAndAStoppedOneLeavesTheQueue) {
    FairLock lock;
    ASSERT_TRUE(lock.lock({}));
    std::vector<int> order;
    std::vector<std::jthread> waiters;
    std::atomic<int> left = 0;
    for (int i = 0; i < 5; ++i) {
        waiters.emplace_back([&, i](const std::stop_token& stop) {
            if (!lock.lock(stop)) {
                ++left;
                return;
            }
            order.push_back(i);
            lock.handOver();
        });
        // Until it waits: then its turn comes before that of the next one.
        ASSERT_TRUE(TestSupport::eventually(
            [&] { return lock.getWaiterCount() == static_cast<std::size_t>(i) + 1; }));
    }
    waiters[2].request_stop();
    EXPECT_TRUE(TestSupport::eventually([&] { return left == 1; }));
    lock.handOver();
    ASSERT_TRUE(lock.lock({}));  // after all those that were there before
    order.push_back(9);
    lock.handOver();
    waiters.clear();
    EXPECT_EQ(order, (std::vector{0, 1, 3, 4, 9}));
}

TEST(FairLock, ATurnLastsUntilSomebodyWaits) {
    FairLock lock;
    FairTurn turn(lock);
    ASSERT_TRUE(!turn.isTaken() && turn.begin({}));
    std::this_thread::sleep_for(2 * FairTurn::MAX_TIME);
    for (int pieces = 0; pieces < 20; ++pieces) {
        turn.endIfOver();
    }
    EXPECT_TRUE(turn.isTaken());
    const std::jthread rival([&](const std::stop_token& stop) {
        while (!stop.stop_requested() && lock.lock(stop)) {
            lock.handOver();
        }
    });
    for (int turns = 0; turns < 10; ++turns) {
        EXPECT_TRUE(TestSupport::eventually([&] {
            turn.endIfOver();
            return !turn.isTaken();
        }));
        ASSERT_TRUE(turn.begin({}));
    }
}

TEST(FairLock, ExcludesOthersHoweverItIsReleased) {
    FairLock lock;
    int owners = 0;
    int uses = 0;
    std::vector<std::jthread> users;
    users.reserve(4);
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([&, i] {
            for (int n = 0; n < 20'000; ++n) {
                ASSERT_TRUE(lock.lock({}));
                EXPECT_EQ(++owners, 1);
                ++uses;
                --owners;
                n % 8 == i ? lock.handOver() : lock.unlock();
            }
        });
    }
    users.clear();
    EXPECT_EQ(uses, 80'000);
}

}  // namespace
}  // namespace Vel::Utils
