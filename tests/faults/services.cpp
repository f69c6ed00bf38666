// Exports that need no adapter and no packet: texts, memory, settings, time, events, addresses, tables.
#include "scenario.h"

namespace faults
{
namespace
{

constexpr ULONG kTag = 0x746C7546; // "Fult"
constexpr WCHAR kServiceKey[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";

void FreePath(UNICODE_STRING& path)
{
    if (path.Buffer != nullptr) {
        ExFreePool(path.Buffer);
    }
}

void UseSettings()
{
    ULONG version[4] = {};
    CALL(Filter_GetOsVersion, version, version + 1, version + 2, version + 3);
    UNICODE_STRING path;
    UNICODE_STRING tail;
    RtlInitUnicodeString(&path, kServiceKey);
    RtlInitUnicodeString(&tail, L"Client");
    UNICODE_STRING copy = {};
    CALL(Filter_SaveDriverRegistryPath, &path, &copy);
    FreePath(copy);
    copy = {};
    CALL(Filter_ReplaceDriverRegistryPath, &path, &tail, &copy);
    FreePath(copy);
    CALL(Filter_RegGetDwordValue, &path, L"Number", 7);
    UNICODE_STRING text = {};
    CALL(Filter_RegGetStringValue, &path, L"Text", &text);
    Made(text.Buffer != nullptr);
    FreePath(text);
    CALL(Filter_GetGlobalDebugFlag, &path, 0);
    CALL(Filter_GetPendingPacketLimit, &path, 11);
    static ULONG result;
    result = 0;
    CALL(Filter_SafeGetGlobalDebugFlag, &path, 0, &result);
    Made(result != 0); // the worker has stored it
    CALL(Filter_GetSystemTime);
    CALL(Filter_GetSystemTimeMs);
}

void UseAddresses()
{
    char text[32] = {};
    const UCHAR mac[6] = {2, 0, 0, 0, 0, 1};
    const CountedString one("one");
    CALL(htons, 0x0102);
    CALL(ntohs, 0x0102);
    CALL(htonl, 0x01020304);
    CALL(ntohl, 0x01020304);
    CALL(inet_ntoa, 0x0100A8C0, text, sizeof(text));
    CALL(inet_mtoa, mac, text, sizeof(text));
    CALL(SubnetBroadcastAddress, 0x0100A8C0, 0x00FFFFFF);
    CALL(IsBroadcastAddress, 0xFF00A8C0);
    CALL(Filter_CompareString, &one, &one);
}

struct Item {
    HashItem head;
    ULONG key;
};

Item* NewItem(ULONG key)
{
    auto* item = static_cast<Item*>(CALL(Filter_AllocateMemory, sizeof(Item), kTag));
    if (item != nullptr) {
        *item = {};
        item->head.m_HashValue = key;
        item->key = key;
    }
    return item;
}

BOOLEAN IsItem(HashItem* item, const VOID* key)
{
    return reinterpret_cast<Item*>(item)->key == *static_cast<const ULONG*>(key);
}

void UseTables()
{
    HashTable* table = CALL(Filter_CreateHashTable, "items", 16, nullptr, IsItem);
    if (table == nullptr) {
        return;
    }
    LOCK_STATE state;
    CALL(Filter_LockHashTable, table, &state);
    CALL(Filter_UnLockHashTable, table, &state);
    // Each insertion leaves one reference, and so does each find.
    ULONG key = 1;
    HashItem* first = nullptr;
    HashItem* second = nullptr;
    if (Item* item = NewItem(1)) {
        first = CALL(Filter_InsertHashItem, table, &item->head);
    }
    if (Item* item = NewItem(2)) {
        second = CALL(Filter_InsertHashItemEx, table, &item->head);
    }
    if (HashItem* found = CALL(Filter_FindHashItem, table, 1, &key)) {
        CALL(Filter_ReferenceHashItem, found);
        CALL(Filter_ReleaseHashItem, found);
        Filter_ReleaseHashItem(found);
    }
    if (HashItem* found = CALL(Filter_FindHashItemEx, table, 1, &key)) {
        Filter_ReleaseHashItem(found);
    }
    const FILTER_ENUM_HASH_ITEM count = [](PVOID context, HashItem*) { ++*static_cast<int*>(context); };
    int counted = 0;
    CALL(Filter_EnumHashTable, table, count, &counted);
    CALL(Filter_EnumHashTableEx, table, 1, count, &counted);
    CALL(Filter_GetHashItemCount, table);
    if (first != nullptr) {
        CALL(Filter_DeleteHashItem, first);
    }
    if (second != nullptr) {
        CALL(Filter_DeleteHashItemEx, second);
    }
    CALL(Filter_CleanHashTable, table);
    CALL(Filter_ReferenceHashTable, table);
    CALL(Filter_ReleaseHashTable, table);
    CALL(Filter_DestroyHashTable, table);
}

} // namespace

void UseServices()
{
    CALL(Filter_StatusString, FILTER_ERROR_OUT_OF_MEMORY);
    CALL(Filter_ResultString, FILTER_RESULT_BYPASS);
    CALL(Filter_TypeString, FILTER_TYPE_INCOMING_PACKET);
    CALL(Filter_OrderString, FILTER_ORDER_LAST);
    CALL(Filter_MethodString, FILTER_METHOD_START_FROM_FIRST_FILTER);
    if (PVOID memory = CALL(Filter_AllocateMemory, 100, kTag)) {
        CALL(Filter_FreeMemory, memory);
    }
    FilterLock lock = {};
    CALL(Filter_InitializeLock, &lock);
    CALL(Filter_AcquireLock, &lock);
    CALL(Filter_ReleaseLock, &lock);
    CALL(Filter_FreeLock, &lock);
    UseSettings();
    UseAddresses();
    FilterEventHead head = {};
    CALL(Filter_ReportEvent, 1, 2, "event %d", 3);
    CALL(Filter_ReportEventEx, 1, 2, sizeof(head), &head);
    CALL(Filter_SetPendingPacketLimit, 1024);
    UseTables();
}

} // namespace faults
