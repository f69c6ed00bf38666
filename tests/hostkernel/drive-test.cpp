// Files on drive C, a directory of the host.
#include "probe-driver.h"

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace probe;
using testing::ElementsAre;

namespace
{

class DriveTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        std::string name = (std::filesystem::temp_directory_path() / "driveXXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        machine::SetDriveC(directory.string());
    }
    void TearDown() override
    {
        machine::SetDriveC("");
        std::filesystem::remove_all(directory);
        DriverTest::TearDown();
    }

    NTSTATUS Create(const char16_t* name, ULONG share = FILE_SHARE_READ)
    {
        UNICODE_STRING counted = Name(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        return ZwCreateFile(&file, FILE_WRITE_DATA | DELETE | SYNCHRONIZE, &attributes, &result, nullptr,
                            FILE_ATTRIBUTE_NORMAL, share, FILE_SUPERSEDE, FILE_SYNCHRONOUS_IO_NONALERT,
                            nullptr, 0);
    }
    NTSTATUS Write(std::string text, LARGE_INTEGER* offset = nullptr)
    {
        return ZwWriteFile(file, nullptr, nullptr, nullptr, &result, text.data(),
                           static_cast<ULONG>(text.size()), offset, nullptr);
    }
    std::string Content(const std::string& name) const
    {
        std::ifstream stream(directory / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    }

    std::filesystem::path directory;
    HANDLE file = nullptr;
    IO_STATUS_BLOCK result = {};
};

TEST_F(DriveTest, WritesGoToTheFilePosition)
{
    ASSERT_EQ(Create(u"\\??\\C:\\A(1).eth"), STATUS_SUCCESS);
    EXPECT_EQ(result.Information, static_cast<ULONG_PTR>(FILE_CREATED));
    EXPECT_EQ(Write("abc"), STATUS_SUCCESS);
    EXPECT_EQ(result.Information, 3u);
    EXPECT_EQ(Write("def"), STATUS_SUCCESS);
    LARGE_INTEGER start;
    start.QuadPart = 1;
    EXPECT_EQ(Write("XY", &start), STATUS_SUCCESS);
    EXPECT_EQ(Write("Z"), STATUS_SUCCESS);
    machine::FailCall(machine::Fault::File, 1);
    EXPECT_EQ(Write("lost"), STATUS_DISK_FULL);
    EXPECT_EQ(result.Information, 0u);
    EXPECT_EQ(machine::TakeCensus().files, 1u);
    EXPECT_EQ(ZwClose(file), STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().files, 0u);
    EXPECT_EQ(Content("A(1).eth"), "aXYZef");
}

TEST_F(DriveTest, AnOpenFileIsReplacedOnlyWhenItsUserSharesThat)
{
    ASSERT_EQ(Create(u"\\??\\C:\\log.eth"), STATUS_SUCCESS);
    const HANDLE first = file;
    EXPECT_EQ(Write("first"), STATUS_SUCCESS);
    EXPECT_EQ(Create(u"\\DosDevices\\c:\\LOG.ETH"), STATUS_SHARING_VIOLATION);
    ZwClose(first);
    ASSERT_EQ(Create(u"\\DosDevices\\c:\\LOG.ETH"), STATUS_SUCCESS);
    EXPECT_EQ(result.Information, static_cast<ULONG_PTR>(FILE_SUPERSEDED));
    ZwClose(file);
    EXPECT_EQ(Content("log.eth"), "");
}

TEST_F(DriveTest, NamesStayOnTheDrive)
{
    for (const char16_t* name :
         {u"\\??\\C:\\..\\x", u"\\??\\C:\\", u"\\??\\C:\\a/b", u"\\??\\C:\\a\\\\b", u"\\??\\C:\\a?"}) {
        EXPECT_EQ(Create(name), STATUS_OBJECT_NAME_INVALID);
    }
    EXPECT_EQ(Create(u"\\??\\D:\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(u"\\??\\C:\\missing\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
    std::filesystem::create_directory(directory / "Logs");
    EXPECT_EQ(Create(u"\\??\\C:\\logs"), STATUS_FILE_IS_A_DIRECTORY);
    ASSERT_EQ(Create(u"\\??\\C:\\logs\\x"), STATUS_SUCCESS);
    ZwClose(file);
    EXPECT_TRUE(std::filesystem::exists(directory / "Logs" / "x"));
    machine::SetDriveC("");
    EXPECT_EQ(Create(u"\\??\\C:\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(DriveTest, FilesAreForPassiveLevel)
{
    ASSERT_EQ(Create(u"\\??\\C:\\x"), STATUS_SUCCESS);
    {
        const machine::AtDispatch dispatch;
        Write("x");
    }
    EXPECT_THAT(BrokenRules(), testing::Contains("irql-too-high"));
    ZwClose(file);
    Write("x");
    EXPECT_THAT(BrokenRules(), ElementsAre("invalid-handle"));
}

} // namespace
