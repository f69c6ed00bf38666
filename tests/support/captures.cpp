#include "captures.h"

#include <cstdio>
#include <fstream>
#include <iterator>

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

Bytes ReadFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

} // namespace support
