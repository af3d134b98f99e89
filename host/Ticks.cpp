// The millisecond tick and the manual clock that tests use in its place.
//
// The manual clock is two atomics: the switch and its value. Switching on from
// AdvanceManualTicks takes s_SwitchLock so that two threads that advance at
// the same moment start from one real value.
#include "host/Ticks.h"

#include <time.h>

#include <atomic>
#include <mutex>

namespace NorvCore {

namespace {

std::atomic<bool> s_ManualActive{false};
std::atomic<u32> s_ManualTicks{0};
std::mutex s_SwitchLock;  // serialises switching to the manual clock

u32 RealTickCount() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const u64 msec =
        static_cast<u64>(now.tv_sec) * 1000u + static_cast<u64>(now.tv_nsec) / 1000000u;
    return static_cast<u32>(msec);
}

}  // namespace

u32 SystemTickCount() {
    if (s_ManualActive.load(std::memory_order_acquire)) {
        return s_ManualTicks.load(std::memory_order_acquire);
    }
    return RealTickCount();
}

void SetManualTicks(u32 ticks) {
    std::lock_guard<std::mutex> guard(s_SwitchLock);
    s_ManualTicks.store(ticks, std::memory_order_release);
    s_ManualActive.store(true, std::memory_order_release);
}

void AdvanceManualTicks(u32 msec) {
    if (!s_ManualActive.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> guard(s_SwitchLock);
        if (!s_ManualActive.load(std::memory_order_acquire)) {
            s_ManualTicks.store(RealTickCount(), std::memory_order_release);
            s_ManualActive.store(true, std::memory_order_release);
        }
    }
    // Unsigned addition wraps, as the real tick does.
    s_ManualTicks.fetch_add(msec, std::memory_order_acq_rel);
}

void UseRealTicks() {
    std::lock_guard<std::mutex> guard(s_SwitchLock);
    s_ManualActive.store(false, std::memory_order_release);
}

bool ManualTicksActive() {
    return s_ManualActive.load(std::memory_order_acquire);
}

}  // namespace NorvCore
