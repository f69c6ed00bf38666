// The transport's driver: its devices, and the files that clients open on them.
#include "connection.h"
#include "faults.h"
#include "machine.h"
#include "statistics.h"

#include <cstring>
#include <string_view>

namespace transport
{
namespace
{

constexpr char kService[] = "Transport";
constexpr int kMaxProtocol = 255;

struct Name {
    Kind kind;
    const char16_t* text;
};
constexpr Name kNames[] = {
    {Kind::Tcp, u"\\Device\\Tcp"}, {Kind::Udp, u"\\Device\\Udp"}, {Kind::RawIp, u"\\Device\\RawIp"}};

std::unique_ptr<Engine> g_engine;

Kind KindOf(const DEVICE_OBJECT* device)
{
    return *static_cast<const Kind*>(device->DeviceExtension);
}

// Answers only what concerns the device.
class ControlChannel : public File
{
  public:
    using File::File;
    NTSTATUS Dispatch(IRP* irp) override
    {
        const bool query = MinorOf(irp) == TDI_QUERY_INFORMATION;
        return Complete(irp,
                        query ? QueryProvider(TheKind(), irp) : Result{STATUS_INVALID_DEVICE_REQUEST, 0});
    }
};

// --------------------------------------------------------------------------------------------------- creating

// The protocol of a raw address stands behind the device's name, as in \Device\RawIp\1.
std::optional<int> ProtocolOf(const UNICODE_STRING& fileName)
{
    const size_t units = fileName.Length / sizeof(WCHAR);
    int protocol = 0;
    if (units < 2 || units > 4) {
        return std::nullopt;
    }
    for (size_t i = 1; i < units; ++i) {
        const WCHAR unit = fileName.Buffer[i];
        if (unit < '0' || unit > '9') {
            return std::nullopt;
        }
        protocol = protocol * 10 + (unit - '0');
    }
    return protocol <= kMaxProtocol ? std::optional(protocol) : std::nullopt;
}

NTSTATUS CreateAddress(Kind kind, const FILE_OBJECT* file, const void* value, size_t length,
                       std::shared_ptr<File>* result)
{
    const std::optional<int> protocol = kind == Kind::RawIp ? ProtocolOf(file->FileName) : 0;
    if (!protocol) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::shared_ptr<Address> address;
    const NTSTATUS status = Address::Open(kind, *protocol, value, length, &address);
    *result = std::move(address);
    return status;
}

// The extended attribute says what the file is to be; its layout was checked by the I/O manager.
NTSTATUS CreateFile(IRP* irp, std::shared_ptr<File>* result, ULONG* type)
{
    const IO_STACK_LOCATION* location = IoGetCurrentIrpStackLocation(irp);
    const Kind kind = KindOf(location->DeviceObject);
    if (location->Parameters.Create.EaLength == 0) {
        *type = TDI_CONTROL_CHANNEL_FILE;
        *result = std::make_shared<ControlChannel>(kind);
        return STATUS_SUCCESS;
    }
    const auto* bytes = static_cast<const UCHAR*>(irp->AssociatedIrp.SystemBuffer);
    constexpr size_t kHeader = offsetof(FILE_FULL_EA_INFORMATION, EaName);
    FILE_FULL_EA_INFORMATION header;
    std::memcpy(&header, bytes, kHeader);
    const std::string_view name(reinterpret_cast<const char*>(bytes) + kHeader, header.EaNameLength);
    const UCHAR* value = bytes + kHeader + header.EaNameLength + 1;
    if (name == TdiTransportAddress) {
        *type = TDI_TRANSPORT_ADDRESS_FILE;
        return CreateAddress(kind, location->FileObject, value, header.EaValueLength, result);
    }
    if (name == TdiConnectionContext && kind == Kind::Tcp && header.EaValueLength == sizeof(void*)) {
        void* context;
        std::memcpy(&context, value, sizeof(context));
        *type = TDI_CONNECTION_FILE;
        *result = std::make_shared<Connection>(context);
        return STATUS_SUCCESS;
    }
    return STATUS_INVALID_EA_NAME;
}

// ------------------------------------------------------------------------------------------------ dispatching

std::shared_ptr<File>* HolderOf(const FILE_OBJECT* file)
{
    return static_cast<std::shared_ptr<File>*>(file->FsContext);
}

NTSTATUS OnCreate(DEVICE_OBJECT*, IRP* irp)
{
    if (const std::optional<NTSTATUS> answered = AnswerOtherwise(irp)) {
        return *answered;
    }
    FILE_OBJECT* file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    std::shared_ptr<File> opened;
    ULONG type = 0;
    const NTSTATUS status = CreateFile(irp, &opened, &type);
    if (NT_SUCCESS(status)) {
        file->FsContext = new std::shared_ptr<File>(std::move(opened));
        file->FsContext2 = reinterpret_cast<void*>(static_cast<uintptr_t>(type));
    }
    return Complete(irp, {status, NT_SUCCESS(status) ? static_cast<ULONG_PTR>(FILE_OPENED) : 0});
}

NTSTATUS OnCleanup(DEVICE_OBJECT*, IRP* irp)
{
    if (const auto* holder = HolderOf(IoGetCurrentIrpStackLocation(irp)->FileObject)) {
        (*holder)->Cleanup();
    }
    return Complete(irp, {});
}

NTSTATUS OnClose(DEVICE_OBJECT*, IRP* irp)
{
    delete HolderOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    return Complete(irp, {});
}

NTSTATUS OnControl(DEVICE_OBJECT*, IRP* irp)
{
    if (const std::optional<NTSTATUS> answered = AnswerOtherwise(irp)) {
        return *answered;
    }
    const auto* holder = HolderOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (holder == nullptr) {
        return Complete(irp, {STATUS_INVALID_DEVICE_REQUEST, 0});
    }
    const std::shared_ptr<File> file = *holder; // the client may close it while its request completes
    return file->Dispatch(irp);
}

// --------------------------------------------------------------------------------------------- start and stop

void Unload(DRIVER_OBJECT* driver)
{
    while (driver->DeviceObject != nullptr) {
        IoDeleteDevice(driver->DeviceObject);
    }
    if (g_engine != nullptr) {
        g_engine->Stop();
        g_engine.reset();
    }
}

NTSTATUS Entry(DRIVER_OBJECT* driver, UNICODE_STRING*)
{
    for (const Name& name : kNames) {
        const size_t length = std::u16string_view(name.text).size() * sizeof(WCHAR);
        UNICODE_STRING counted = {static_cast<USHORT>(length), static_cast<USHORT>(length + sizeof(WCHAR)),
                                  const_cast<WCHAR*>(reinterpret_cast<const WCHAR*>(name.text))};
        DEVICE_OBJECT* device = nullptr;
        const NTSTATUS status =
            IoCreateDevice(driver, sizeof(Kind), &counted, FILE_DEVICE_NETWORK, 0, FALSE, &device);
        if (!NT_SUCCESS(status)) {
            Unload(driver);
            return status;
        }
        *static_cast<Kind*>(device->DeviceExtension) = name.kind;
    }
    driver->MajorFunction[IRP_MJ_CREATE] = OnCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = OnCleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = OnClose;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = OnControl;
    driver->DriverUnload = Unload;
    g_engine = std::make_unique<Engine>();
    return STATUS_SUCCESS;
}

} // namespace

Engine* TheEngine()
{
    return g_engine.get();
}

} // namespace transport

namespace machine
{

Status LoadTransport()
{
    return LoadDriver(transport::kService, transport::Entry);
}

Status UnloadTransport()
{
    return UnloadDriver(transport::kService);
}

} // namespace machine
