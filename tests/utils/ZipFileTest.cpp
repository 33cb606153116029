#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unzip.h>

#include <ctime>
#include <random>

#include "platform/Log.h"
#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"
#include "utils/ZipFile.h"

using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;
using velmar::kolto::ZipFile;

namespace {

const char kTag[] = "Tarnis-ZipFile";

struct Entry {
    std::string name;
    std::string content;
    unsigned long flag = 0;
    unsigned long method = 0;
    tm_unz date {};
};

// Reads an archive back with minizip's reader; every entry's CRC is checked
// as it is read to the end. False when the archive cannot be read.
bool ReadArchive(const std::string& path, std::vector<Entry>* entries) {
    unzFile zip = unzOpen64(path.c_str());
    if (zip == nullptr) return false;
    unz_global_info64 global {};
    bool ok = unzGetGlobalInfo64(zip, &global) == UNZ_OK;
    int rc = global.number_entry == 0 ? UNZ_END_OF_LIST_OF_FILE : unzGoToFirstFile(zip);
    while (ok && rc == UNZ_OK) {
        unz_file_info64 info {};
        char name[1024];
        Entry entry;
        ok = unzGetCurrentFileInfo64(zip, &info, name, sizeof(name), nullptr, 0, nullptr, 0) ==
                 UNZ_OK &&
             unzOpenCurrentFile(zip) == UNZ_OK;
        if (!ok) break;
        entry.name = name;
        entry.flag = info.flag;
        entry.method = info.compression_method;
        entry.date = info.tmu_date;
        char buffer[65536];
        int got;
        while ((got = unzReadCurrentFile(zip, buffer, sizeof(buffer))) > 0) {
            entry.content.append(buffer, got);
        }
        ok = got == 0 && unzCloseCurrentFile(zip) == UNZ_OK;
        entries->push_back(entry);
        rc = unzGoToNextFile(zip);
    }
    if (rc != UNZ_OK && rc != UNZ_END_OF_LIST_OF_FILE) ok = false;
    unzClose(zip);
    return ok;
}

std::vector<std::string> Names(const std::vector<Entry>& entries) {
    std::vector<std::string> names;
    for (const Entry& entry : entries) names.push_back(entry.name);
    return names;
}

const Entry* Find(const std::vector<Entry>& entries, const std::string& name) {
    for (const Entry& entry : entries) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

// minizip's reader cannot open an archive without entries (it never looks
// for the end record at offset 0), so such an archive is checked byte-wise:
// nothing but an end-of-central-directory record for zero entries.
bool IsEmptyArchive(const std::string& path) {
    return ReadFile(path) == std::string("PK\x05\x06", 4) + std::string(18, '\0');
}

bool UnzipTestPasses(const std::string& archive) {
    int status = -1;
    RunShell("unzip -tqq '" + archive + "' >/dev/null 2>&1", &status);
    return status == 0;
}

std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937 gen(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(gen());
    return bytes;
}

class ZipFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        logs_ = tmp_.Sub("logs");
        ASSERT_EQ(mkdir(logs_.c_str(), 0755), 0);
        ASSERT_EQ(mkdir((logs_ + "/sub").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((logs_ + "/empty").c_str(), 0755), 0);
        text_ = std::string(3000, 't') + "\nend\n";
        // Larger than one read chunk and incompressible.
        binary_ = RandomBytes(600 * 1024 + 17, 7);
        ASSERT_TRUE(WriteFile(logs_ + "/a.txt", text_));
        ASSERT_TRUE(WriteFile(logs_ + "/sub/b.bin", binary_));
        ASSERT_TRUE(WriteFile(tmp_.Sub("single.txt"), "single"));
    }
    // tmp_.Sub(x) less its leading "/": how depth 0 names entries.
    std::string Rel(const std::string& relative) const { return tmp_.Sub(relative).substr(1); }

    TempDir tmp_;
    std::string logs_;
    std::string text_;
    std::string binary_;
};

}  // namespace

TEST_F(ZipFileTest, DepthZeroNamesByFullPathWithDirectoryEntries) {
    const std::string archive = tmp_.Sub("out.zip");
    const time_t before = time(nullptr);
    {
        ZipFile zip({logs_, tmp_.Sub("single.txt"), logs_ + "/empty"}, 0);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_TRUE(zip.close());
    }
    std::vector<Entry> entries;
    ASSERT_TRUE(ReadArchive(archive, &entries));
    EXPECT_TRUE(UnzipTestPasses(archive));
    std::vector<std::string> names = Names(entries);
    // The directory's own entry comes first; no entries for its subdirectories.
    ASSERT_EQ(names.size(), 5u);
    EXPECT_EQ(names[0], Rel("logs/"));
    std::sort(names.begin() + 1, names.begin() + 3);
    EXPECT_EQ(names[1], Rel("logs/a.txt"));
    EXPECT_EQ(names[2], Rel("logs/sub/b.bin"));
    EXPECT_EQ(names[3], Rel("single.txt"));
    EXPECT_EQ(names[4], Rel("logs/empty/"));
    EXPECT_EQ(Find(entries, Rel("logs/a.txt"))->content, text_);
    EXPECT_EQ(Find(entries, Rel("logs/sub/b.bin"))->content, binary_);
    EXPECT_EQ(Find(entries, Rel("single.txt"))->content, "single");
    EXPECT_TRUE(Find(entries, Rel("logs/"))->content.empty());

    // UTF-8 names, deflate, and the local time of packing as the date.
    struct tm local {};
    localtime_r(&before, &local);
    for (const Entry& entry : entries) {
        EXPECT_NE(entry.flag & (1u << 11), 0u) << entry.name;
        EXPECT_EQ(entry.method, 8u) << entry.name;
        EXPECT_EQ(entry.date.tm_year, static_cast<unsigned>(local.tm_year + 1900));
        EXPECT_EQ(entry.date.tm_mon, static_cast<unsigned>(local.tm_mon));
        EXPECT_EQ(entry.date.tm_mday, static_cast<unsigned>(local.tm_mday));
        EXPECT_EQ(entry.date.tm_hour, static_cast<unsigned>(local.tm_hour));
    }
}

TEST_F(ZipFileTest, TailDepthNamesByLastComponents) {
    ASSERT_EQ(mkdir(tmp_.Sub("online").c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(tmp_.Sub("online/cap.txt"), "capture"));
    const std::string archive = tmp_.Sub("tail.zip");
    platform::LogCapture capture;
    {
        // The doubled slash packaging inserts keeps a capture file's bare name.
        ZipFile zip({logs_, tmp_.Sub("online//cap.txt")}, 2);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_TRUE(zip.close());
    }
    std::vector<Entry> entries;
    ASSERT_TRUE(ReadArchive(archive, &entries));
    std::vector<std::string> names = Names(entries);
    ASSERT_EQ(names.size(), 3u);
    std::sort(names.begin(), names.begin() + 2);
    EXPECT_EQ(names, (std::vector<std::string>{"logs/a.txt", "sub/b.bin", "cap.txt"}));
    EXPECT_EQ(Find(entries, "sub/b.bin")->content, binary_);
    EXPECT_EQ(Find(entries, "cap.txt")->content, "capture");
    EXPECT_TRUE(capture.Contains("[FlushFilesIfNeeded] relativePath before getTailPath: sub/b.bin",
                                 kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(capture.Contains(
        "[AddFileContentToZip] Adding File To Zip, file path: " + logs_ + "/sub/b.bin", kTag,
        ANDROID_LOG_DEBUG));
}

TEST_F(ZipFileTest, EmptyArchivesCloseTwiceAndCreateFailures) {
    platform::LogCapture capture;
    const std::string archive = tmp_.Sub("empty.zip");
    // An existing file is replaced, not appended to.
    ASSERT_TRUE(WriteFile(archive, "not a zip at all"));
    ZipFile zip({}, 0);
    ASSERT_TRUE(zip.create(archive));
    EXPECT_TRUE(zip.close());
    EXPECT_FALSE(capture.Contains("zipfile already closed!"));
    EXPECT_TRUE(zip.close());
    EXPECT_TRUE(capture.Contains("[close] zipfile already closed!", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(IsEmptyArchive(archive));
    EXPECT_NE(RunShell("unzip -l '" + archive + "' 2>&1").find("zipfile is empty"),
              std::string::npos);

    ZipFile nowhere({tmp_.Sub("single.txt")}, 0);
    EXPECT_FALSE(nowhere.create(tmp_.Sub("no/such/dir/x.zip")));
    EXPECT_TRUE(capture.Contains(
        "[create] Couldn't create ZIP file at path " + tmp_.Sub("no/such/dir/x.zip"), kTag,
        ANDROID_LOG_ERROR));
    EXPECT_TRUE(nowhere.close());  // nothing open
}

TEST_F(ZipFileTest, MissingPathIsAFailureButTheArchiveIsFinished) {
    platform::LogCapture capture;
    const std::string archive = tmp_.Sub("missing.zip");
    const std::string missing = tmp_.Sub("gone.log");
    {
        ZipFile zip({missing}, 0);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_FALSE(zip.close());
    }
    EXPECT_TRUE(capture.Contains("[AddFileContentToZip] file not exist " + missing, kTag,
                                 ANDROID_LOG_WARN));
    EXPECT_TRUE(capture.Contains("[FlushFilesIfNeeded] Failed to write file " + missing, kTag,
                                 ANDROID_LOG_ERROR));
    EXPECT_TRUE(capture.Contains("[close] force flush files failed", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(IsEmptyArchive(archive));

    // Among good paths the same miss is only logged: a partial archive is fine.
    capture.Clear();
    ASSERT_EQ(symlink("/nonexistent/target", (logs_ + "/dangling").c_str()), 0);
    {
        ZipFile zip({missing, tmp_.Sub("single.txt"), logs_}, 2);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_TRUE(zip.close());
    }
    EXPECT_EQ(capture.Count("Failed to write file", kTag), 2u);
    EXPECT_FALSE(capture.Contains("force flush files failed"));
    std::vector<Entry> entries;
    ASSERT_TRUE(ReadArchive(archive, &entries));
    EXPECT_EQ(entries.size(), 3u);
}

TEST_F(ZipFileTest, ManyPathsAreWrittenInOrderAcrossBatches) {
    std::vector<std::string> paths;
    for (int i = 0; i < 123; ++i) {
        const std::string path = tmp_.Sub("f" + std::to_string(i) + ".log");
        ASSERT_TRUE(WriteFile(path, "content " + std::to_string(i)));
        paths.push_back(path);
    }
    paths.insert(paths.begin() + 60, tmp_.Sub("absent.log"));
    const std::string archive = tmp_.Sub("many.zip");
    {
        ZipFile zip(paths, 1);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_TRUE(zip.close());
    }
    std::vector<Entry> entries;
    ASSERT_TRUE(ReadArchive(archive, &entries));
    ASSERT_EQ(entries.size(), 123u);
    for (int i = 0; i < 123; ++i) {
        EXPECT_EQ(entries[i].name, "f" + std::to_string(i) + ".log");
        EXPECT_EQ(entries[i].content, "content " + std::to_string(i));
    }
    EXPECT_TRUE(UnzipTestPasses(archive));
}

TEST_F(ZipFileTest, DestructorAndSecondCreateFinishTheOpenArchive) {
    const std::string first = tmp_.Sub("first.zip");
    const std::string second = tmp_.Sub("second.zip");
    {
        ZipFile zip({tmp_.Sub("single.txt")}, 1);
        ASSERT_TRUE(zip.create(first));
        // Creating again closes the first archive, pending paths and all.
        ASSERT_TRUE(zip.create(second));
    }
    std::vector<Entry> entries;
    ASSERT_TRUE(ReadArchive(first, &entries));
    EXPECT_EQ(Names(entries), std::vector<std::string>{"single.txt"});
    EXPECT_TRUE(IsEmptyArchive(second));

    // Never closed by its owner: the destructor writes the pending paths.
    const std::string third = tmp_.Sub("third.zip");
    {
        ZipFile zip({logs_ + "/a.txt"}, 1);
        ASSERT_TRUE(zip.create(third));
    }
    entries.clear();
    ASSERT_TRUE(ReadArchive(third, &entries));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].content, text_);
}
