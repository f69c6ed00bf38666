// Status codes in words. Values and names: MS-ERREF 2.3; 0xC0010006 is the NDIS status of the hook driver.
#include "ndisfilter-client.h"

#include <algorithm>
#include <iterator>

namespace
{

struct Status {
    uint32_t value;
    const char* name;
    const char* meaning;
};

constexpr Status kStatuses[] = {
    {0x00000000, "STATUS_SUCCESS", "done"},
    {0x00000102, "STATUS_TIMEOUT", "the time was up"},
    {0x00000103, "STATUS_PENDING", "still being worked on"},
    {0x80000005, "STATUS_BUFFER_OVERFLOW", "the answer was cut"},
    {0x80000011, "STATUS_DEVICE_BUSY", "the driver is busy with another such request"},
    {0x8000001A, "STATUS_NO_MORE_ENTRIES", "nothing is waiting"},
    {0xC0000001, "STATUS_UNSUCCESSFUL", "the driver refused"},
    {0xC0000002, "STATUS_NOT_IMPLEMENTED", "nobody does that"},
    {0xC0000004, "STATUS_INFO_LENGTH_MISMATCH", "the answer is not what this request returns"},
    {0xC0000005, "STATUS_ACCESS_VIOLATION", "memory that cannot be accessed"},
    {0xC0000008, "STATUS_INVALID_HANDLE", "the handle is not open"},
    {0xC000000D, "STATUS_INVALID_PARAMETER", "an argument is not valid"},
    {0xC000000E, "STATUS_NO_SUCH_DEVICE", "the device does not exist"},
    {0xC0000010, "STATUS_INVALID_DEVICE_REQUEST", "the device does not take such requests"},
    {0xC0000017, "STATUS_NO_MEMORY", "no memory is left"},
    {0xC0000022, "STATUS_ACCESS_DENIED", "access is denied"},
    {0xC0000023, "STATUS_BUFFER_TOO_SMALL", "a buffer is too small"},
    {0xC0000034, "STATUS_OBJECT_NAME_NOT_FOUND", "the device does not exist"},
    {0xC000003E, "STATUS_DATA_ERROR", "the rings in the shared memory are damaged"},
    {0xC0000043, "STATUS_SHARING_VIOLATION",
     "another program has the share, or the memory could not be mapped"},
    {0xC000009A, "STATUS_INSUFFICIENT_RESOURCES", "no memory is left"},
    {0xC000009D, "STATUS_DEVICE_NOT_CONNECTED", "the lab has ended"},
    {0xC00000A3, "STATUS_DEVICE_NOT_READY", "the device is not ready"},
    {0xC00000BB, "STATUS_NOT_SUPPORTED", "no driver knows this request"},
    {0xC00000E5, "STATUS_INTERNAL_ERROR", "the driver failed"},
    {0xC00000EF, "STATUS_INVALID_PARAMETER_1", "the first argument is not valid"},
    {0xC00000F0, "STATUS_INVALID_PARAMETER_2", "the second argument is not valid"},
    {0xC0000120, "STATUS_CANCELLED", "the request was cancelled"},
    {0xC0000184, "STATUS_INVALID_DEVICE_STATE", "the share is not started"},
    {0xC0000206, "STATUS_INVALID_BUFFER_SIZE", "a frame is empty or too long for a block"},
    {0xC0000225, "STATUS_NOT_FOUND", "not found"},
    {0xC0010006, "NDIS_STATUS_ADAPTER_NOT_FOUND", "no such adapter is open"},
};

const Status* Find(int32_t status)
{
    const auto found = std::ranges::find(kStatuses, static_cast<uint32_t>(status), &Status::value);
    return found == std::end(kStatuses) ? nullptr : found;
}

} // namespace

const char* ndisfilter_status_name(int32_t status)
{
    const Status* const found = Find(status);
    return found == nullptr ? "unknown status" : found->name;
}

const char* ndisfilter_status_meaning(int32_t status)
{
    const Status* const found = Find(status);
    return found == nullptr ? "" : found->meaning;
}
