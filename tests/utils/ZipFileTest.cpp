#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <unzip.h>

#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/Bytes.h"
#include "tests/support/TempDir.h"
#include "utils/ZipFile.h"

using namespace tarnis_test;
using velmar::kolto::ZipFile;

namespace {

struct Entry {
    std::string name, content;
    unz_file_info64 info {};
};

// Reads an archive back with minizip, checking each CRC; an empty one (which minizip cannot open) by its bytes.
std::vector<Entry> ReadArchive(const std::string& path) {
    std::vector<Entry> entries;
    if (ReadFile(path) == std::string("PK\x05\x06", 4) + std::string(18, '\0')) return entries;
    unzFile zip = unzOpen64(path.c_str());
    int rc = zip == nullptr ? UNZ_BADZIPFILE : unzGoToFirstFile(zip);
    for (; rc == UNZ_OK; rc = unzGoToNextFile(zip)) {
        Entry entry;
        char name[1024], buffer[65536];
        if (unzGetCurrentFileInfo64(zip, &entry.info, name, sizeof(name), nullptr, 0, nullptr, 0) ||
            unzOpenCurrentFile(zip) != UNZ_OK) {
            break;
        }
        entry.name = name;
        int got;
        while ((got = unzReadCurrentFile(zip, buffer, sizeof(buffer))) > 0) entry.content.append(buffer, got);
        if (got != 0 || unzCloseCurrentFile(zip) != UNZ_OK) break;
        entries.push_back(entry);
    }
    if (zip != nullptr) unzClose(zip);
    EXPECT_EQ(rc, UNZ_END_OF_LIST_OF_FILE) << path << " is no whole archive";
    return entries;
}

std::vector<std::string> SortedNames(const std::vector<Entry>& entries) {
    std::vector<std::string> names;
    for (const Entry& entry : entries) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    return names;
}

class ZipFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* dir : {"logs", "logs/sub", "logs/empty"}) ASSERT_EQ(mkdir(tmp_.Sub(dir).c_str(), 0755), 0);
        binary_ = RandomBytes(300 * 1024 + 17, 7);  // several read chunks, incompressible
        ASSERT_TRUE(WriteFile(tmp_.Sub("logs/a.txt"), "alpha\n"));
        ASSERT_TRUE(WriteFile(tmp_.Sub("logs/sub/b.bin"), binary_));
        ASSERT_TRUE(WriteFile(tmp_.Sub("single.txt"), "single"));
    }
    // How depth 0 names an entry: the full path less its leading "/".
    std::string Rel(const std::string& relative) const { return tmp_.Sub(relative).substr(1); }
    // Packs `paths` into out.zip, read back into entries_ and missing_; returns close()'s result.
    bool Pack(std::vector<std::string> paths, int depth) {
        const std::string archive = tmp_.Sub("out.zip");
        bool closed;
        missing_.clear();
        {
            ZipFile zip(std::move(paths), depth);
            EXPECT_TRUE(zip.create(archive));
            closed = zip.close();
            for (const velmar::kolto::ZipMissing& m : zip.missing()) missing_.push_back(m.path + ": " + m.why);
        }
        entries_ = ReadArchive(archive);
        // A second reader of its own, the unzip tool, for every archive with entries.
        if (entries_.empty()) return closed;
        EXPECT_EQ(RunShell("unzip -tqq " + archive + " >/dev/null 2>&1; echo $?"), "0\n");
        return closed;
    }

    TempDir tmp_;
    std::string binary_;
    platform::LogCapture capture_;
    std::vector<Entry> entries_;
    std::vector<std::string> missing_;
};

}  // namespace

TEST_F(ZipFileTest, DepthZeroNamesByFullPathWithDirectoryEntries) {
    const time_t now = time(nullptr);
    EXPECT_TRUE(Pack({tmp_.Sub("logs"), tmp_.Sub("single.txt"), tmp_.Sub("logs/empty")}, 0));
    EXPECT_TRUE(missing_.empty());
    ASSERT_EQ(entries_.size(), 5u);
    // A directory's entry, then its files; subdirectories get none, an empty directory only its own.
    std::vector<std::string> names;
    for (const Entry& entry : entries_) names.push_back(entry.name);
    if (names[1] != Rel("logs/a.txt")) std::swap(names[1], names[2]);
    EXPECT_EQ(names, (std::vector<std::string>{Rel("logs/"), Rel("logs/a.txt"), Rel("logs/sub/b.bin"),
                                               Rel("single.txt"), Rel("logs/empty/")}));
    EXPECT_EQ(entries_[entries_[1].name == Rel("logs/a.txt") ? 2 : 1].content, binary_);
    // UTF-8 names, deflate, and the local time of packing as the date.
    struct tm local {};
    localtime_r(&now, &local);
    for (const Entry& entry : entries_) {
        EXPECT_NE(entry.info.flag & (1u << 11), 0u) << entry.name;
        EXPECT_EQ(entry.info.compression_method, 8u);
        EXPECT_EQ(entry.info.tmu_date.tm_year, unsigned(local.tm_year + 1900));
        EXPECT_EQ(entry.info.tmu_date.tm_mon, unsigned(local.tm_mon));
        EXPECT_EQ(entry.info.tmu_date.tm_mday, unsigned(local.tm_mday));
    }
}

TEST_F(ZipFileTest, CloseTwiceCreateAgainAndTheDestructorFinishWhatIsOpen) {
    ASSERT_TRUE(WriteFile(tmp_.Sub("second.zip"), "not a zip at all"));  // replaced, not appended to
    {
        ZipFile zip({tmp_.Sub("single.txt")}, 1);
        ASSERT_TRUE(zip.create(tmp_.Sub("first.zip")));
        ASSERT_TRUE(zip.create(tmp_.Sub("second.zip")));  // closes the first, paths and all
        EXPECT_TRUE(zip.close());
        EXPECT_FALSE(capture_.Contains("zipfile already closed!"));
        EXPECT_TRUE(zip.close());
        EXPECT_TRUE(capture_.HasLine("[close] zipfile already closed!", "Tarnis-ZipFile"));
        EXPECT_FALSE(zip.create(tmp_.Sub("no/such/x.zip")));
        EXPECT_TRUE(capture_.HasLine("[create] Couldn't create ZIP file at path " + tmp_.Sub("no/such/x.zip")));
        ZipFile forgotten({tmp_.Sub("logs/a.txt")}, 1);
        ASSERT_TRUE(forgotten.create(tmp_.Sub("third.zip")));  // never closed by its owner
    }
    EXPECT_EQ(SortedNames(ReadArchive(tmp_.Sub("first.zip"))), std::vector<std::string>{"single.txt"});
    EXPECT_TRUE(ReadArchive(tmp_.Sub("second.zip")).empty());
    const std::vector<Entry> third = ReadArchive(tmp_.Sub("third.zip"));
    ASSERT_EQ(third.size(), 1u);
    EXPECT_EQ(third[0].content, "alpha\n");

    // Nothing but misses: close() fails, and still finishes the archive.
    const std::string missing = tmp_.Sub("gone.log");
    EXPECT_FALSE(Pack({missing}, 0));
    EXPECT_TRUE(entries_.empty());
    EXPECT_TRUE(capture_.HasLine("[AddFileContentToZip] file not exist " + missing));
    EXPECT_TRUE(capture_.HasLine("[FlushFilesIfNeeded] Failed to write file " + missing));
    EXPECT_TRUE(capture_.HasLine("[close] force flush files failed"));
}

// What cannot or must not be packed (links, a FIFO, a failing read) is logged and skipped; the rest is packed.
TEST_F(ZipFileTest, TailDepthSkipsAndLogsWhatCannotBePacked) {
    for (const char* dir : {"online", "outside"}) ASSERT_EQ(mkdir(tmp_.Sub(dir).c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(tmp_.Sub("online/cap.txt"), "capture"));
    ASSERT_TRUE(WriteFile(tmp_.Sub("outside/secret"), "secret"));
    ASSERT_EQ(symlink(tmp_.Sub("outside/secret").c_str(), tmp_.Sub("logs/to_file").c_str()), 0);
    ASSERT_EQ(symlink(tmp_.Sub("outside").c_str(), tmp_.Sub("logs/sub/to_dir").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent/target", tmp_.Sub("logs/dangling").c_str()), 0);
    ASSERT_EQ(symlink(tmp_.Sub("outside/secret").c_str(), tmp_.Sub("listed").c_str()), 0);
    ASSERT_EQ(mkfifo(tmp_.Sub("fifo").c_str(), 0600), 0);
    // The packager's doubled slash keeps a capture's bare name; /proc/self/mem fails to read with EIO.
    EXPECT_TRUE(Pack({tmp_.Sub("gone.log"), tmp_.Sub("logs"), tmp_.Sub("online//cap.txt"), tmp_.Sub("listed"),
                      tmp_.Sub("fifo"), "/proc/self/mem"}, 2));
    // Only the file that failed to read is missing: links, the fifo and a vanished file are skipped by design.
    EXPECT_EQ(missing_, std::vector<std::string>{"/proc/self/mem: read failed: Input/output error"});
    EXPECT_EQ(SortedNames(entries_), (std::vector<std::string>{"cap.txt", "logs/a.txt", "self/mem", "sub/b.bin"}));
    EXPECT_EQ(entries_[2].content, "capture");
    EXPECT_EQ(entries_[3].content, "");
    EXPECT_EQ(capture_.Count("Failed to write file"), 7u);
    EXPECT_TRUE(capture_.HasLine("[AddFileContentToZip] " + tmp_.Sub("listed") + " is a symbolic link, not followed"));
    EXPECT_TRUE(capture_.HasLine("[AddFileContentToZip] open file " + tmp_.Sub("fifo") +
                                 " failed, the reason is Invalid argument"));
    EXPECT_TRUE(capture_.HasLine("[AddFileContentToZip] read file /proc/self/mem failed, the reason is "
                                 "Input/output error"));
    EXPECT_TRUE(capture_.HasLine("[FlushFilesIfNeeded] relativePath before getTailPath: sub/b.bin", "Tarnis-ZipFile",
                                 ANDROID_LOG_DEBUG));
}

TEST_F(ZipFileTest, ManyFilesOfManyBlocksKeepTheirOrderAndBytes) {
    // Text and noise in turn across blocks, so that deflate reaches back across each cut.
    std::mt19937 gen(11);
    std::string mixed;
    for (int round = 0; round < 9; ++round) {
        for (int line = 0; line < 3000; ++line) {
            mixed += "11-23 10:00:0" + std::to_string(gen() % 10) + " I Thermal: zone " +
                     std::to_string(gen() % 40) + " temp " + std::to_string(gen() % 90000) + "\n";
        }
        mixed += binary_.substr(gen() % 1000, 40 * 1024);
    }
    // Every tenth is large (small ones after it deflate first); one is of exactly two blocks, one empty.
    std::vector<std::string> paths, contents;
    for (int i = 0; i < 123; ++i) {
        paths.push_back(tmp_.Sub("f" + std::to_string(i)));
        contents.push_back(i == 0    ? mixed
                           : i == 10 ? mixed.substr(0, 512 * 1024)
                           : i == 20 ? ""
                                     : "content " + std::to_string(i) + (i % 10 == 0 ? binary_ + binary_ : ""));
        ASSERT_TRUE(WriteFile(paths.back(), contents.back()));
    }
    paths.insert(paths.begin() + 60, tmp_.Sub("absent"));
    EXPECT_TRUE(Pack(paths, 1));  // the reader checks every CRC
    ASSERT_EQ(entries_.size(), 123u);
    for (int i = 0; i < 123; ++i) {
        EXPECT_EQ(entries_[i].name, "f" + std::to_string(i));
        EXPECT_TRUE(entries_[i].content == contents[i]) << i;
    }
    EXPECT_LT(entries_[0].info.compressed_size, mixed.size() / 2);  // deflated, not stored
}

TEST_F(ZipFileTest, AGrowingFileGetsTheBytesReadWithTheirCrc) {
    const std::string log = tmp_.Sub("logs/growing.log");
    const std::string line = std::string(99, 'x') + "\n";
    std::string start;
    for (int i = 0; i < 20000; ++i) start += line;  // 2 MB to start with
    ASSERT_TRUE(WriteFile(log, start));
    std::atomic<bool> stop{false};
    std::thread appender([&] {
        std::ofstream out(log, std::ios::app);
        // At most 10 s of growth, so that a packer chasing the end still ends.
        for (int i = 0; i < 50000 && !stop; ++i) {
            out << line << std::flush;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const bool packed = Pack({log}, 1);
    stop = true;
    appender.join();
    EXPECT_TRUE(packed);
    ASSERT_EQ(entries_.size(), 1u);  // read back with its CRC checked
    EXPECT_GE(entries_[0].content.size(), 20000u * line.size());
    EXPECT_EQ(entries_[0].content, ReadFile(log).substr(0, entries_[0].content.size()));
}

TEST_F(ZipFileTest, TheArchiveAppearsWholeOrNotAtAll) {
    // A link planted at the archive's name is replaced, its target untouched.
    const std::string archive = tmp_.Sub("out.zip");
    ASSERT_TRUE(WriteFile(tmp_.Sub("victim"), "keep me"));
    ASSERT_EQ(symlink(tmp_.Sub("victim").c_str(), archive.c_str()), 0);
    {
        ZipFile zip({tmp_.Sub("single.txt")}, 1);
        ASSERT_TRUE(zip.create(archive));
        EXPECT_EQ(ReadFile(archive), "keep me");  // nothing under the final name until it is finished
        EXPECT_TRUE(zip.close());
    }
    EXPECT_EQ(ReadFile(tmp_.Sub("victim")), "keep me");
    EXPECT_EQ(SortedNames(ReadArchive(archive)), std::vector<std::string>{"single.txt"});
    const std::vector<std::string> withArchive = {"logs", "out.zip", "single.txt", "victim"};
    EXPECT_EQ(ListDir(tmp_.path()), withArchive);

    // A write failing at the file size limit: the destructor leaves neither archive nor temporary file.
    ASSERT_EQ(unlink(archive.c_str()), 0);
    struct rlimit saved {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const sighandler_t previous = signal(SIGXFSZ, SIG_IGN);
    const struct rlimit small = {64 * 1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_TRUE(ZipFile({tmp_.Sub("logs/sub/b.bin")}, 1).create(archive));  // never closed
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, previous);
    EXPECT_TRUE(capture_.HasLine("[~ZipFile] close zip file failed while destructing!!"));
    EXPECT_EQ(ListDir(tmp_.path()), (std::vector<std::string>{"logs", "single.txt", "victim"}));

    // A directory at the name is refused at once.
    ASSERT_EQ(mkdir(archive.c_str(), 0755), 0);
    ZipFile zip({tmp_.Sub("single.txt")}, 1);
    EXPECT_FALSE(zip.create(archive));
    EXPECT_EQ(ListDir(tmp_.path()), withArchive);
}
