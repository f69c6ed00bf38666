// The protocol of a running lab's control socket, a Unix socket of sequenced packets: each message below is
// one packet. All numbers are in the byte order of the machine, as both ends run on it.
//
// The program says Hello; the lab opens the control device for it and answers Welcome. Then any number of
// requests may be outstanding. While it carries out one that maps memory, the lab sends Map with the
// descriptor of the pages (SCM_RIGHTS); the program maps them and answers Mapped with the address, which the
// request then returns to it. Pages stay mapped until the program ends the share or the connection. Close is
// answered with the end of the connection, once the device's handle is closed; a connection that ends
// otherwise closes it as well. A message of another length or type than laid down here ends the connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace labprotocol
{

inline constexpr uint32_t kMagic = 0x424C464E; // "NFLB"
inline constexpr uint32_t kVersion = 1;        // raised with every change to a message

inline constexpr uint32_t kLongestTransfer = 128 * 1024; // bytes of input, and of output, of one request
inline constexpr uint32_t kMostRequests = 64;            // outstanding on a connection; one more is refused

enum class MessageType : uint32_t {
    Hello = 1,   // program
    Welcome = 2, // lab
    Control = 3, // program
    Reply = 4,   // lab
    Cancel = 5,  // program
    Map = 6,     // lab
    Mapped = 7,  // program
    Close = 8,   // program
};

// Begins the conversation; another version is answered with Welcome as well, and then the connection ends.
struct Hello {
    MessageType type = MessageType::Hello;
    uint32_t magic = kMagic;
    uint32_t version = kVersion;
};

struct Welcome {
    MessageType type = MessageType::Welcome;
    uint32_t magic = kMagic;
    uint32_t version = kVersion; // the lab's
    int32_t status = 0;          // of opening the device, an NTSTATUS
};

// A device control request; its input bytes follow.
struct Control {
    MessageType type = MessageType::Control;
    uint32_t code = 0;
    uint64_t id = 0; // the program's choice, none that is outstanding
    uint32_t inputLength = 0;
    uint32_t outputLength = 0;
};

// The end of a request; its output bytes follow, no more than its outputLength.
struct Reply {
    MessageType type = MessageType::Reply;
    int32_t status = 0; // an NTSTATUS
    uint64_t id = 0;
};

// Cancels a request; harmless when it is complete.
struct Cancel {
    MessageType type = MessageType::Cancel;
    uint32_t reserved = 0;
    uint64_t id = 0;
};

// Carries one descriptor. Offset and length are multiples of the page size.
struct Map {
    MessageType type = MessageType::Map;
    uint32_t reserved = 0;
    uint64_t id = 0; // the lab's choice
    uint64_t offset = 0;
    uint64_t length = 0;
};

struct Mapped {
    MessageType type = MessageType::Mapped;
    uint32_t reserved = 0;
    uint64_t id = 0;      // of the Map message
    uint64_t address = 0; // 0: it cannot be mapped
};

struct Close {
    MessageType type = MessageType::Close;
};

inline constexpr size_t kLongestMessage = sizeof(Control) + kLongestTransfer;

// Where a lab listens and a program looks for it when nobody says otherwise.
inline std::string DefaultSocketPath()
{
    if (const char* path = std::getenv("NDISFILTER_LAB_SOCKET"); path != nullptr && *path != '\0') {
        return path;
    }
    if (const char* directory = std::getenv("XDG_RUNTIME_DIR"); directory != nullptr && *directory != '\0') {
        return std::string(directory) + "/ndisfilter-lab.sock";
    }
    return "/tmp/ndisfilter-lab-" + std::to_string(getuid()) + ".sock";
}

} // namespace labprotocol
