// Files on drive C: a directory of the host. As drivers use them: created anew, written at the file position.
#include "file.h"
#include "object.h"
#include "text.h"
#include "verifier.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <list>
#include <mutex>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kernel;

namespace
{

// Who has a file open, and what that leaves to others.
struct Opening {
    dev_t device;
    ino_t inode;
    ACCESS_MASK access;
    ULONG share;
};

struct Drive {
    std::mutex mutex;
    std::string directory; // empty: no drive
    std::list<Opening> openings;
};

Drive& DriveC()
{
    static Drive& drive = *new Drive; // never destroyed: other threads may still run at exit
    return drive;
}

struct DataFile {
    int descriptor;
    ACCESS_MASK access;
    std::list<Opening>::iterator opening;
};

void DestroyDataFile(void* body)
{
    auto* file = static_cast<DataFile*>(body);
    RequireIrqlAtMost(PASSIVE_LEVEL, "ObDereferenceObject");
    close(file->descriptor);
    {
        std::lock_guard lock(DriveC().mutex);
        DriveC().openings.erase(file->opening);
    }
    file->~DataFile();
    --Live().files;
}

_OBJECT_TYPE dataFileType = {"File", DestroyDataFile};

NTSTATUS StatusOfErrno()
{
    switch (errno) {
    case ENOSPC:
    case EFBIG:
    case EDQUOT:
        return STATUS_DISK_FULL;
    case EISDIR:
        return STATUS_FILE_IS_A_DIRECTORY;
    case ENOENT:
    case ENOTDIR:
        return STATUS_OBJECT_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_ACCESS_DENIED;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

bool IsFileName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of("<>:\"/|?*") == std::string::npos &&
           std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20; });
}

// The entry of a directory that this name means: an existing one may be spelt in other cases.
std::filesystem::path EntryNamed(const std::filesystem::path& directory, const std::string& name)
{
    std::error_code error;
    if (!std::filesystem::exists(directory / name, error)) {
        const std::string folded = FoldCase(name);
        for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
            if (FoldCase(entry.path().filename().string()) == folded) {
                return entry.path();
            }
        }
    }
    return directory / name;
}

// The host's path of a name such as \??\C:\logs\a.eth.
NTSTATUS HostPath(const std::string& name, std::filesystem::path* path)
{
    const std::string folded = FoldCase(name);
    for (const std::string prefix : {"\\??\\c:\\", "\\dosdevices\\c:\\"}) {
        if (!folded.starts_with(prefix) || DriveC().directory.empty()) {
            continue;
        }
        *path = DriveC().directory;
        size_t start = prefix.size();
        for (;;) {
            const size_t end = name.find('\\', start);
            const std::string component = name.substr(start, end - start);
            if (!IsFileName(component)) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            *path = EntryNamed(*path, component);
            if (end == std::string::npos) {
                return STATUS_SUCCESS;
            }
            start = end + 1;
        }
    }
    return STATUS_OBJECT_PATH_NOT_FOUND;
}

// TRUE when one who has the file open does something that the other does not share.
bool Excludes(const Opening& user, const Opening& other)
{
    return ((user.access & FILE_READ_DATA) != 0 && (other.share & FILE_SHARE_READ) == 0) ||
           ((user.access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0 &&
            (other.share & FILE_SHARE_WRITE) == 0) ||
           ((user.access & DELETE) != 0 && (other.share & FILE_SHARE_DELETE) == 0);
}

bool ViolatesSharing(const Opening& wanted)
{
    for (const Opening& present : DriveC().openings) {
        if (present.device == wanted.device && present.inode == wanted.inode &&
            (Excludes(wanted, present) || Excludes(present, wanted))) {
            return true;
        }
    }
    return false;
}

// Creates the file; one of that name is replaced by a new one, and whoever reads it on the host keeps the old one.
NTSTATUS Supersede(const std::filesystem::path& path, Opening& opening, int* descriptor,
                   ULONG_PTR* information)
{
    struct stat status;
    *information = FILE_CREATED;
    if (lstat(path.c_str(), &status) == 0) {
        opening.device = status.st_dev;
        opening.inode = status.st_ino;
        if (ViolatesSharing(opening)) {
            return STATUS_SHARING_VIOLATION;
        }
        if (S_ISDIR(status.st_mode)) {
            return STATUS_FILE_IS_A_DIRECTORY;
        }
        if (unlink(path.c_str()) != 0) {
            return StatusOfErrno();
        }
        *information = FILE_SUPERSEDED;
    }
    *descriptor = open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0644);
    if (*descriptor < 0) {
        return StatusOfErrno();
    }
    fstat(*descriptor, &status);
    opening.device = status.st_dev;
    opening.inode = status.st_ino;
    return STATUS_SUCCESS;
}

NTSTATUS CreateDataFile(const std::string& name, Opening opening, HANDLE* handle, ULONG_PTR* information)
{
    Drive& drive = DriveC();
    void* body = nullptr;
    {
        std::lock_guard lock(drive.mutex);
        std::filesystem::path path;
        NTSTATUS status = HostPath(name, &path);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        int descriptor = -1;
        status = Supersede(path, opening, &descriptor, information);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        body = CreateObject(&dataFileType, sizeof(DataFile));
        if (body == nullptr) {
            close(descriptor);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        new (body) DataFile{descriptor, opening.access, drive.openings.insert(drive.openings.end(), opening)};
        ++Live().files;
    }
    *handle = CreateHandle(body);
    DereferenceObject(body); // the handle's reference remains
    return STATUS_SUCCESS;
}

NTSTATUS Seek(int descriptor, const LARGE_INTEGER* byteOffset)
{
    constexpr LONGLONG kEndOfFile = -1;
    constexpr LONGLONG kFilePosition = -2;
    if (byteOffset == nullptr || byteOffset->QuadPart == kFilePosition) {
        return STATUS_SUCCESS;
    }
    if (byteOffset->QuadPart < kFilePosition) {
        return STATUS_INVALID_PARAMETER;
    }
    const bool atEnd = byteOffset->QuadPart == kEndOfFile;
    lseek(descriptor, atEnd ? 0 : byteOffset->QuadPart, atEnd ? SEEK_END : SEEK_SET);
    return STATUS_SUCCESS;
}

NTSTATUS Write(int descriptor, const void* buffer, size_t length, ULONG_PTR* written)
{
    const auto* bytes = static_cast<const char*>(buffer);
    while (*written < length) {
        const ssize_t count = write(descriptor, bytes + *written, length - *written);
        if (count < 0 && errno != EINTR) {
            return StatusOfErrno();
        }
        *written += count < 0 ? 0 : static_cast<size_t>(count);
    }
    return STATUS_SUCCESS;
}

} // namespace

namespace kernel
{

// Superseding and synchronous use are all that drivers ask of it.
NTSTATUS CreateDriveFile(const std::string& name, ACCESS_MASK access, const CreateParameters& parameters,
                         HANDLE* handle, ULONG_PTR* information)
{
    if (parameters.disposition != FILE_SUPERSEDE || parameters.options != FILE_SYNCHRONOUS_IO_NONALERT) {
        Report("not-implemented", "ZwCreateFile", "disposition %u, options 0x%x", parameters.disposition,
               parameters.options);
        return STATUS_NOT_IMPLEMENTED;
    }
    if (Fails(machine::Fault::File)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return CreateDataFile(name, {.device = 0, .inode = 0, .access = access, .share = parameters.share}, handle,
                          information);
}

} // namespace kernel

NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK IoStatusBlock,
                     PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwWriteFile");
    void* body = nullptr;
    NTSTATUS status = FindObject(FileHandle, &dataFileType, &body);
    if (!NT_SUCCESS(status)) {
        Report("invalid-handle", "ZwWriteFile", "handle %p", FileHandle);
        return status;
    }
    const DataFile& file = *static_cast<DataFile*>(body);
    ULONG_PTR written = 0;
    if ((file.access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == 0) {
        status = STATUS_ACCESS_DENIED;
    } else if (Fails(machine::Fault::File)) {
        status = STATUS_DISK_FULL;
    } else {
        status = Seek(file.descriptor, ByteOffset);
    }
    if (NT_SUCCESS(status)) {
        status = Write(file.descriptor, Buffer, Length, &written);
    }
    DereferenceObject(body);
    IoStatusBlock->Status = status;
    IoStatusBlock->Information = written;
    return status;
}

namespace machine
{

void SetDriveC(const std::string& directory)
{
    std::lock_guard lock(DriveC().mutex);
    DriveC().directory = directory;
}

} // namespace machine
