// The set of all live handles of a kind. Every notification asks whether its handle is in it, so asking takes
// no lock; changes are made under the registry's.
//
// A hash table of addresses with linear probing. Look-ups never see a live handle missing: an address stays
// where it is until it is removed, and a table that has become too small is kept, since somebody may still be
// looking there. As each is twice as large as the one before, all of them together are less than twice the
// last.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace kiv
{

class handle_set
{
public:
    constexpr handle_set() noexcept = default;
    handle_set(const handle_set &) = delete;
    handle_set &operator=(const handle_set &) = delete;

    [[nodiscard]] bool contains(const void *handle) const noexcept
    {
        const table *const in = current_.load(std::memory_order_acquire);
        const uintptr_t number = number_of(handle);
        return in != nullptr && number > removed &&
               in->find(number)->load(std::memory_order_acquire) == number;
    }

    /// @return False when there is no memory; nothing has changed then.
    [[nodiscard]] bool add(const void *handle) noexcept
    {
        if (newest_ == nullptr || (count_ + 1) * 2 > newest_->size) {
            if (!grow() && (newest_ == nullptr || count_ == newest_->size)) {
                return false;
            }
        }
        newest_->put(number_of(handle));
        ++count_;
        return true;
    }

    void remove(const void *handle) noexcept
    {
        newest_->take(number_of(handle));
        --count_;
    }

private:
    using slot = std::atomic<uintptr_t>;

    static constexpr uintptr_t empty = 0;
    static constexpr uintptr_t removed = 1; // no record's address; look-ups go on behind it
    static constexpr std::size_t first_size = 16;

    struct table {
        std::unique_ptr<slot[]> slots;
        std::size_t size; // a power of two
        std::unique_ptr<table> smaller;

        [[nodiscard]] static std::size_t start_of(uintptr_t number) noexcept
        {
            // Fibonacci hashing: neighbouring addresses spread over all slots.
            return static_cast<std::size_t>(static_cast<uint64_t>(number) * 0x9E3779B97F4A7C15U >> 32);
        }
        [[nodiscard]] slot &at(std::size_t step) const noexcept { return slots[step & (size - 1)]; }

        /// @return Where a number stands, or would have to: an empty slot, or any if there is none.
        [[nodiscard]] slot *find(uintptr_t number) const noexcept
        {
            const std::size_t start = start_of(number);
            slot *looked_at = &at(start);
            for (std::size_t step = 1; step < size; ++step) {
                const uintptr_t found = looked_at->load(std::memory_order_acquire);
                if (found == number || found == empty) {
                    break;
                }
                looked_at = &at(start + step);
            }
            return looked_at;
        }

        void put(uintptr_t number) noexcept
        {
            std::size_t step = start_of(number);
            while (at(step).load(std::memory_order_relaxed) > removed) {
                ++step;
            }
            at(step).store(number, std::memory_order_release);
        }

        // Marks before an empty slot lead nowhere and are cleared, so that they never add up.
        void take(uintptr_t number) noexcept
        {
            auto step = static_cast<std::size_t>(find(number) - slots.get());
            at(step).store(removed, std::memory_order_relaxed);
            if (at(step + 1).load(std::memory_order_relaxed) == empty) {
                while (at(step).load(std::memory_order_relaxed) == removed) {
                    at(step--).store(empty, std::memory_order_relaxed);
                }
            }
        }
    };

    static uintptr_t number_of(const void *handle) noexcept { return reinterpret_cast<uintptr_t>(handle); }

    bool grow() noexcept
    {
        const std::size_t size = newest_ ? newest_->size * 2 : first_size;
        std::unique_ptr<slot[]> slots(new (std::nothrow) slot[size]());
        std::unique_ptr<table> larger(new (std::nothrow) table{std::move(slots), size, nullptr});
        if (!larger || !larger->slots) {
            return false;
        }
        for (std::size_t i = 0; newest_ != nullptr && i < newest_->size; ++i) {
            if (const uintptr_t number = newest_->at(i).load(std::memory_order_relaxed); number > removed) {
                larger->put(number);
            }
        }
        larger->smaller = std::move(newest_);
        newest_ = std::move(larger);
        current_.store(newest_.get(), std::memory_order_release);
        return true;
    }

    std::atomic<const table *> current_{nullptr};
    std::unique_ptr<table> newest_;
    std::size_t count_ = 0;
};

} // namespace kiv
