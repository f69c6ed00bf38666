// Inside of the client library.
#pragma once

#include "device.h"
#include "ndisfilter-client.h"
#include "client-share.h"

#include <memory>
#include <mutex>
#include <new>
#include <system_error>

struct ndisfilter_client {
    explicit ndisfilter_client(std::unique_ptr<ndisfilter::Device> openDevice) : device(std::move(openDevice))
    {}

    // The present share, null when there is none. The pointer keeps it alive when another thread stops it.
    std::shared_ptr<ndisfilter::Share> CurrentShare()
    {
        const std::lock_guard lock(shareMutex);
        return share;
    }

    const std::unique_ptr<ndisfilter::Device> device; // outlives the share
    std::mutex shareMutex;
    std::shared_ptr<ndisfilter::Share> share;
};

namespace ndisfilter
{

// Exceptions end at the C interface.
template <typename Function>
int32_t WithoutExceptions(Function function) noexcept
{
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return NDISFILTER_NO_RESOURCES;
    } catch (const std::system_error&) { // no thread
        return NDISFILTER_NO_RESOURCES;
    }
}

} // namespace ndisfilter
