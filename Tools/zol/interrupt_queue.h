// Interrupts on their way from the listener's thread to the thread that prints them.
#pragma once

#include <chrono>
#include <mutex>
#include <vector>

namespace zol_tool
{

struct interrupt {
    int pin;
    std::chrono::system_clock::time_point time;
};

/// The callback of pins. It never waits, since a callback holds up all pins. So this is no event of the library: a full
/// one holds up its notifiers, and with them the call that takes a callback away.
class interrupt_queue
{
public:
    interrupt_queue();
    ~interrupt_queue();
    interrupt_queue(const interrupt_queue &) = delete;
    interrupt_queue &operator=(const interrupt_queue &) = delete;

    void operator()(int pin);
    /// All interrupts since the last call, in their order.
    std::vector<interrupt> take();
    /// Readable when there are interrupts.
    [[nodiscard]] int descriptor() const { return descriptor_; }

private:
    std::mutex mutex_;
    std::vector<interrupt> waiting_; // guarded by the mutex
    int descriptor_;
};

} // namespace zol_tool
