// Loading and unloading drivers, who may open their devices, requests that wait, and files on drive C.
#include "probe-driver.h"

#include <support/program.h>

#include <filesystem>

using namespace probe;
using testing::ElementsAre;

namespace
{

using DeviceTest = DriverTest;

TEST_F(DeviceTest, NamesOfDevicesAndLinksAreTakenOnceAndFoundInAnyCase)
{
    NTSTATUS early = STATUS_SUCCESS;
    DRIVER_OBJECT* driver = nullptr;
    entry = [&, create = entry](DRIVER_OBJECT* object) {
        driver = object;
        const NTSTATUS status = create(object);
        UNICODE_STRING name = Name(u"\\Device\\Probe");
        FILE_OBJECT* file = nullptr;
        DEVICE_OBJECT* found = nullptr;
        early = IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &found);
        return status;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(early, STATUS_NO_SUCH_DEVICE); // before the entry routine has succeeded
    EXPECT_EQ(machine::LoadDriver("PROBE", [](PDRIVER_OBJECT, PUNICODE_STRING) { return 0; }),
              STATUS_IMAGE_ALREADY_LOADED);
    machine::Process process;
    for (const char* name :
         {kDevice, "\\\\.\\PROBE", "\\DosDevices\\probe", "\\??\\Probe", "\\Device\\probe"}) {
        EXPECT_NE(process.Open(name), nullptr) << name;
    }
    UNICODE_STRING name = Name(u"\\Device\\PROBE");
    UNICODE_STRING link = Name(u"\\DosDevices\\probe");
    UNICODE_STRING circle = Name(u"\\??\\Circle");
    DEVICE_OBJECT* second = device;
    EXPECT_EQ(IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(IoCreateSymbolicLink(&link, &name), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(IoCreateSymbolicLink(&circle, &circle), STATUS_SUCCESS);
    for (const char* missing : {"\\\\.\\Circle", "\\\\.\\Other"}) {
        machine::Status status = 0;
        EXPECT_EQ(process.Open(missing, &status), nullptr);
        EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_EQ(IoDeleteSymbolicLink(&circle), STATUS_SUCCESS);
    EXPECT_EQ(IoDeleteSymbolicLink(&circle), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(DeviceTest, AnExclusiveDeviceHasOneOpenerAndUnloadWaitsForTheLast)
{
    exclusive = TRUE;
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine::Process process;
    machine::Status status = 0;
    process.Open(kDevice).reset();
    auto file = process.Open(kDevice);
    EXPECT_EQ(process.Open(kDevice, &status), nullptr);
    EXPECT_EQ(status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_PENDING);
    EXPECT_EQ(process.Open(kDevice, &status), nullptr);
    EXPECT_EQ(status, STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(file->Control(kCode, {}, {}).status, STATUS_SUCCESS);
    file->Close();
    EXPECT_EQ(file->Control(kCode, {}, {}).status, STATUS_INVALID_HANDLE);
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(DeviceTest, ADriverWhoseEntryFailsLeavesItsDeviceOutOfReach)
{
    entry = [create = entry](DRIVER_OBJECT* object) {
        create(object);
        return STATUS_UNSUCCESSFUL;
    };
    EXPECT_EQ(Load(), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(machine::IsDriverLoaded(kService));
    EXPECT_EQ(machine::Process().Open(kDevice), nullptr);
    EXPECT_EQ(machine::DiscardDriver(kService), 2u);
    for (const auto& [path, message] : {std::pair{"/nonexistent/x.so", "/nonexistent/x.so: No such file"},
                                        {"/proc/self/status", "/proc/self/status"},
                                        {"/lib/x86_64-linux-gnu/libm.so.6", "exports no DriverEntry"}}) {
        std::string error;
        EXPECT_LT(machine::LoadDriverModule(path, &error), 0);
        EXPECT_THAT(error, testing::HasSubstr(message));
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
}

TEST_F(DeviceTest, TheCleanupOfAHandleComesBeforeTheCancellationsAndThoseBeforeItsClose)
{
    static constexpr int kCancelled = -1; // the place of the cancellation among the majors
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine::Process process;
    auto file = process.Open(kDevice);
    static std::vector<int>* order;
    order = &majors;
    IRP* parked = nullptr;
    control = [&](IRP* irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](DEVICE_OBJECT*, IRP* request) {
            IoReleaseCancelSpinLock(request->CancelIrql);
            order->push_back(kCancelled);
            Complete(request, STATUS_CANCELLED);
        });
        parked = irp;
        return STATUS_PENDING;
    };
    auto held = file->Send(kCode, {}, 0);
    IoSetCancelRoutine(parked, nullptr); // only told that it is cancelled
    held.Cancel();
    machine::CheckReturnToUser("a cancel that finds no routine");
    EXPECT_TRUE(parked->Cancel);
    Complete(parked, STATUS_SUCCESS);
    EXPECT_EQ(held.Wait()->status, STATUS_SUCCESS);
    auto closed = file->Send(kCode, {}, 0);
    majors.clear();
    file->Close();
    EXPECT_EQ(closed.Wait()->status, STATUS_CANCELLED);
    EXPECT_THAT(majors, ElementsAre(IRP_MJ_CLEANUP, kCancelled, IRP_MJ_CLOSE));
}

class DriveTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        machine::SetDriveC(temporary.Path());
    }
    void TearDown() override
    {
        machine::SetDriveC("");
        DriverTest::TearDown();
    }
    NTSTATUS Create(const char16_t* name)
    {
        UNICODE_STRING counted = Name(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        return ZwCreateFile(&file, FILE_WRITE_DATA | DELETE | SYNCHRONIZE, &attributes, &result, nullptr,
                            FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_SUPERSEDE,
                            FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }
    NTSTATUS Write(std::string text)
    {
        return ZwWriteFile(file, nullptr, nullptr, nullptr, &result, text.data(),
                           static_cast<ULONG>(text.size()), nullptr, nullptr);
    }

    const support::TemporaryDirectory temporary;
    const std::filesystem::path directory = temporary.Path();
    HANDLE file = nullptr;
    IO_STATUS_BLOCK result = {};
};

TEST_F(DriveTest, NamesStayOnTheDriveAndAnOpenFileIsItsWriters)
{
    for (const char16_t* name :
         {u"\\??\\C:\\..\\x", u"\\??\\C:\\", u"\\??\\C:\\a/b", u"\\??\\C:\\a\\\\b", u"\\??\\C:\\a?"}) {
        EXPECT_EQ(Create(name), STATUS_OBJECT_NAME_INVALID);
    }
    std::filesystem::create_directory(directory / "Logs");
    EXPECT_EQ(Create(u"\\??\\D:\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(u"\\??\\C:\\missing\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(u"\\??\\C:\\logs"), STATUS_FILE_IS_A_DIRECTORY);
    ASSERT_EQ(Create(u"\\??\\C:\\logs\\x"), STATUS_SUCCESS);
    EXPECT_EQ(Write("abcdef"), STATUS_SUCCESS);
    {
        const machine::AtDispatch level;
        Write("");
        ExpectRules("irql-too-high");
    }
    const HANDLE first = file;
    EXPECT_EQ(Create(u"\\DosDevices\\c:\\Logs\\X"), STATUS_SHARING_VIOLATION);
    ZwClose(first);
    EXPECT_EQ(std::filesystem::file_size(directory / "Logs" / "x"), 6u);
    ASSERT_EQ(Create(u"\\DosDevices\\c:\\Logs\\X"), STATUS_SUCCESS);
    EXPECT_EQ(result.Information, static_cast<ULONG_PTR>(FILE_SUPERSEDED));
    ZwClose(file);
    EXPECT_EQ(std::filesystem::file_size(directory / "Logs" / "x"), 0u);
    Write("x");
    ExpectRules("invalid-handle");
    machine::SetDriveC("");
    EXPECT_EQ(Create(u"\\??\\C:\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
}

} // namespace
