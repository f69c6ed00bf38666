// A driver inside the test program that does what the test says, and a fixture that loads it, unloads it and accepts
// no broken rule that the test did not ask for.
#pragma once

#include "rules.h"

#include <ntddk.h>

#include <algorithm>
#include <functional>

namespace probe
{

inline UNICODE_STRING Name(const char16_t* text)
{
    const auto length = static_cast<USHORT>(std::char_traits<char16_t>::length(text) * 2);
    return {length, static_cast<USHORT>(length + 2),
            const_cast<WCHAR*>(reinterpret_cast<const WCHAR*>(text))};
}

inline NTSTATUS Complete(IRP* irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

class DriverTest : public KernelTest
{
  protected:
    static constexpr char kService[] = "Probe";
    static constexpr char kDevice[] = "\\\\.\\Probe";

    void SetUp() override
    {
        KernelTest::SetUp();
        current = this;
    }

    void TearDown() override
    {
        if (machine::IsDriverLoaded(kService)) {
            EXPECT_EQ(machine::UnloadDriver(kService), STATUS_SUCCESS);
        }
        machine::DiscardDriver(kService);
        KernelTest::TearDown();
        current = nullptr;
    }

    NTSTATUS Load() { return machine::LoadDriver(kService, Entry); }

    // What the driver does; each may be replaced before Load.
    std::function<NTSTATUS(DRIVER_OBJECT*)> entry = [this](DRIVER_OBJECT* object) {
        UNICODE_STRING name = Name(u"\\Device\\Probe");
        UNICODE_STRING link = Name(u"\\DosDevices\\Probe");
        NTSTATUS status = IoCreateDevice(object, 128, &name, FILE_DEVICE_UNKNOWN, 0, exclusive, &device);
        if (NT_SUCCESS(status)) {
            status = IoCreateSymbolicLink(&link, &name);
        }
        return status;
    };
    std::function<void()> unload = [this] {
        UNICODE_STRING link = Name(u"\\??\\Probe");
        IoDeleteSymbolicLink(&link);
        IoDeleteDevice(device);
    };
    // Device controls; create, cleanup, close and shutdown succeed. All majors are noted in `majors`.
    std::function<NTSTATUS(IRP*)> control = [](IRP* irp) { return Complete(irp, STATUS_SUCCESS); };

    DRIVER_OBJECT* driver = nullptr;
    DEVICE_OBJECT* device = nullptr;
    BOOLEAN exclusive = FALSE;
    std::vector<int> majors;

  private:
    static NTSTATUS Dispatch(DEVICE_OBJECT*, IRP* irp)
    {
        const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
        current->majors.push_back(major);
        const bool isControl = major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_INTERNAL_DEVICE_CONTROL;
        return isControl ? current->control(irp) : Complete(irp, STATUS_SUCCESS);
    }

    static machine::Status Entry(void* object, void*)
    {
        current->driver = static_cast<DRIVER_OBJECT*>(object);
        for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_DEVICE_CONTROL,
                                IRP_MJ_INTERNAL_DEVICE_CONTROL}) {
            current->driver->MajorFunction[major] = Dispatch;
        }
        current->driver->DriverUnload = [](DRIVER_OBJECT*) { current->unload(); };
        return current->entry(current->driver);
    }

    static inline DriverTest* current = nullptr;
};

} // namespace probe
