// What clients use beside all that: texts, memory, locks, settings, events, diagnostics, NDIS requests,
// hash tables.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

PVOID Allocate(ULONG size)
{
    PVOID const block = Filter_AllocateMemory(size, kTag);
    std::memset(block, 0xA5, size);
    return block;
}

struct GuardedNumber {
    FilterLock lock;
    uint64_t number;
} g_guarded;

// The thread sanitizer sees whether anybody else is here.
template <auto kExport>
FILTER_STATUS CountUp(GuardedNumber* guarded)
{
    if (guarded == nullptr) {
        return kExport(nullptr);
    }
    const FILTER_STATUS status = Filter_AcquireLock(&guarded->lock);
    guarded->number++;
    const FILTER_STATUS released = Filter_ReleaseLock(&guarded->lock);
    return status != FILTER_STATUS_SUCCESS ? status : released;
}

WCHAR g_pathText[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
UNICODE_STRING g_path = {sizeof(g_pathText) - sizeof(WCHAR), sizeof(g_pathText), g_pathText};

// It is stored some time; its place is not soon used again.
uint64_t NextFlag(Words&)
{
    static ULONG flags[1 << 18];
    static std::atomic<uint32_t> used{0};
    return reinterpret_cast<uint64_t>(
        &flags[used.fetch_add(1, std::memory_order_relaxed) % std::size(flags)]);
}

FILTER_STATUS ReportEvent(ULONG nEvent, int width)
{
    return Filter_ReportEvent(nEvent, 2, width != 0 ? "event %*d" : nullptr, width, 7);
}

// A client's handler answers, when it is there.
Outcome Diagnose()
{
    const std::string command =
        Dice().Chance(80) ? "client-" + std::to_string(Dice().Below(6)) + " a b" : "driver";
    const auto* const bytes = reinterpret_cast<const uint8_t*>(command.data());
    uint8_t output[512] = {};
    const auto result = AskOnce(IOCTL_NDIS_FILTER_DIAG, {bytes, command.size()}, output);
    return result.status == STATUS_SUCCESS && result.information > sizeof(UserDiag) ? Outcome::Success
                                                                                    : Outcome::Refused;
}

FILTER_STATUS DiagPrint(Diag* diag, PCSTR text)
{
    return text != nullptr ? Filter_DiagPrint(diag, "%s", text) : Filter_DiagPrint(diag, nullptr);
}

// It belongs to the hook driver until it calls `completed`.
FILTER_STATUS MakeRequest(FilterAdapter* adapter, hook::NdisRequest* request)
{
    for (Slot& slot : Pool(kRequest)) {
        if (request != nullptr && slot.Value() == request) {
            static uint8_t buffers[16][16];
            request->type = Dice().Below(2);
            request->oid = Dice().OneOf<uint32_t>({0x00010106, 0x0001010E, 0x00020101, 0x01010102, 0xFF});
            request->information = buffers[slot.index];
            request->informationLength = Dice().OneOf<uint32_t>({0, 4, 8, 16});
            request->completed = [](hook::NdisRequest* done, void* place) {
                static_cast<Slot*>(place)->Put(done);
            };
            const FILTER_STATUS status = Filter_MakeNdisRequest(adapter, request, &slot);
            if (status != FILTER_STATUS_SUCCESS) {
                slot.Put(request);
            }
            return status;
        }
    }
    return Filter_MakeNdisRequest(adapter, request, nullptr);
}

// Hash tables and items of them, which some thread may hold while others empty the table.
constexpr uint32_t kKeys = 64;

struct TableItem : HashItem {
    ULONG key;
};

BOOLEAN HasKey(HashItem* item, const VOID* key)
{
    return static_cast<TableItem*>(item)->key == *static_cast<const ULONG*>(key);
}

TableItem* NewItem()
{
    auto* const item = static_cast<TableItem*>(Filter_AllocateMemory(sizeof(TableItem), kTag));
    RtlZeroMemory(item, sizeof(*item));
    item->key = Dice().Below(kKeys);
    item->m_HashValue = item->key / 2; // so that items share a value
    return item;
}

VOID FreeItem(HashItem* item)
{
    RequireSuccess(Filter_FreeMemory(item), "an item of a table is freed");
}

HashItem* Get(HashTable* table)
{
    const ULONG key = Dice().Below(kKeys);
    HashItem* const item = Filter_FindHashItem(table, key / 2, &key);
    Require(item == nullptr || HasKey(item, &key), "the item that is found has the key");
    return item;
}

// Inserts some, and answers the last one with its reference.
HashItem* Insert(HashTable* table)
{
    HashItem* item = nullptr;
    for (uint32_t i = Dice().Below(16); table != nullptr && i <= 16; ++i) {
        Filter_ReleaseHashItem(item);
        item = Filter_GetHashItemCount(table) < 4 * kKeys ? Filter_InsertHashItem(table, NewItem()) : nullptr;
    }
    return item;
}

// Nobody empties the table meanwhile: behind that an item may only be released.
BOOLEAN Delete(HashTable* table)
{
    return Filter_DeleteHashItem(Get(table));
}

VOID ReferenceTable(HashTable* table)
{
    Filter_ReferenceHashTable(table);
    Filter_ReleaseHashTable(table);
}

VOID ReleaseItem(HashItem* item)
{
    Filter_ReferenceHashItem(item);
    Filter_ReleaseHashItem(item);
    Filter_ReleaseHashItem(item);
}

// Finds, deletes and inserts from inside.
VOID VisitItem(PVOID, HashItem* item)
{
    const uint32_t act = Dice().Below(32);
    if (act < 4) {
        Filter_DeleteHashItem(item);
    } else if (act < 6) {
        Filter_ReleaseHashItem(Get(item->m_pHashTable));
    } else if (act == 6) {
        Filter_ReleaseHashItem(Filter_InsertHashItem(item->m_pHashTable, NewItem()));
    }
}

// Between lock and unlock, in the caller's hands.
VOID UseLocked(HashTable* table)
{
    TableItem* const item = NewItem();
    LOCK_STATE state;
    Filter_LockHashTable(table, &state);
    Filter_InsertHashItemEx(table, item);
    HashItem* const found = Filter_FindHashItemEx(table, item->m_HashValue, &item->key);
    Require(found == item, "the newest item is found");
    Filter_ReleaseHashItem(found);
    Require(Filter_DeleteHashItemEx(item), "an item is deleted under the lock");
    Filter_UnLockHashTable(table, &state);
}

} // namespace

std::vector<Call> ServiceCalls()
{
    Filter_InitializeLock(&g_guarded.lock);
    const Argument guarded = Pointer(&g_guarded, kNull);
    const Argument lock = Out(sizeof(FilterLock));
    const Argument path = Pointer(&g_path, STATUS_INVALID_PARAMETER);
    const Argument service = Pointer(&g_path);
    const Argument copy = Output(sizeof(UNICODE_STRING), STATUS_INVALID_PARAMETER, [](uint64_t* memory) {
        ExFreePool(reinterpret_cast<PUNICODE_STRING>(memory)->Buffer);
    });
    Argument value = copy;
    value.null = kNoMatter;
    const Argument bytes = Out(64);
    static const CHAR text[] = "one";
    static const STRING one = {2, 2, const_cast<PCHAR>(text)}, two = {3, 3, const_cast<PCHAR>(text)};
    const Argument string = OneOf({Word(&one), Word(&two)});
    Argument compared = string;
    compared.null = -1;
    Argument memory = Ended(kMemory);
    Argument request = Own(kRequest);
    request.form = Form::Lent;
    const Options dropped = {.may = {FILTER_ERROR_OUT_OF_MEMORY}};
    const Options unbound = {.may = {FILTER_ERROR_INTERFACE_NOT_ACTIVE}};
    const Options passive = {.level = kPassive};
    const Argument table = Handle(Form::Live, kTable, 0);
    const Argument locked = Handle(Form::Live, kTable);
    const Argument item = Handle(Form::Given, kItem, 0);
    const Argument size = OneOf({0, 1, 7, 16, 64});
    const Options rarely = {.percent = 10}; // tables are to fill up
    const Options none = {.may = {kNo}};
    return {
        Line(NAMED(Filter_StatusString), 99, {Number(-45, 46)}),
        Line(NAMED(Filter_ResultString), 99, {Number(0, 5)}),
        Line(NAMED(Filter_TypeString), 99, {Number(-1, 6)}),
        Line(NAMED(Filter_OrderString), 99, {Number(-2, 6)}),
        Line(NAMED(Filter_MethodString), 99, {Number(0, 6)}),
        Line(NAMED(htons), 99, {Any()}),
        Line(NAMED(ntohs), 99, {Any()}),
        Line(NAMED(htonl), 99, {Any()}),
        Line(NAMED(ntohl), 99, {Any()}),
        Line(NAMED(inet_ntoa), 99, {Any(), Output(16, kNo), Number(16, 1, kNo, {0, 15})}),
        Line(NAMED(inet_mtoa), 99, {Pointer(g_pathText), Output(18), Number(18, 1)}),
        Line(NAMED(SubnetBroadcastAddress), 99, {Any(), Any()}),
        Line(NAMED(IsBroadcastAddress), 30, {OneOf({0x010000FF, 0xFF000001})}, {.may = {kNo}}),
        Line(NAMED(Filter_CompareString), 30, {compared, compared}, {.may = {1, -1}}),
        Line(NAMED(Filter_GetAPIVersion), 99, {Out(4), Out(4)}),

        Line("Filter_AllocateMemory", Allocate, 50,
             {OneOf({0, 1, 8, 100, 256, 4000, 100'000}), Result(kMemory)}),
        Line(NAMED(Filter_FreeMemory), 50, {memory}),
        Line(NAMED(Filter_InitializeLock), 99, {lock}),
        Line("Filter_AcquireLock", CountUp<Filter_AcquireLock>, 99, {guarded}),
        Line("Filter_ReleaseLock", CountUp<Filter_ReleaseLock>, 99, {guarded}),
        Line(NAMED(Filter_FreeLock), 99, {lock}),

        Line(NAMED(Filter_GetOsVersion), 50, {Out(4), Null(), Null(), Null()}, unbound),
        Line(NAMED(Filter_SaveDriverRegistryPath), 99, {path, copy}, passive),
        Line(NAMED(Filter_ReplaceDriverRegistryPath), 99, {path, path, copy}, passive),
        Line(NAMED(Filter_RegGetDwordValue), 99, {service, Pointer(L"Start"), Any()}, passive),
        Line(NAMED(Filter_RegGetStringValue), 99, {service, Pointer(L"Text"), value}, passive),
        Line(NAMED(Filter_GetGlobalDebugFlag), 99, {service, Any()}, passive),
        Line(NAMED(Filter_GetPendingPacketLimit), 99, {service, Any()}, passive),
        Line(NAMED(Filter_SafeGetGlobalDebugFlag), 50, {service, Any(), Made(NextFlag)}),
        Line(NAMED(Filter_GetSystemTime), 99, {}),
        Line(NAMED(Filter_GetSystemTimeMs), 99, {}),
        Line("Filter_ReportEvent", ReportEvent, 50, {Any(), OneOf({0, 10, 1022, 1023, 1024, 3000})}, dropped),
        Line(NAMED(Filter_ReportEventEx), 50, {Any(), Any(), Number(0, 1200), Output(1200)}, dropped),

        With(Line(NAMED(Filter_BeginDiag), 30,
                  {bytes, Number(8, 1, FILTER_ERROR_BUFFER_TOO_SMALL, {1024}), bytes,
                   Number(64, 1, FILTER_ERROR_BUFFER_TOO_SMALL, {1, 39}), Out(8)},
                  passive),
             Diagnose),
        With(Line("Filter_DiagPrint", DiagPrint, 30, {Out(sizeof(Diag)), Pointer("text", kNull)}, passive),
             Diagnose),
        With(Line(NAMED(Filter_DiagFilter), 30,
                  {Output(sizeof(Diag)),
                   Number(0, 4, FILTER_ERROR_INVALID_FILTER_TYPE, {FILTER_TYPE_INVALID, 4})},
                  passive),
             Diagnose),

        Line(NAMED(Filter_AllocateNdisRequest), 30, {New(kRequest)}, unbound),
        Line(NAMED(Filter_IsValidNdisRequest), 30, {Live(kRequest)}),
        Line("Filter_MakeNdisRequest", MakeRequest, 30, {Live(kAdapter), request}, unbound),
        Line(NAMED(Filter_FreeNdisRequest), 30, {Ended(kRequest)}, unbound),

        Line(NAMED(Filter_CreateHashTable), 5,
             {Null(), size, OneOf({0, Word(FreeItem)}), Pointer(HasKey), Result(kTable)}),
        Line(NAMED(Filter_DestroyHashTable), 5, {Ended(kTable)}, rarely),
        Line(NAMED(Filter_CleanHashTable), 5, {Handle(Form::Own, kTable, 0)}, rarely),
        Line(NAMED(Filter_GetHashItemCount), 70, {table}),
        Line(NAMED(Filter_EnumHashTable), 70, {table, Pointer(VisitItem), Null()}),
        Line(NAMED(Filter_EnumHashTableEx), 70, {table, Number(0, kKeys / 2), Pointer(VisitItem), Null()}),
        Line("Filter_LockHashTable", UseLocked, 70, {locked}),
        Line("Filter_UnLockHashTable", UseLocked, 70, {locked}),
        Line("Filter_InsertHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_FindHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_DeleteHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_InsertHashItem", Insert, 25, {table, Result(kItem)}, none),
        Line("Filter_FindHashItem", Get, 10, {table, Result(kItem)}, none),
        Line("Filter_DeleteHashItem", Delete, 10, {table}, none),
        Line("Filter_ReferenceHashTable", ReferenceTable, 70, {table}),
        Line("Filter_ReleaseHashTable", ReferenceTable, 70, {table}),
        Line("Filter_ReferenceHashItem", ReleaseItem, 30, {item}),
        Line("Filter_ReleaseHashItem", ReleaseItem, 30, {item}),
    };
}

} // namespace stress
