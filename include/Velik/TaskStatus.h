// The status bits of a task as statistics and reports show them.
#pragma once

#include <cstdint>

namespace Velik {

class TaskStatus {
  public:
    static constexpr std::uint8_t taskTimerBit = 0x01;             // a timer task
    static constexpr std::uint8_t taskTimerRunningBit = 0x02;      // its timer is armed
    static constexpr std::uint8_t taskOnRunQueueBit = 0x04;        // on a run queue
    static constexpr std::uint8_t taskCurrentlyRunningBit = 0x08;  // running now
    static constexpr std::uint8_t taskSuspendedBit = 0x10;
    static constexpr std::uint8_t taskIsTaskGroupBit = 0x20;

    constexpr TaskStatus() = default;
    constexpr explicit TaskStatus(std::uint8_t bits) : bits_(bits) {}

    constexpr std::uint8_t bits() const { return bits_; }
    // `bit` is the bit's value (0x04), not its index.
    constexpr bool bitmaskHasBitSet(std::uint8_t bit) const { return (bits_ & bit) != 0; }
    constexpr void bitmaskSetBit(std::uint8_t bit, bool on) {
        bits_ =
            on ? static_cast<std::uint8_t>(bits_ | bit) : static_cast<std::uint8_t>(bits_ & ~bit);
    }

    constexpr bool taskTimer() const { return bitmaskHasBitSet(taskTimerBit); }
    constexpr void taskTimerIs(bool on) { bitmaskSetBit(taskTimerBit, on); }
    constexpr bool taskTimerRunning() const { return bitmaskHasBitSet(taskTimerRunningBit); }
    constexpr void taskTimerRunningIs(bool on) { bitmaskSetBit(taskTimerRunningBit, on); }
    constexpr bool taskOnRunQueue() const { return bitmaskHasBitSet(taskOnRunQueueBit); }
    constexpr void taskOnRunQueueIs(bool on) { bitmaskSetBit(taskOnRunQueueBit, on); }
    constexpr bool taskCurrentlyRunning() const {
        return bitmaskHasBitSet(taskCurrentlyRunningBit);
    }
    constexpr void taskCurrentlyRunningIs(bool on) { bitmaskSetBit(taskCurrentlyRunningBit, on); }
    constexpr bool taskSuspended() const { return bitmaskHasBitSet(taskSuspendedBit); }
    constexpr void taskSuspendedIs(bool on) { bitmaskSetBit(taskSuspendedBit, on); }
    constexpr bool taskIsTaskGroup() const { return bitmaskHasBitSet(taskIsTaskGroupBit); }
    constexpr void taskIsTaskGroupIs(bool on) { bitmaskSetBit(taskIsTaskGroupBit, on); }

    friend constexpr bool operator==(TaskStatus a, TaskStatus b) { return a.bits_ == b.bits_; }

  private:
    std::uint8_t bits_ = 0;
};

}  // namespace Velik
