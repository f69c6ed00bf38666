// Named interfaces: blocks of data that client drivers publish for one another, the references that queries hand out,
// and the handlers that hear of interfaces coming and going. Locks: the list's before an interface's own.
#include "ndisfilter-handle.h"

namespace
{

// The copy that a query hands out lies behind its reference.
InterfaceReference* ReferenceOf(PVOID pInterface)
{
    return reinterpret_cast<InterfaceReference*>(reinterpret_cast<ULONG_PTR>(pInterface) -
                                                 sizeof(InterfaceReference));
}

// The interface of a copy whose owner is there; nullptr when it is gone. Looks without a lock, while the owner may
// depart and another thread may give the copy back: the answer is not followed before a list is found to hold it.
FILTER_NOT_INSTRUMENTED FilterInterface* ReadLiveInterface(const VOID* pInterface)
{
    const volatile InterfaceReference* const reference = ReferenceOf(const_cast<PVOID>(pInterface));
    return reference->m_bValid == TRUE ? reference->m_pFilterInterface : nullptr;
}

BOOLEAN IsLiveReference(const VOID* pInterface)
{
    return ReadLiveInterface(pInterface) != nullptr;
}

// The first bytes of a block tell its length.
USHORT BlockLength(const VOID* pInterface)
{
    USHORT length;
    RtlCopyMemory(&length, pInterface, sizeof(length));
    return length;
}

// Calls every handler, until one faults.
FILTER_STATUS Announce(PCSTR functionName, ULONG nEvent, const STRING& interfaceName)
{
    NTSTATUS code;
    {
        ReadLock lock(Global().m_IfEventHandlerLock);
        code = Guarded([&] {
            for (const IfEventHandler& handler : Global().m_IfEventHandlerList) {
                handler.m_pfIfEventProc(handler.m_hFilterDriver, handler.m_pDriverContext, nEvent,
                                        handler.m_pIfEventContext, &interfaceName);
            }
        });
    }
    return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(functionName, code);
}

// Under the list's lock. The name's characters are the caller's: inside a guard.
FilterInterface* FindInterface(const STRING& name)
{
    for (FilterInterface& entry : Global().m_InterfaceList) {
        if (Filter_CompareString(&entry.m_InterfaceName, &name) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

// A new reference with its copy of the block, on nobody's list; nullptr when no memory is left.
InterfaceReference* MakeReference(FilterDriver* owner, FilterInterface* entry)
{
    const SIZE_T length = entry->m_nInterfaceLength;
    const SIZE_T room = length > sizeof(USHORT) ? length : sizeof(USHORT); // the length can be read in any case
    InterfaceReference* const reference = static_cast<InterfaceReference*>(
        AllocateZeroed(sizeof(InterfaceReference) + room, POOL_TAG_INTERFACE));
    if (reference != nullptr) {
        reference->m_Tag = INTERFACE_REFERENCE_TAG;
        reference->m_hFilterDriver = owner;
        reference->m_pFilterInterface = entry;
        reference->m_bValid = TRUE;
        RtlCopyMemory(reference + 1, entry->m_pInterface, length);
        // Users go by it, and the registering driver's block may have changed while it was copied.
        RtlCopyMemory(reference + 1, &entry->m_nInterfaceLength, sizeof(USHORT));
    }
    return reference;
}

// Hands out a reference to the interface of a name. `code` is that of an exception that the caller's memory raised.
FILTER_STATUS Query(FilterDriver* driver, const STRING& name, PVOID* ppInterface, NTSTATUS& code)
{
    ReadLock lock(Global().m_InterfaceLock);
    FilterInterface* entry = nullptr;
    code = Guarded([&] { entry = FindInterface(name); });
    if (code != 0) {
        return FILTER_ERROR_EXCEPTION;
    }
    if (entry == nullptr) {
        return FILTER_ERROR_INTERFACE_NOT_FOUND;
    }
    if (!entry->m_bActive) {
        return FILTER_ERROR_INTERFACE_ARE_INVALID;
    }
    InterfaceReference* const reference = MakeReference(driver, entry);
    if (reference == nullptr) {
        return FILTER_ERROR_OUT_OF_MEMORY;
    }
    code = Guarded([&] { *ppInterface = reference + 1; });
    if (code != 0) {
        Filter_FreeMemory(reference);
        return FILTER_ERROR_EXCEPTION;
    }
    WriteLock referenceLock(entry->m_ReferenceLock);
    entry->m_ReferenceList.Append(*reference);
    return FILTER_STATUS_SUCCESS;
}

// Takes a reference off its interface's list. `orphan` is the interface when nothing holds it any more: it is then
// unlinked, too.
FILTER_STATUS UnlinkReference(FilterDriver* driver, InterfaceReference* reference, FilterInterface* entry,
                              FilterInterface*& orphan)
{
    WriteLock lock(Global().m_InterfaceLock);
    // Tags alone do not tell a stale interface, whose lock must not be touched.
    if (!Global().m_InterfaceList.Contains(entry) && !Global().m_DepartingInterfaceList.Contains(entry)) {
        return FILTER_ERROR_INVALID_FILTER_INTERFACE;
    }
    BOOLEAN referenced;
    {
        WriteLock referenceLock(entry->m_ReferenceLock);
        if (!entry->m_ReferenceList.Contains(reference)) {
            return FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND;
        }
        if (reference->m_hFilterDriver != driver) {
            return FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER;
        }
        RecordList<InterfaceReference>::Unlink(*reference);
        referenced = !entry->m_ReferenceList.IsEmpty();
    }
    if (!entry->m_bActive && !entry->m_bDeregistering && !referenced) {
        RecordList<FilterInterface>::Unlink(*entry);
        orphan = entry;
    }
    return FILTER_STATUS_SUCCESS;
}

// Moves an interface from the list to those that are departing.
FILTER_STATUS BeginDeparture(FilterDriver* driver, FilterInterface* entry)
{
    WriteLock lock(Global().m_InterfaceLock);
    if (!Global().m_InterfaceList.Contains(entry)) {
        return FILTER_ERROR_INTERFACE_NOT_FOUND;
    }
    if (entry->m_hFilterDriver != driver) {
        return FILTER_ERROR_INVALID_INTERFACE_OWNER;
    }
    RecordList<FilterInterface>::Unlink(*entry);
    Global().m_DepartingInterfaceList.Append(*entry);
    entry->m_bActive = FALSE;
    entry->m_bDeregistering = TRUE;
    return FILTER_STATUS_SUCCESS;
}

// Unlinks a departing interface. One that is referenced goes back to the tail of the list, for the last release to
// free; then TRUE.
BOOLEAN EndDeparture(FilterInterface* entry)
{
    WriteLock lock(Global().m_InterfaceLock);
    WriteLock referenceLock(entry->m_ReferenceLock);
    RecordList<FilterInterface>::Unlink(*entry);
    if (entry->m_ReferenceList.IsEmpty()) {
        return FALSE;
    }
    Global().m_InterfaceList.Append(*entry);
    entry->m_bDeregistering = FALSE;
    return TRUE;
}

} // namespace

FILTER_STATUS Filter_RegisterInterface(FilterDriver* hFilterDriver, const STRING* pInterfaceName,
                                       const VOID* pInterface, FilterInterface** phInterface)
{
    constexpr CallTrace trace{"Filter_RegisterInterface", TRACE_INTERFACE};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pInterfaceName == nullptr || pInterface == nullptr ||
            phInterface == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        const USHORT length = BlockLength(pInterface); // read once: the record has room for this length
        const NamedRegistration<FilterInterface> registration{
            .FunctionName = trace.Name,
            .Name = pInterfaceName,
            .Handle = phInterface,
            .Lock = Global().m_InterfaceLock,
            .List = Global().m_InterfaceList,
            .NameField = &FilterInterface::m_InterfaceName,
            .KnownStatus = FILTER_ERROR_INTERFACE_ALREADY_REGISTERED,
            .PoolTag = POOL_TAG_INTERFACE,
            .TerminatorSize = 1,
            .TailSize = length,
            .TailData = pInterface,
        };
        BOOLEAN listed = FALSE;
        const FILTER_STATUS status = RegisterNamed(registration, [&](FilterInterface& entry) {
            entry.m_Tag = FILTER_INTERFACE_TAG;
            entry.m_hFilterDriver = hFilterDriver;
            entry.m_bActive = TRUE;
            entry.m_pInterface = entry.m_InterfaceName.Buffer + entry.m_InterfaceName.Length + 1;
            entry.m_nInterfaceLength = length;
            NdisInitializeReadWriteLock(&entry.m_ReferenceLock);
            entry.m_ReferenceList.Initialize();
            registration.List.Append(entry);
            listed = TRUE;
        });
        if (status != FILTER_STATUS_SUCCESS || !listed) {
            return status;
        }
        return Announce(trace.Name, FILTER_IF_EVENT_REGISTERED, *pInterfaceName);
    });
}

FILTER_STATUS Filter_QueryInterface(FilterDriver* hFilterDriver, const STRING* pInterfaceName, PVOID* ppInterface)
{
    constexpr CallTrace trace{"Filter_QueryInterface", TRACE_INTERFACE};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pInterfaceName == nullptr || ppInterface == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        NTSTATUS code = 0;
        const FILTER_STATUS status = Query(hFilterDriver, *pInterfaceName, ppInterface, code);
        return code == 0 ? status : ExceptionStatus(trace.Name, code);
    });
}

BOOLEAN Filter_IsValidInterface(PVOID pInterface)
{
    // The tag lies in front of the copy.
    constexpr SIZE_T tagOffset = offsetof(InterfaceReference, m_Tag) - sizeof(InterfaceReference);
    return CheckHandle("Filter_IsValidInterface", pInterface, tagOffset, INTERFACE_REFERENCE_TAG,
                       IsLiveReference);
}

BOOLEAN Filter_IsValidInterfaceObject(FilterInterface* hInterface)
{
    return CheckRecord("Filter_IsValidInterfaceObject", hInterface, FILTER_INTERFACE_TAG);
}

FILTER_STATUS Filter_ReleaseInterface(FilterDriver* hFilterDriver, PVOID pInterface)
{
    return TracedCall({"Filter_ReleaseInterface", TRACE_INTERFACE}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pInterface == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidInterface(pInterface)) {
            return FILTER_ERROR_INVALID_FILTER_INTERFACE;
        }
        InterfaceReference* const reference = ReferenceOf(pInterface);
        FilterInterface* const entry = ReadLiveInterface(pInterface);
        if (!Filter_IsValidInterfaceObject(entry)) {
            return FILTER_ERROR_INVALID_FILTER_INTERFACE;
        }
        FilterInterface* orphan = nullptr;
        const FILTER_STATUS status = UnlinkReference(hFilterDriver, reference, entry, orphan);
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(reference);
        }
        if (orphan != nullptr) {
            Filter_FreeMemory(orphan);
        }
        return status;
    });
}

FILTER_STATUS Filter_DeregisterInterface(FilterDriver* hFilterDriver, FilterInterface* hInterface)
{
    constexpr CallTrace trace{"Filter_DeregisterInterface", TRACE_INTERFACE};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hInterface == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidInterfaceObject(hInterface)) {
            return FILTER_ERROR_INVALID_FILTER_INTERFACE;
        }
        const FILTER_STATUS status = BeginDeparture(hFilterDriver, hInterface);
        if (status != FILTER_STATUS_SUCCESS) {
            return status;
        }
        // A handler that faults ends its walk, not the deregistration.
        const STRING& name = hInterface->m_InterfaceName;
        const FILTER_STATUS announced = Announce(trace.Name, FILTER_IF_EVENT_DEREGISTERING, name);
        if (EndDeparture(hInterface)) {
            return FILTER_ERROR_INTERFACE_ARE_REFERENCED; // whatever happened: its owner must not leave
        }
        const FILTER_STATUS ended = Announce(trace.Name, FILTER_IF_EVENT_DEREGISTERED, name);
        Filter_FreeMemory(hInterface);
        return announced != FILTER_STATUS_SUCCESS ? announced : ended;
    });
}

FILTER_STATUS Filter_RegisterIfEventHandler(FilterDriver* hFilterDriver, FILTER_IF_EVENT_PROC pfIfEventProc,
                                            PVOID pIfEventContext, IfEventHandler** phIfEventHandler)
{
    constexpr CallTrace trace{"Filter_RegisterIfEventHandler", TRACE_INTERFACE};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfIfEventProc == nullptr || phIfEventHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        const PVOID driverContext = hFilterDriver->m_pDriverContext;
        const OwnedRegistration<IfEventHandler> registration{
            .FunctionName = trace.Name,
            .Owner = hFilterDriver,
            .Handle = phIfEventHandler,
            .List = Global().m_IfEventHandlerList,
            .KnownStatus = FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED,
            .RecordTag = IF_EVENT_HANDLER_TAG,
            .PoolTag = POOL_TAG_INTERFACE,
        };
        return RegisterOwned<WriteLock>(Global().m_IfEventHandlerLock, registration,
                                        [&](IfEventHandler& handler) {
                                            handler.m_pDriverContext = driverContext;
                                            handler.m_pfIfEventProc = pfIfEventProc;
                                            handler.m_pIfEventContext = pIfEventContext;
                                        });
    });
}

BOOLEAN Filter_IsValidIfEventHandler(IfEventHandler* hIfEventHandler)
{
    return CheckRecord("Filter_IsValidIfEventHandler", hIfEventHandler, IF_EVENT_HANDLER_TAG);
}

FILTER_STATUS Filter_DeregisterIfEventHandler(FilterDriver* hFilterDriver, IfEventHandler* hIfEventHandler)
{
    constexpr CallTrace trace{.Name = "Filter_DeregisterIfEventHandler",
                              .Area = TRACE_INTERFACE,
                              .Success = SuccessTrace::ErrorAndLeave};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hIfEventHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidIfEventHandler(hIfEventHandler)) {
            return FILTER_ERROR_INVALID_EVENT_HANDLER;
        }
        const FILTER_STATUS status = UnlinkOwned<WriteLock>(
            Global().m_IfEventHandlerLock, Global().m_IfEventHandlerList, hIfEventHandler, hFilterDriver,
            FILTER_ERROR_EVENT_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER);
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(hIfEventHandler);
        }
        return status;
    });
}
