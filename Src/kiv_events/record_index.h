// An index over records by hash. The records carry the links themselves, so that adding one cannot fail: when
// there is no memory for more buckets, the chains grow longer instead.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace kiv
{

template <typename Record>
struct index_link {
    Record *next = nullptr;
    std::size_t hash = 0;
};

template <typename Record, index_link<Record> Record::*link>
class record_index
{
public:
    void add(Record &record, std::size_t hash) noexcept
    {
        if (count_ == size_) {
            grow();
        }
        (record.*link).hash = hash;
        put(buckets()[hash & (size_ - 1)], record);
        ++count_;
    }

    void remove(Record &record) noexcept
    {
        Record **at = &buckets()[(record.*link).hash & (size_ - 1)];
        while (*at != &record) {
            at = &((*at)->*link).next;
        }
        *at = (record.*link).next;
        if (--count_ == 0) {
            grown_.reset();
            size_ = built_in;
        }
    }

    /// @return The first record of this hash, in no particular order; null when there is none.
    [[nodiscard]] Record *first(std::size_t hash) const noexcept
    {
        return same_hash(buckets()[hash & (size_ - 1)], hash);
    }

    /// @return The next record of the same hash, or null.
    [[nodiscard]] static Record *after(const Record &record) noexcept
    {
        return same_hash((record.*link).next, (record.*link).hash);
    }

private:
    static constexpr std::size_t built_in = 16; // buckets that are always there; a power of two

    static Record *same_hash(Record *record, std::size_t hash) noexcept
    {
        while (record != nullptr && (record->*link).hash != hash) {
            record = (record->*link).next;
        }
        return record;
    }

    static void put(Record *&bucket, Record &record) noexcept
    {
        (record.*link).next = bucket;
        bucket = &record;
    }

    [[nodiscard]] Record *const *buckets() const noexcept { return grown_ ? grown_.get() : first_; }
    [[nodiscard]] Record **buckets() noexcept { return grown_ ? grown_.get() : first_; }

    void grow() noexcept
    {
        const std::size_t size = size_ * 2;
        std::unique_ptr<Record *[]> wider(new (std::nothrow) Record *[size]());
        if (!wider) {
            return;
        }
        for (std::size_t i = 0; i < size_; ++i) {
            while (Record *const record = buckets()[i]) {
                buckets()[i] = (record->*link).next;
                put(wider[(record->*link).hash & (size - 1)], *record);
            }
        }
        grown_ = std::move(wider);
        size_ = size;
    }

    Record *first_[built_in] = {};
    std::unique_ptr<Record *[]> grown_;
    std::size_t size_ = built_in;
    std::size_t count_ = 0;
};

} // namespace kiv
