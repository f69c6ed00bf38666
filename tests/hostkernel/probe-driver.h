// A driver inside the test program that does what the test says, and a fixture that loads it, unloads it and accepts
// no broken rule that the test did not provoke and name.
#pragma once

#include "machine.h"

#include <gmock/gmock.h>
#include <ntddk.h>

#include <functional>
#include <string>
#include <vector>

namespace probe
{

// Exactly these rules have been broken since the last look, in this order. Answers what the last one says.
template <class... Rules>
std::string ExpectRules(const Rules&... rules)
{
    std::vector<std::string> broken;
    std::string detail;
    for (const machine::Violation& violation : machine::TakeViolations()) {
        broken.push_back(violation.rule);
        detail = violation.detail;
    }
    EXPECT_EQ(broken, std::vector<std::string>({rules...}));
    return detail;
}

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

class DriverTest : public testing::Test
{
  protected:
    static constexpr char kService[] = "Probe";
    static constexpr char kDevice[] = "\\\\.\\Probe";
    static constexpr ULONG kCode = CTL_CODE(0x8000, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);

    void SetUp() override
    {
        machine::TakeViolations();
        machine::PrintViolations(false);
        current = this;
    }

    void TearDown() override
    {
        if (machine::IsDriverLoaded(kService)) {
            EXPECT_EQ(machine::UnloadDriver(kService), STATUS_SUCCESS);
        }
        machine::DiscardDriver(kService);
        machine::ClearFaults();
        ExpectRules();
        machine::PrintViolations(true);
        current = nullptr;
    }

    NTSTATUS Load() { return machine::LoadDriver(kService, Entry); }

    static void StartThread(PKSTART_ROUTINE routine, void* context)
    {
        HANDLE handle = nullptr;
        PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }

    // Runs an action of the driver within a request of a program.
    void InRequest(machine::File& file, const std::function<void()>& action)
    {
        control = [&](IRP* irp) {
            action();
            return Complete(irp, STATUS_SUCCESS);
        };
        EXPECT_EQ(file.Control(kCode, {}, {}).status, STATUS_SUCCESS);
    }

    // What the driver does; each may be replaced.
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
    // Device controls; create, cleanup and close succeed. All majors are noted in `majors`.
    std::function<NTSTATUS(IRP*)> control = [](IRP* irp) { return Complete(irp, STATUS_SUCCESS); };

    DEVICE_OBJECT* device = nullptr;
    BOOLEAN exclusive = FALSE;
    std::vector<int> majors;

  private:
    static NTSTATUS Dispatch(DEVICE_OBJECT*, IRP* irp)
    {
        const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
        current->majors.push_back(major);
        return major == IRP_MJ_DEVICE_CONTROL ? current->control(irp) : Complete(irp, STATUS_SUCCESS);
    }

    static NTSTATUS Entry(DRIVER_OBJECT* driver, UNICODE_STRING*)
    {
        for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_DEVICE_CONTROL}) {
            driver->MajorFunction[major] = Dispatch;
        }
        driver->DriverUnload = [](DRIVER_OBJECT*) { current->unload(); };
        return current->entry(driver);
    }

    static inline DriverTest* current = nullptr;
};

} // namespace probe
