// The place of the hook driver, taken by a benchmark.
#pragma once

#include "framework.h"

namespace bench
{

// Offers the functions in `api`; the framework's own are filled in. `api` stays in use until the framework unloads.
inline void BindHook(NdisHookAPI& api)
{
    static WCHAR text[] = NDIS_FILTER_DEVICE_NAME;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    Check("the framework's device", IoGetDeviceObjectPointer(&name, GENERIC_READ, &file, &device));
    api.m_Size = sizeof(api);
    api.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    api.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    api.Hook_GetTcpIpBoundAdapters = [](PVOID list) { static_cast<AdapterList*>(list)->m_nAdapterCount = 0; };
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = {};
    const PIRP request =
        IoBuildDeviceIoControlRequest(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, device, &api, sizeof(api),
                                      &api, sizeof(api), TRUE, &done, &result);
    if (request == nullptr) {
        Fail("no memory for the binding");
    }
    if (IoCallDriver(device, request) == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    Check("binding the hook", result.Status);
    ObDereferenceObject(file);
}

} // namespace bench
