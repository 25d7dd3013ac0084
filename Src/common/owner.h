// Owners of objects that a function releases: C streams, GLib queues, XML documents, blocks of malloc().
#pragma once

#include <memory>

namespace kiv
{

template <auto release>
struct releaser {
    template <typename T>
    void operator()(T *object) const noexcept
    {
        release(object);
    }
};

/// owner<FILE, fclose> file(fopen(...));
template <typename T, auto release>
using owner = std::unique_ptr<T, releaser<release>>;

} // namespace kiv
