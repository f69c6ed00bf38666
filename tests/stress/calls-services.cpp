// What clients use beside packets: texts, memory, locks, settings, events, requests, tables.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

constexpr auto D = Level::Dispatch;
constexpr auto P = Level::Passive;

// ----------------------------------------------------------------------------------------------- names and texts

template <auto kText, int64_t kFirst, int64_t kLast, int64_t kUnlisted>
struct Naming {
    static bool IsKnown(PCSTR text) { return text != nullptr && std::strcmp(text, "Unknown") != 0; }

    static Outcome Legal(Caller& caller)
    {
        const auto span = static_cast<uint32_t>(kLast - kFirst + 1);
        const int64_t value = kFirst + caller.Stream().Below(span);
        return caller.Check(IsKnown(kText(static_cast<LONG>(value))), "a listed value has a name");
    }
    static void Illegal(Caller& caller)
    {
        caller.Check(!IsKnown(kText(static_cast<LONG>(kUnlisted))), "an unlisted value is unknown");
    }
};

template <class Row>
constexpr Call NamingCall(const char* name)
{
    return {name, Actor::Caller, D, 99, Row::Legal, Row::Illegal};
}

Outcome OrderString(Caller& caller)
{
    const PCSTR text = Filter_OrderString(static_cast<FILTER_ORDER>(caller.Stream().Below(6)) - 2);
    return caller.Check(std::strncmp(text, "FILTER_ORDER_", 13) == 0, "an order has a name");
}

Outcome SwapShort(Caller& caller)
{
    const auto value = static_cast<USHORT>(caller.Stream().Next());
    return caller.Check(htons(ntohs(value)) == value && htons(value) == __builtin_bswap16(value),
                        "16 bits are swapped");
}

Outcome SwapLong(Caller& caller)
{
    const auto value = static_cast<ULONG>(caller.Stream().Next());
    return caller.Check(htonl(ntohl(value)) == value && htonl(value) == __builtin_bswap32(value),
                        "32 bits are swapped");
}

Outcome AddressText(Caller& caller)
{
    CHAR text[16];
    return caller.Check(std::strcmp(inet_ntoa(0x0100007F, text, sizeof(text)), "127.0.0.1") == 0,
                        "an address's text");
}

void AddressTextWrongly(Caller& caller)
{
    CHAR text[16];
    caller.Check(*inet_ntoa(1, nullptr, 16) == 0 && *inet_ntoa(1, text, caller.Stream().Below(16)) == 0,
                 "without room the text is empty");
}

Outcome MacText(Caller& caller)
{
    const UCHAR address[6] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    CHAR text[18];
    return caller.Check(std::strcmp(inet_mtoa(address, text, sizeof(text)), "00-1A-2B-3C-4D-5E") == 0,
                        "a MAC address's text");
}

Outcome SubnetBroadcast(Caller& caller)
{
    const auto mask = static_cast<ULONG>(caller.Stream().Next());
    return caller.Check((SubnetBroadcastAddress(0x01020304, mask) | mask) == 0xFFFFFFFF,
                        "a broadcast address");
}

Outcome IsBroadcast(Caller& caller)
{
    return caller.Check(IsBroadcastAddress(0xFF000001) && !IsBroadcastAddress(0x01FFFFFF),
                        "the last octet decides");
}

Outcome CompareString(Caller& caller)
{
    const Counted one("one"), two("two"), three("three");
    return caller.Check(Filter_CompareString(one.Get(), one.Get()) == 0 &&
                            Filter_CompareString(one.Get(), two.Get()) == 1 &&
                            Filter_CompareString(one.Get(), three.Get()) == -1,
                        "strings are compared");
}

void CompareStringWrongly(Caller& caller)
{
    const Counted one("one");
    caller.Check(Filter_CompareString(nullptr, one.Get()) == -1 &&
                     Filter_CompareString(one.Get(), nullptr) == -1,
                 "nothing is shorter");
}

// ------------------------------------------------------------------------------------------- memory and locks

Outcome AllocateMemory(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), TheWorld().blocks, Hold<VOID>::Vacant);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    const ULONG size = caller.Stream().Below(caller.Stream().Chance(95) ? 256 : 100'000);
    PVOID const block = Filter_AllocateMemory(size, kTag);
    if (block != nullptr) {
        std::memset(block, 0xA5, size);
    }
    hold.Set(block);
    return caller.Check(block != nullptr && reinterpret_cast<ULONG_PTR>(block) % 8 == 0, "there is memory");
}

Outcome FreeMemory(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), TheWorld().blocks, Hold<VOID>::Taken);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    const FILTER_STATUS status = Filter_FreeMemory(hold.Get());
    hold.Set(nullptr);
    return caller.Judge(status);
}

void FreeMemoryWrongly(Caller& caller)
{
    caller.Expect(Filter_FreeMemory(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    const FILTER_STATUS status = Filter_FreeMemory(NoHandle<VOID>(caller));
    caller.Check(status == FILTER_ERROR_INVALID_MEMORY_POINTER || status == FILTER_ERROR_EXCEPTION,
                 "what is no block is not freed");
    if (caller.Stream().Chance(90)) {
        return;
    }
    caller.Alone([&] {
        PVOID const block = Filter_AllocateMemory(64, kTag);
        caller.Expect(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
        caller.Expect(Filter_FreeMemory(block), FILTER_ERROR_INVALID_MEMORY_POINTER);
    });
}

Outcome InitializeLock(Caller& caller)
{
    FilterLock lock;
    caller.Expect(Filter_InitializeLock(&lock), FILTER_STATUS_SUCCESS);
    return caller.Judge(Filter_FreeLock(&lock));
}

Outcome AcquireLock(Caller& caller)
{
    GuardedNumber& number = TheWorld().numbers[caller.Stream().Below(2)];
    caller.Expect(Filter_AcquireLock(&number.lock), FILTER_STATUS_SUCCESS);
    number.number++; // the thread sanitizer sees whether anybody else is here
    return caller.Judge(Filter_ReleaseLock(&number.lock));
}

template <auto kUse>
void NoLock(Caller& caller)
{
    caller.Expect(kUse(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

// ------------------------------------------------------------------------------------------------- settings

UNICODE_STRING ServicePath()
{
    static const WCHAR text[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, text);
    return path;
}

Outcome GetOsVersion(Caller& caller)
{
    ULONG major = 0;
    ULONG build = 0;
    return caller.Judge(Filter_GetOsVersion(&major, nullptr, &build, nullptr),
                        {FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void GetOsVersionWrongly(Caller& caller)
{
    caller.Expect(Filter_GetOsVersion(nullptr, nullptr, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome SaveRegistryPath(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    UNICODE_STRING copy = {};
    const NTSTATUS status = Filter_SaveDriverRegistryPath(&path, &copy);
    caller.Check(copy.Length == path.Length && copy.Buffer != path.Buffer, "a path is copied");
    ExFreePool(copy.Buffer);
    return caller.Judge(status);
}

void SaveRegistryPathWrongly(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    caller.Expect(Filter_SaveDriverRegistryPath(nullptr, &path), STATUS_INVALID_PARAMETER);
    caller.Expect(Filter_SaveDriverRegistryPath(&path, nullptr), STATUS_INVALID_PARAMETER);
}

Outcome ReplaceRegistryPath(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    UNICODE_STRING tail = {};
    UNICODE_STRING copy = {};
    RtlInitUnicodeString(&tail, L"VirtualHook");
    const NTSTATUS status = Filter_ReplaceDriverRegistryPath(&path, &tail, &copy);
    caller.Check(copy.Length == path.Length, "a tail changes no length");
    ExFreePool(copy.Buffer);
    return caller.Judge(status);
}

void ReplaceRegistryPathWrongly(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    UNICODE_STRING copy = {};
    caller.Expect(Filter_ReplaceDriverRegistryPath(nullptr, &path, &copy), STATUS_INVALID_PARAMETER);
    caller.Expect(Filter_ReplaceDriverRegistryPath(&path, nullptr, &copy), STATUS_INVALID_PARAMETER);
    caller.Expect(Filter_ReplaceDriverRegistryPath(&path, &path, nullptr), STATUS_INVALID_PARAMETER);
}

Outcome GetDword(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    return caller.Check(Filter_RegGetDwordValue(&path, L"Start", 77) == 3, "a number is read");
}

void GetDwordWrongly(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    caller.Check(Filter_RegGetDwordValue(&path, L"Missing", 77) == 77, "a missing number is the default");
    caller.Check(Filter_RegGetDwordValue(&path, L"Text", 77) == 77, "a text is no number");
}

Outcome GetString(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    UNICODE_STRING value = {};
    const bool read = Filter_RegGetStringValue(&path, L"Text", &value) && value.Length == 2 * 4;
    ExFreePool(value.Buffer);
    return caller.Check(read, "a text is read");
}

void GetStringWrongly(Caller& caller)
{
    UNICODE_STRING path = ServicePath();
    UNICODE_STRING value = {};
    caller.Check(!Filter_RegGetStringValue(&path, L"Start", &value), "a number is no text");
}

template <auto kGet, bool kIsThere>
Outcome Setting(Caller& caller)
{
    constexpr ULONG kDefault = 0x12345;
    UNICODE_STRING path = ServicePath();
    return caller.Check((kGet(&path, kDefault) != kDefault) == kIsThere, "a setting is read, or the default");
}

// Path and result stay as long as the program runs; a result is given out once in a round.
Outcome SafeGetGlobalDebugFlag(Caller&)
{
    static UNICODE_STRING path = ServicePath();
    World& world = TheWorld();
    const uint32_t index = world.flagsUsed.fetch_add(1, std::memory_order_relaxed);
    if (index >= world.flags.size()) {
        return Outcome::NothingToUse;
    }
    Filter_SafeGetGlobalDebugFlag(&path, 0, &world.flags[index]);
    return Outcome::Success;
}

Outcome SystemTime(Caller& caller)
{
    const LONGLONG before = Filter_GetSystemTime();
    return caller.Check(Filter_GetSystemTimeMs() >= before * 1000, "time goes on");
}

Outcome GetApiVersion(Caller& caller)
{
    ULONG major = 0;
    ULONG minor = 1;
    const FILTER_STATUS status = Filter_GetAPIVersion(&major, &minor);
    caller.Check(major == 1 && minor == 0, "the version is 1.0");
    return caller.Judge(status);
}

void GetApiVersionWrongly(Caller& caller)
{
    ULONG number = 0;
    caller.Expect(Filter_GetAPIVersion(nullptr, &number), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_GetAPIVersion(&number, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    if (!caller.IsRaised()) {
        caller.Expect(Filter_GetAPIVersion(&number, static_cast<ULONG*>(caller.Unwritable())),
                      FILTER_ERROR_EXCEPTION);
    }
}

// --------------------------------------------------------------------------------------------------- events

Outcome ReportEvent(Caller& caller)
{
    Random& random = caller.Stream();
    const int width = static_cast<int>(random.OneOf<uint32_t>({0, 10, 1022, 1023, 1024, 3000}));
    return caller.Judge(Filter_ReportEvent(static_cast<ULONG>(random.Next()), 2,
                                           random.Chance(90) ? "event %*d" : nullptr, width, 7),
                        {FILTER_ERROR_OUT_OF_MEMORY});
}

Outcome ReportEventEx(Caller& caller)
{
    uint8_t data[1200] = {};
    FilterEventHead head = {};
    head.m_hAdapter = caller.Stream().Chance(50) ? AnyAdapter(caller.Stream()) : nullptr;
    std::memcpy(data, &head, sizeof(head));
    return caller.Judge(Filter_ReportEventEx(1, 2, caller.Stream().Below(sizeof(data)),
                                             caller.Stream().Chance(90) ? data : nullptr),
                        {FILTER_ERROR_OUT_OF_MEMORY});
}

// ------------------------------------------------------------------------------------------------ diagnostics

// A client's handler answers: with text when it is still there, and nobody else's command runs.
Outcome Diagnose(Caller& caller)
{
    machine::File* const device = caller.Device();
    const std::string command =
        caller.Stream().Chance(80) ? ClientName(caller.Stream().Below(kClients)) + " a b" : "driver";
    uint8_t output[512] = {};
    if (device == nullptr) {
        return Outcome::NothingToUse;
    }
    const machine::Request::Result result = device->Control(
        IOCTL_NDIS_FILTER_DIAG, {reinterpret_cast<const uint8_t*>(command.data()), command.size()}, output);
    return result.status == STATUS_SUCCESS && result.information > sizeof(UserDiag) ? Outcome::Success
                                                                                    : Outcome::Refused;
}

void BeginDiagWrongly(Caller& caller)
{
    uint8_t buffer[64] = {};
    Diag* diag = nullptr;
    caller.Expect(Filter_BeginDiag(nullptr, 8, buffer, 64, &diag), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_BeginDiag(buffer, 8, nullptr, 64, &diag), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_BeginDiag(buffer, 8, buffer, 64, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_BeginDiag(buffer, 0, buffer, 64, &diag), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_BeginDiag(buffer, 1024, buffer, 64, &diag), FILTER_ERROR_BUFFER_TOO_SMALL);
    caller.Expect(Filter_BeginDiag(buffer, 8, buffer, 1 + caller.Stream().Below(39), &diag),
                  FILTER_ERROR_BUFFER_TOO_SMALL);
}

void DiagPrintWrongly(Caller& caller)
{
    Diag diag = {};
    caller.Expect(Filter_DiagPrint(nullptr, "text"), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_DiagPrint(&diag, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

void DiagFilterWrongly(Caller& caller)
{
    Diag diag = {};
    caller.Expect(Filter_DiagFilter(&diag, caller.Stream().OneOf<FILTER_TYPE>({-1, 4})),
                  FILTER_ERROR_INVALID_FILTER_TYPE);
}

// --------------------------------------------------------------------------------------------- NDIS requests

Outcome AllocateRequest(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), TheWorld().requests,
                        [](HeldRequest& held) { return Hold<hook::NdisRequest>::Vacant(held.slot); });
    if (!hold) {
        return Outcome::NothingToUse;
    }
    PVOID request = nullptr;
    const Outcome outcome =
        caller.Judge(Filter_AllocateNdisRequest(&request), {FILTER_ERROR_INTERFACE_NOT_ACTIVE});
    hold.Set(static_cast<hook::NdisRequest*>(request));
    return outcome;
}

void AllocateRequestWrongly(Caller& caller)
{
    caller.Expect(Filter_AllocateNdisRequest(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome IsValidRequest(Caller& caller)
{
    const auto loan = FirstOf(caller.Stream(), TheWorld().requests,
                              [](HeldRequest& held) { return Loan<hook::NdisRequest>(held.slot); });
    return loan ? caller.Check(Filter_IsValidNdisRequest(loan.Get()), "a request is valid")
                : Outcome::NothingToUse;
}

void IsValidRequestWrongly(Caller& caller)
{
    caller.Check(!Filter_IsValidNdisRequest(caller.Stream().Chance(20) ? nullptr : NoHandle<VOID>(caller)),
                 "what is no request is not valid");
}

Hold<hook::NdisRequest> TakeRequest(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().requests,
                   [](HeldRequest& held) { return Hold<hook::NdisRequest>::Taken(held.slot); });
}

// It belongs to the hook driver until it calls `completed`.
Outcome MakeRequest(Caller& caller)
{
    auto hold = TakeRequest(caller);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    hook::NdisRequest* const request = hold.Get();
    auto* held = reinterpret_cast<HeldRequest*>(hold.Place()); // its first member
    request->type = caller.Stream().Below(2);
    request->oid = caller.Stream().OneOf<uint32_t>({0x00010106, 0x0001010E, 0x00020101, 0x01010102, 0xFF});
    request->information = held->buffer;
    request->informationLength = caller.Stream().OneOf<uint32_t>({0, 4, 8, 16});
    request->completed = [](hook::NdisRequest* done, void* place) {
        static_cast<HeldRequest*>(place)->slot.Publish(done);
    };
    hold.KeepHeld();
    const FILTER_STATUS status = Filter_MakeNdisRequest(AnyAdapter(caller.Stream()), request, held);
    if (status != FILTER_STATUS_SUCCESS) {
        held->slot.Publish(request);
    }
    return caller.Judge(status, {FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void MakeRequestWrongly(Caller& caller)
{
    const auto hold = TakeRequest(caller);
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    caller.Expect(Filter_MakeNdisRequest(adapter, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_MakeNdisRequest(adapter, NoHandle<VOID>(caller), nullptr),
                  FILTER_ERROR_INVALID_NDIS_REQUEST);
    if (hold) {
        caller.Expect(Filter_MakeNdisRequest(nullptr, hold.Get(), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        caller.Expect(Filter_MakeNdisRequest(NoHandle<FilterAdapter>(caller), hold.Get(), nullptr),
                      FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    }
}

Outcome FreeRequest(Caller& caller)
{
    auto hold = TakeRequest(caller);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    const FILTER_STATUS status = Filter_FreeNdisRequest(hold.Get());
    if (status == FILTER_STATUS_SUCCESS) {
        hold.Set(nullptr);
    }
    return caller.Judge(status, {FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void FreeRequestWrongly(Caller& caller)
{
    caller.Expect(Filter_FreeNdisRequest(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_FreeNdisRequest(NoHandle<VOID>(caller)), FILTER_ERROR_INVALID_NDIS_REQUEST);
}

// ------------------------------------------------------------------------------------------------- the table

constexpr Call kCalls[] = {
    NamingCall<Naming<Filter_StatusString, -45, 0, -1000>>("Filter_StatusString"),
    NamingCall<Naming<Filter_ResultString, 0, 3, 4>>("Filter_ResultString"),
    NamingCall<Naming<Filter_TypeString, 0, 3, 4>>("Filter_TypeString"),
    {"Filter_OrderString", Actor::Caller, D, 99, OrderString, nullptr},
    NamingCall<Naming<Filter_MethodString, 0, 4, 5>>("Filter_MethodString"),
    {"Filter_AllocateMemory", Actor::Caller, D, 20, AllocateMemory, nullptr},
    {"Filter_FreeMemory", Actor::Caller, D, 20, FreeMemory, FreeMemoryWrongly},
    {"Filter_InitializeLock", Actor::Caller, D, 99, InitializeLock, NoLock<Filter_InitializeLock>},
    {"Filter_AcquireLock", Actor::Caller, D, 99, AcquireLock, NoLock<Filter_AcquireLock>},
    {"Filter_ReleaseLock", Actor::Caller, D, 99, AcquireLock, NoLock<Filter_ReleaseLock>},
    {"Filter_FreeLock", Actor::Caller, D, 99, InitializeLock, NoLock<Filter_FreeLock>},
    {"Filter_GetOsVersion", Actor::Caller, D, 20, GetOsVersion, GetOsVersionWrongly},
    {"Filter_SaveDriverRegistryPath", Actor::Caller, P, 99, SaveRegistryPath, SaveRegistryPathWrongly},
    {"Filter_ReplaceDriverRegistryPath", Actor::Caller, P, 99, ReplaceRegistryPath,
     ReplaceRegistryPathWrongly},
    {"Filter_RegGetDwordValue", Actor::Caller, P, 99, GetDword, GetDwordWrongly},
    {"Filter_RegGetStringValue", Actor::Caller, P, 99, GetString, GetStringWrongly},
    {"Filter_GetGlobalDebugFlag", Actor::Caller, P, 99, Setting<Filter_GetGlobalDebugFlag, true>, nullptr},
    {"Filter_GetPendingPacketLimit", Actor::Caller, P, 99, Setting<Filter_GetPendingPacketLimit, false>,
     nullptr},
    {"Filter_SafeGetGlobalDebugFlag", Actor::Caller, D, 50, SafeGetGlobalDebugFlag, nullptr},
    {"Filter_GetSystemTime", Actor::Caller, D, 99, SystemTime, nullptr},
    {"Filter_GetSystemTimeMs", Actor::Caller, D, 99, SystemTime, nullptr},
    {"Filter_ReportEvent", Actor::Caller, D, 20, ReportEvent, nullptr},
    {"Filter_ReportEventEx", Actor::Caller, D, 20, ReportEventEx, nullptr},
    {"htons", Actor::Caller, D, 99, SwapShort, nullptr},
    {"ntohs", Actor::Caller, D, 99, SwapShort, nullptr},
    {"htonl", Actor::Caller, D, 99, SwapLong, nullptr},
    {"ntohl", Actor::Caller, D, 99, SwapLong, nullptr},
    {"inet_ntoa", Actor::Caller, D, 99, AddressText, AddressTextWrongly},
    {"inet_mtoa", Actor::Caller, D, 99, MacText, nullptr},
    {"SubnetBroadcastAddress", Actor::Caller, D, 99, SubnetBroadcast, nullptr},
    {"IsBroadcastAddress", Actor::Caller, D, 99, IsBroadcast, nullptr},
    {"Filter_CompareString", Actor::Caller, D, 99, CompareString, CompareStringWrongly},
    {"Filter_GetAPIVersion", Actor::Caller, D, 99, GetApiVersion, GetApiVersionWrongly},
    {"Filter_BeginDiag", Actor::Caller, P, 10, Diagnose, BeginDiagWrongly},
    {"Filter_DiagPrint", Actor::Caller, P, 10, Diagnose, DiagPrintWrongly},
    {"Filter_DiagFilter", Actor::Caller, P, 10, Diagnose, DiagFilterWrongly},
    {"Filter_AllocateNdisRequest", Actor::Caller, D, 10, AllocateRequest, AllocateRequestWrongly},
    {"Filter_IsValidNdisRequest", Actor::Caller, D, 10, IsValidRequest, IsValidRequestWrongly},
    {"Filter_MakeNdisRequest", Actor::Caller, D, 10, MakeRequest, MakeRequestWrongly},
    {"Filter_FreeNdisRequest", Actor::Caller, D, 10, FreeRequest, FreeRequestWrongly},
};

} // namespace

std::span<const Call> ServiceCalls()
{
    return kCalls;
}

} // namespace stress
