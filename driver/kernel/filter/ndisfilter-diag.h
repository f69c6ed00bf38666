// Parts of the global state that both the diagnostic commands and the dump for the debugger print. `print` takes a
// format and its arguments.
#pragma once

#include "ndisfilter-internal.h"
#include "ndisfilter-shared-fields.h"

// Calls show(record) for each record of a list, under its lock. Lock is the guard's type.
template <class Lock, class LockStorage, class Record, class Show>
VOID ForEachLocked(LockStorage& storage, const RecordList<Record>& list, const Show& show)
{
    const Lock lock(storage);
    for (const Record& record : list) {
        show(record);
    }
}

template <class Print>
VOID PrintDevice(const Print& print)
{
    const NdisFilterDeviceExtension& global = Global();
    print("- m_pDeviceObject = 0x%p\n", global.m_pDeviceObject);
    print("- m_DeviceSymbolicLink = %ws\n", global.m_DeviceSymbolicLink.Buffer);
    print("- m_bSymbolicLinkCreated = %s\n", BooleanText(global.m_bSymbolicLinkCreated));
}

template <class Print>
VOID PrintMacAddress(const Print& print, PCSTR format, const UCHAR* address)
{
    print(format, address[0], address[1], address[2], address[3], address[4], address[5]);
}

// The adapter table, read without its lock: the hook driver rewrites it without, too.
template <class Print>
VOID PrintAdapterTable(const Print& print)
{
    const ULONG count = ReadAdapterCount();
    print("- m_nAdapterCount = %d\n", count);
    for (ULONG i = 0; i < count; i++) {
        const AdapterInfo info = ReadAdapterInfo(i);
        print("- m_AdapterList[%d] = 0x%p\n", i, &Global().m_AdapterList.m_Adapters[i]);
        print("  - m_hAdapter = 0x%p\n", info.m_hAdapter);
        print("  - m_nAdapterMedium = %d\n", ULONG{info.m_nAdapterMedium});
        print("  - m_usMTU = %d\n", ULONG{info.m_usMTU});
        print("  - m_dwAdapterState = %d\n", ULONG{info.m_dwAdapterState});
        PrintMacAddress(print, "  - m_PermanentAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n",
                        info.m_PermanentAddress);
        PrintMacAddress(print, "  - m_CurrentAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n",
                        info.m_CurrentAddress);
        print("  - m_szAdapterName = %.*s\n", static_cast<LONG>(sizeof(info.m_szAdapterName)),
              info.m_szAdapterName);
    }
}

// The header of a ring as the program sees it, and may have spoilt it.
template <class Print>
VOID PrintRing(const Print& print, const SharedRing& ring)
{
    SharedRing seen;
    FetchBytes(&seen, &ring, sizeof(seen));
    const auto address = [](ULONGLONG value) { return reinterpret_cast<PVOID>(value); };
    print("  - m_iBlockSize = %d\n", LONG{seen.m_iBlockSize});
    print("  - m_iBlockCount = %d\n", LONG{seen.m_iBlockCount});
    print("  - m_iBaseOffset = %d\n", LONG{seen.m_iBaseOffset});
    print("  - m_puBlockBase = 0x%p\n", address(seen.m_puBlockBase));
    print("  - m_pkBlockBase = 0x%p\n", address(seen.m_pkBlockBase));
    print("  - m_iRead = %d\n", LONG{seen.m_iRead});
    print("  - m_iWrite = %d\n", LONG{seen.m_iWrite});
    print("  - m_nCount = %d\n", LONG{seen.m_nCount});
}

// Both rings; only their titles without mapped memory.
template <class Print>
VOID PrintRings(const Print& print)
{
    const SharedMemory* const shared = Global().m_pSharedMemory;
    print("- m_SharedMemory.KernelModeInput\n");
    if (shared != nullptr) {
        PrintRing(print, shared->KernelModeInput);
    }
    print("- m_pSharedMemory.KernelModeOutput\n");
    if (shared != nullptr) {
        PrintRing(print, shared->KernelModeOutput);
    }
}

template <class Print>
VOID PrintShareThreads(const Print& print)
{
    ULONG index = 0;
    for (const HANDLE& thread : Global().m_hShareMemoryThread) {
        print("- m_hShareMemoryThread[%d] = 0x%p\n", index++, LoadRelaxed(thread));
    }
}

template <class Print>
VOID PrintName(const Print& print, PCSTR format, const STRING& name)
{
    print(format, LONG{name.Length}, LONG{name.Length}, name.Buffer);
}

template <class Print, class Record>
VOID PrintOwner(const Print& print, const Record& record)
{
    print("- m_hFilterDriver = 0x%p\n", record.m_hFilterDriver);
    print("- m_pDriverContext = 0x%p\n", record.m_pDriverContext);
}

template <class Print>
VOID PrintRecord(const Print& print, const FilterDriver& driver)
{
    print("- pFilterDriver = 0x%p\n", &driver);
    print("- m_pDriverContext = 0x%p\n", driver.m_pDriverContext);
    PrintName(print, "- m_DriverName = %*.*s\n", driver.m_DriverName);
}

template <class Print>
VOID PrintRecord(const Print& print, const FilterTimer& timer)
{
    print("- pFilterTimer = 0x%p\n", &timer);
    PrintOwner(print, timer);
    print("- m_pfTimerProc = 0x%p\n", AddressOf(timer.m_pfTimerProc));
    print("- m_pTimerContext = 0x%p\n", timer.m_pTimerContext);
    print("- m_bRepeatTimer = %s\n", BooleanText(timer.m_bRepeatTimer));
    print("- m_MsToDelay = %d\n", LoadRelaxed(timer.m_MsToDelay));
}

template <class Print>
VOID PrintRecord(const Print& print, const IoCtrlHandler& handler)
{
    print("- pIoCtrlHandler = 0x%p\n", &handler);
    print("- m_hFilterDriver = 0x%p\n", handler.m_hFilterDriver);
    print("- m_pfIoCtrlProc = 0x%p\n", AddressOf(handler.m_pfIoCtrlProc));
    print("- m_pIoCtrlContext = 0x%p\n", handler.m_pIoCtrlContext);
}
