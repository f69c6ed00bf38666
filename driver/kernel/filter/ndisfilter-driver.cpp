// The registry of client drivers, and the removal of what a departing one owns.
#include "ndisfilter-handle.h"
#include "ndisfilter-internal.h"

namespace
{

constexpr ULONG ApiMajorVersion = 1;
constexpr ULONG ApiMinorVersion = 0;

// Calls `drop` for every record of a list that the driver owns. `drop` may unlink and free it.
template <class Record, class Drop>
VOID ForEachOwned(const RecordList<Record>& list, const FilterDriver* owner, const Drop& drop)
{
    for (Record& record : list) {
        if (record.m_hFilterDriver == owner) {
            drop(record);
        }
    }
}

template <class Record>
VOID UnlinkAndFree(Record& record)
{
    RecordList<Record>::Unlink(record);
    Filter_FreeMemory(&record);
}

VOID DropEventHandlers(const FilterDriver* owner)
{
    SpinLock lock(Global().m_EventHandlerLock);
    ForEachOwned(Global().m_EventHandlerList, owner, UnlinkAndFree<EventHandler>);
}

VOID DropPacketFilters(const FilterDriver* owner)
{
    for (ULONG type = 0; type < FILTER_TYPE_COUNT; type++) {
        WriteLock lock(Global().m_PacketFilterLock[type]);
        ForEachOwned(Global().m_PacketFilterList[type], owner, UnlinkAndFree<PacketFilter>);
    }
}

// No copy that was handed out is valid any more. TRUE when there is one.
BOOLEAN InvalidateReferences(FilterInterface& entry)
{
    WriteLock referenceLock(entry.m_ReferenceLock);
    for (InterfaceReference& reference : entry.m_ReferenceList) {
        StoreRelaxed(reference.m_bValid, FALSE);
    }
    return !entry.m_ReferenceList.IsEmpty();
}

// An interface that others still reference stays listed, inactive, until the unload. One that is departing is left to
// the thread that deregisters it.
VOID DropInterfaces(const FilterDriver* owner)
{
    WriteLock lock(Global().m_InterfaceLock);
    ForEachOwned(Global().m_InterfaceList, owner, [](FilterInterface& entry) {
        if (InvalidateReferences(entry)) {
            entry.m_bActive = FALSE;
        } else {
            UnlinkAndFree(entry);
        }
    });
    ForEachOwned(Global().m_DepartingInterfaceList, owner, InvalidateReferences);
}

VOID DropIoCtrlHandlers(const FilterDriver* owner)
{
    WriteLock lock(Global().m_IoCtrlHandlerLock);
    ForEachOwned(Global().m_IoCtrlHandlerList, owner, UnlinkAndFree<IoCtrlHandler>);
}

BOOLEAN UnlinkDriver(FilterDriver* driver)
{
    WriteLock lock(Global().m_FilterDriverLock);
    if (!Global().m_FilterDriverList.Contains(driver)) {
        return FALSE;
    }
    RecordList<FilterDriver>::Unlink(*driver);
    return TRUE;
}

} // namespace

FILTER_STATUS Filter_GetAPIVersion(PULONG pMajor, PULONG pMinor)
{
    return TracedCall({"Filter_GetAPIVersion", TRACE_DRIVER}, [&]() -> FILTER_STATUS {
        if (pMajor == nullptr || pMinor == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        *pMajor = ApiMajorVersion;
        *pMinor = ApiMinorVersion;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_RegisterDriver(const STRING* pDriverName, PVOID pDriverContext, ULONG nMajor,
                                    ULONG nMinor, FilterDriver** phFilterDriver)
{
    constexpr CallTrace trace{"Filter_RegisterDriver", TRACE_DRIVER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pDriverName == nullptr || phFilterDriver == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (nMajor != ApiMajorVersion || nMinor != ApiMinorVersion) {
            return FILTER_ERROR_UNSUPPORTED_API_VERSION;
        }
        if (g_pDeviceExtension == nullptr) { // a client loads the image without starting the service
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        const NamedRegistration<FilterDriver> registration{
            .FunctionName = trace.Name,
            .Name = pDriverName,
            .Handle = phFilterDriver,
            .Lock = Global().m_FilterDriverLock,
            .List = Global().m_FilterDriverList,
            .NameField = &FilterDriver::m_DriverName,
            .KnownStatus = FILTER_ERROR_DRIVER_ALREADY_REGISTERED,
            .PoolTag = POOL_TAG_DRIVER,
        };
        return RegisterNamed(registration, [&](FilterDriver& driver) {
            driver.m_Tag = FILTER_DRIVER_TAG;
            driver.m_pDriverContext = pDriverContext;
            registration.List.Append(driver);
        });
    });
}

BOOLEAN Filter_IsValidDriver(FilterDriver* hFilterDriver)
{
    return CheckRecord("Filter_IsValidDriver", hFilterDriver, FILTER_DRIVER_TAG);
}

FILTER_STATUS Filter_GetDriverName(FilterDriver* hFilterDriver, STRING** ppName)
{
    constexpr CallTrace trace{"Filter_GetDriverName", TRACE_DRIVER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || ppName == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        return CopyNameOut(trace.Name, hFilterDriver->m_DriverName, POOL_TAG_DRIVER, ppName);
    });
}

FILTER_STATUS Filter_GetDriverContext(FilterDriver* hFilterDriver, PVOID* ppDriverContext)
{
    return TracedCall({"Filter_GetDriverContext", TRACE_DRIVER}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || ppDriverContext == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        *ppDriverContext = hFilterDriver->m_pDriverContext;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_DeregisterDriver(FilterDriver* hFilterDriver)
{
    return TracedCall({"Filter_DeregisterDriver", TRACE_DRIVER}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!UnlinkDriver(hFilterDriver)) {
            return FILTER_ERROR_DRIVER_NOT_FOUND;
        }
        RetireTimers(hFilterDriver);
        DropEventHandlers(hFilterDriver);
        DropPacketFilters(hFilterDriver);
        DropInterfaces(hFilterDriver);
        DropIoCtrlHandlers(hFilterDriver);
        Filter_FreeMemory(hFilterDriver);
        return FILTER_STATUS_SUCCESS;
    });
}
