// Devices, links, open files, and loading and unloading a driver.
#include "probe-driver.h"

#include <fstream>
#include <span>

using namespace probe;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

using DeviceTest = DriverTest;

TEST_F(DeviceTest, OpensByEveryNameOfADeviceWithoutRegardToCase)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const std::span extension(static_cast<const UCHAR*>(device->DeviceExtension), 128);
    EXPECT_THAT(extension, testing::Each(0));

    machine::Process process;
    for (const char* name :
         {"\\\\.\\Probe", "\\\\.\\PROBE", "\\DosDevices\\probe", "\\??\\Probe", "\\Device\\probe"}) {
        EXPECT_NE(process.Open(name), nullptr) << name;
    }
    machine::Status status = 0;
    EXPECT_EQ(process.Open("\\\\.\\Other", &status), nullptr);
    EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(DeviceTest, RefusesTakenNamesAndMissingLinks)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    UNICODE_STRING name = Name(u"\\Device\\PROBE");
    UNICODE_STRING link = Name(u"\\DosDevices\\probe");
    UNICODE_STRING missing = Name(u"\\DosDevices\\Missing");
    UNICODE_STRING circle = Name(u"\\??\\Circle");
    DEVICE_OBJECT* second = device;
    EXPECT_EQ(IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(IoCreateSymbolicLink(&link, &name), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(IoDeleteSymbolicLink(&missing), STATUS_OBJECT_NAME_NOT_FOUND);

    EXPECT_EQ(IoCreateSymbolicLink(&circle, &circle), STATUS_SUCCESS);
    machine::Status status = 0;
    EXPECT_EQ(machine::Process().Open("\\\\.\\Circle", &status), nullptr);
    EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(IoDeleteSymbolicLink(&circle), STATUS_SUCCESS);
}

TEST_F(DeviceTest, CannotBeOpenedBeforeItsEntryRoutineSucceeds)
{
    NTSTATUS early = STATUS_SUCCESS;
    entry = [&early, create = entry](DRIVER_OBJECT* object) {
        const NTSTATUS status = create(object);
        UNICODE_STRING name = Name(u"\\Device\\Probe");
        FILE_OBJECT* file = nullptr;
        DEVICE_OBJECT* found = nullptr;
        early = IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &found);
        return status;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(early, STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(machine::LoadDriver("PROBE", [](void*, void*) { return 0; }), STATUS_IMAGE_ALREADY_LOADED);
}

TEST_F(DeviceTest, SendsCreateCleanupAndCloseInTheirOrder)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto order = ElementsAre(IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE);
    {
        machine::Process process;
        auto file = process.Open(kDevice);
        file->Close();
        EXPECT_THAT(majors, order);
        EXPECT_EQ(file->Control(0, {}, {}).status, STATUS_INVALID_HANDLE);
        majors.clear();
        file = process.Open(kDevice);
        EXPECT_EQ(file->SendShutdown().Wait()->status, STATUS_INVALID_DEVICE_REQUEST); // no dispatch routine
    }
    EXPECT_THAT(majors, order);
    majors.clear();
    UNICODE_STRING name = Name(u"\\DosDevices\\Probe");
    FILE_OBJECT* file = nullptr;
    DEVICE_OBJECT* found = nullptr;
    ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, device);
    EXPECT_THAT(majors, ElementsAre(IRP_MJ_CREATE, IRP_MJ_CLEANUP));
    ObDereferenceObject(file);
    EXPECT_THAT(majors, ElementsAre(IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE));
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
    EXPECT_TRUE(machine::IsDriverLoaded(kService));
    EXPECT_EQ(file->Control(CTL_CODE(0x8000, 1, 0, 0), {}, {}).status, STATUS_SUCCESS);
    file->Close();
    EXPECT_FALSE(machine::IsDriverLoaded(kService));
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(DeviceTest, ADeviceDeletedWhileOpenLivesUntilItIsClosed)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine::Process process;
    auto file = process.Open(kDevice);
    IoDeleteDevice(device);
    IoDeleteDevice(device);
    ExpectRule("device-not-live");
    machine::Status status = 0;
    EXPECT_EQ(process.Open(kDevice, &status), nullptr);
    EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(machine::TakeCensus().devices, 1u);
    file->Close();
    EXPECT_EQ(machine::TakeCensus().devices, 0u);
    unload = [] {
        UNICODE_STRING link = Name(u"\\??\\Probe");
        machine::AtDispatch dispatch;
        IoDeleteSymbolicLink(&link);
        ExpectRule("irql-too-high");
    };
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_SUCCESS);
}

TEST_F(DeviceTest, AFailedEntryLeavesItsObjectsUntilDiscarded)
{
    const auto create = entry;
    entry = [&create](DRIVER_OBJECT* object) {
        create(object);
        return STATUS_UNSUCCESSFUL;
    };
    EXPECT_EQ(Load(), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(machine::IsDriverLoaded(kService));
    EXPECT_EQ(machine::Process().Open(kDevice), nullptr);
    EXPECT_EQ(machine::DiscardDriver(kService), 2u);
    EXPECT_EQ(machine::DiscardDriver(kService), 0u);

    entry = create;
    for (const auto& [fault, left] :
         {std::pair{machine::Fault::Device, 0u}, {machine::Fault::SymbolicLink, 1u}}) {
        machine::FailCall(fault, 1);
        EXPECT_EQ(Load(), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(machine::FaultHit(fault));
        EXPECT_EQ(machine::DiscardDriver(kService), left);
        machine::ClearFaults();
    }
}

TEST_F(DeviceTest, UnloadReportsWhatTheDriverLeft)
{
    void* block = nullptr;
    MDL* mdl = nullptr;
    unload = [&] {
        block = ExAllocatePoolWithTag(NonPagedPool, 80, 0x74666C4D);
        mdl = IoAllocateMdl(block, 80, FALSE, FALSE, nullptr);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_SUCCESS);
    std::string detail;
    EXPECT_THAT(BrokenRules(&detail), ElementsAre("link-left", "device-left", "pool-left", "mdl-left"));
    EXPECT_THAT(detail, HasSubstr("Probe"));
    IoFreeMdl(mdl);
    ExFreePool(block);
}

TEST_F(DeviceTest, RefusesFilesThatAreNoDriver)
{
    const std::string text = testing::TempDir() + "not-a-driver.so";
    std::ofstream(text) << "text";
    struct Case {
        std::string path;
        NTSTATUS status;
        const char* message;
    };
    for (const Case& file :
         {Case{"/nonexistent/x.so", STATUS_OBJECT_NAME_NOT_FOUND, "/nonexistent/x.so: No such file"},
          {text, STATUS_INVALID_IMAGE_FORMAT, "not-a-driver.so"},
          {"/lib/x86_64-linux-gnu/libm.so.6", STATUS_INVALID_IMAGE_FORMAT, "exports no DriverEntry"}}) {
        std::string error;
        EXPECT_EQ(machine::LoadDriverModule(file.path, &error), file.status);
        EXPECT_THAT(error, HasSubstr(file.message));
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
    std::remove(text.c_str());
}

} // namespace
