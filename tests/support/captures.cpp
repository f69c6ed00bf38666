#include "captures.h"

#include <cstdio>
#include <fstream>

#include <gtest/gtest.h>
#include <pcap/pcap.h>

namespace support
{

std::vector<CapturedFrame> ParseCapture(const Bytes& file, std::string* error)
{
    std::vector<CapturedFrame> frames;
    char text[PCAP_ERRBUF_SIZE] = "";
    Bytes copy = file;
    copy.push_back(0); // a stream over no bytes cannot be had
    FILE* stream = fmemopen(copy.data(), file.empty() ? 1 : file.size(), "rb");
    pcap_t* capture = pcap_fopen_offline(stream, text);
    if (capture == nullptr) {
        std::fclose(stream);
        *error = text;
        return frames;
    }
    EXPECT_EQ(pcap_datalink(capture), DLT_EN10MB);
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int outcome;
    while ((outcome = pcap_next_ex(capture, &header, &data)) == 1) {
        EXPECT_EQ(header->len, header->caplen);
        frames.push_back(
            {Bytes(data, data + header->caplen), header->ts.tv_sec * 1'000'000 + header->ts.tv_usec});
    }
    *error = outcome == PCAP_ERROR_BREAK ? "" : pcap_geterr(capture);
    pcap_close(capture);
    return frames;
}

std::vector<CapturedFrame> ReadCapture(const std::string& path)
{
    std::string error;
    std::vector<CapturedFrame> frames = ParseCapture(ReadFile(path), &error);
    EXPECT_EQ(error, "") << path;
    return frames;
}

void WriteCapture(const std::string& path, const std::vector<Bytes>& frames, int linkType)
{
    pcap_t* format = pcap_open_dead(linkType, 65535);
    pcap_dumper_t* file = pcap_dump_open(format, path.c_str());
    ASSERT_NE(file, nullptr) << pcap_geterr(format);
    int64_t time = 1'700'000'000'123'456; // microseconds
    for (const Bytes& frame : frames) {
        pcap_pkthdr header = {};
        header.ts = {time / 1'000'000, time % 1'000'000};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        pcap_dump(reinterpret_cast<u_char*>(file), &header, frame.data());
        time += 1000;
    }
    pcap_dump_close(file);
    pcap_close(format);
}

Bytes ReadFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

} // namespace support
