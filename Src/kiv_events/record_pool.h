// Records whose addresses serve as handles. Their memory is never freed and never used for anything else. So a
// handle is checked without a lock: if its address is one of the pool's, the record there can be read, live or
// not.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace kiv
{

// A hash table of addresses with linear probing. Nothing is ever removed from it. A look-up takes no lock; a
// table that has become too small is kept, because a look-up may still be reading it. Each table is twice as
// large as the one before, so all of them together are less than twice the last.
class address_set
{
public:
    [[nodiscard]] bool contains(const void *address) const noexcept
    {
        const table *const in = current_.load(std::memory_order_acquire);
        const auto number = reinterpret_cast<uintptr_t>(address);
        return in != nullptr && number != empty &&
               in->find(number)->load(std::memory_order_acquire) == number;
    }

    /// Changes are the caller's to serialise. @return False when there is no memory; nothing has changed then.
    [[nodiscard]] bool add(const void *address) noexcept
    {
        if ((newest_ == nullptr || (count_ + 1) * 2 > newest_->size) && !grow()) {
            return false;
        }
        newest_->put(reinterpret_cast<uintptr_t>(address));
        ++count_;
        return true;
    }

    /// Calls a function with every address.
    template <typename Function>
    void for_each(Function function) const
    {
        for (std::size_t i = 0; newest_ != nullptr && i < newest_->size; ++i) {
            if (const uintptr_t number = newest_->at(i).load(std::memory_order_relaxed); number != empty) {
                function(reinterpret_cast<void *>(number));
            }
        }
    }

private:
    using slot = std::atomic<uintptr_t>;

    static constexpr uintptr_t empty = 0;
    static constexpr std::size_t first_size = 16;

    struct table {
        std::unique_ptr<slot[]> slots;
        std::size_t size; // a power of two
        std::unique_ptr<table> smaller;

        [[nodiscard]] slot &at(std::size_t step) const noexcept { return slots[step & (size - 1)]; }

        /// @return The slot of a number, or the empty slot where it would go. A table is never full.
        [[nodiscard]] slot *find(uintptr_t number) const noexcept
        {
            // Fibonacci hashing: neighbouring addresses spread over all slots.
            auto step = static_cast<std::size_t>(static_cast<uint64_t>(number) * 0x9E3779B97F4A7C15U >> 32);
            for (;; ++step) {
                slot &looked_at = at(step);
                const uintptr_t found = looked_at.load(std::memory_order_relaxed);
                if (found == number || found == empty) {
                    return &looked_at;
                }
            }
        }

        void put(uintptr_t number) noexcept { find(number)->store(number, std::memory_order_release); }
    };

    bool grow() noexcept
    {
        const std::size_t size = newest_ ? newest_->size * 2 : first_size;
        std::unique_ptr<slot[]> slots(new (std::nothrow) slot[size]());
        std::unique_ptr<table> larger(new (std::nothrow) table{std::move(slots), size, nullptr});
        if (!larger || !larger->slots) {
            return false;
        }
        for_each([&larger](void *address) { larger->put(reinterpret_cast<uintptr_t>(address)); });
        larger->smaller = std::move(newest_);
        newest_ = std::move(larger);
        current_.store(newest_.get(), std::memory_order_release);
        return true;
    }

    std::atomic<const table *> current_{nullptr};
    std::unique_ptr<table> newest_;
    std::size_t count_ = 0;
};

// A record is used again only after so many others have been given back. Until then its old handle is sure to
// be refused. A larger number would strengthen that promise, but the pool keeps so many free records for it.
inline constexpr std::size_t reuse_delay = 1024;

/// @tparam Record  Has a member `next_free` for the pool's own use.
template <typename Record>
class record_pool
{
public:
    /// @return True for the address of a record, live or not. Takes no lock; everything else is the caller's to
    /// serialise.
    [[nodiscard]] bool owns(const void *address) const noexcept { return addresses_.contains(address); }

    /// @return A record to use, or null when there is no memory.
    [[nodiscard]] Record *take() noexcept
    {
        if (free_count_ > reuse_delay) {
            --free_count_;
            return std::exchange(oldest_free_, oldest_free_->next_free);
        }
        std::unique_ptr<Record> record(new (std::nothrow) Record());
        return record && addresses_.add(record.get()) ? record.release() : nullptr;
    }

    void give_back(Record &record) noexcept
    {
        (free_count_++ == 0 ? oldest_free_ : newest_free_->next_free) = &record;
        newest_free_ = &record;
    }

    /// Calls a function with every record, live or not.
    template <typename Function>
    void for_each(Function function) const
    {
        addresses_.for_each([&function](void *address) { function(*static_cast<Record *>(address)); });
    }

private:
    address_set addresses_;
    Record *oldest_free_ = nullptr; // the others follow by next_free, up to the newest
    Record *newest_free_ = nullptr;
    std::size_t free_count_ = 0;
};

} // namespace kiv
