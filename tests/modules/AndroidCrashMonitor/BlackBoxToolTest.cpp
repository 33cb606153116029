#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/modules/AndroidCrashMonitor/BlackBoxTestHelpers.h"
#include "tests/support/TempDir.h"
#include "utils/BlackBoxLayout.h"
#include "utils/Cryptography.h"

namespace {

namespace bb = velmar::kolto::blackbox;
namespace crypto = velmar::kolto::cryptography;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using namespace blackbox_test;

// tarnis-blackbox run as a child on images made here byte by byte.
class BlackBoxToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        image_ = dir_.Sub("blackbox.img");
        tarnis_test::WriteFile(image_, "");
        ASSERT_EQ(truncate(image_.c_str(), kPartitionBytes), 0);
    }

    std::string Tool(const std::string& args, int* status) {
        return RunShell(std::string(TARNIS_BUILD_DIR) + "/tarnis-blackbox " + args + " 2>&1", status);
    }

    // A container as the daemon builds it, made with the encryption helpers.
    static std::string Container(const std::string& plain) {
        tarnis_test::TempDir tmp;
        tarnis_test::WriteFile(tmp.Sub("in"), plain);
        const int in = open(tmp.Sub("in").c_str(), O_RDONLY | O_CLOEXEC);
        const int out = open(tmp.Sub("out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        unsigned char key[32];
        crypto::generate_aes256_key(key);
        EXPECT_EQ(crypto::aes_encrypt_file(in, out, key), static_cast<int64_t>((plain.size() + 15) / 16 * 16));
        close(in);
        close(out);
        unsigned char* wrapped = nullptr;
        EXPECT_EQ(crypto::rsa_pub_encrypt_byte(key, &wrapped, 32), 256);
        std::string sizes(32, '\0');
        const std::string plainSize = std::to_string(plain.size());
        const std::string padded = std::to_string((plain.size() + 15) / 16 * 16);
        sizes.replace(0, plainSize.size(), plainSize);
        sizes.replace(16, padded.size(), padded);
        std::string container = sizes + ReadFile(tmp.Sub("out")) + std::string(reinterpret_cast<char*>(wrapped), 256);
        free(wrapped);
        return container;
    }

    // Headers as a version-2 partition has them, and one database in slot 0.
    void WriteValidImage(const std::string& name, const std::string& plain) {
        table_ = {};
        table_.magic = bb::kLogTableMagic;
        table_.versionCode = 0x2000;
        table_.headerOffset = 0x400;
        table_.historyItemValue = 1;
        table_.crashHistoryBase4k = 0x9800000;
        table_.fwMinidumpOffset = 0x5C00400;
        blackbox_test::WriteRecordAt(image_, bb::kLogTableHeaderOffset, table_);
        const std::string container = Container(plain);
        fw_ = {};
        fw_.magic = bb::kFwMinidumpMagic;
        fw_.index = 1;
        fw_.filled = 1;
        fw_.nextPosition = static_cast<uint32_t>(bb::kFwAreaStart + container.size());
        fw_.position[0] = bb::kFwAreaStart;
        fw_.size[0] = container.size() - 288;
        strncpy(fw_.name[0], name.c_str(), sizeof(fw_.name[0]) - 1);
        WriteFwHeader(fw_);
        WriteBytes(image_, bb::kFwAreaStart, container.data(), container.size());
    }
    void WriteFwHeader(const bb::FwMinidumpHeader& fw) {
        blackbox_test::WriteRecordAt(image_, bb::kFwMinidumpHeaderOffset, fw);
    }

    // The tool's verdict on the image: exit status 1 and exactly this reason.
    void ExpectRefused(const std::string& reason) {
        int status = -1;
        const std::string out = Tool(image_, &status);
        EXPECT_EQ(status, 1) << out;
        EXPECT_EQ(out, "tarnis-blackbox: " + image_ + ": damaged image: " + reason + "\n");
    }

    tarnis_test::TempDir dir_;
    std::string image_;
    bb::LogTableHeader table_{};
    bb::FwMinidumpHeader fw_{};
};

TEST_F(BlackBoxToolTest, CommandLineAndAnImageWithoutHeaders) {
    int status = -1;
    EXPECT_EQ(Tool("--help", &status).rfind("usage: tarnis-blackbox [--json] IMAGE\n", 0), 0u);
    EXPECT_EQ(status, 0);
    std::string out = Tool("--verbose " + image_, &status);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(out.rfind("tarnis-blackbox: unknown option --verbose\nusage:", 0), 0u) << out;
    out = Tool(image_ + " extract --out " + dir_.path(), &status);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(out.rfind("tarnis-blackbox: extract needs --key and --out\n", 0), 0u) << out;
    EXPECT_EQ(Tool("", &status).rfind("tarnis-blackbox: no image given\n", 0), 0u);
    EXPECT_EQ(status, 2);

    out = Tool(image_, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "image: " + image_ +
                           " (199229440 bytes, partition version 2)\nnot initialised: no log table header yet\n"
                           "boot monitor: no failure recorded\nOTA records: not initialised\n");
    out = Tool("--json " + image_, &status);
    EXPECT_NE(out.find("\"initialised\" : false,"), std::string::npos) << out;
    EXPECT_EQ(out.find("\"firmware_databases\""), std::string::npos) << out;

    // The OTA monitor may fill its zone before any crash lays down the log
    // table: the records show all the same.
    bb::OtaRecordZone zone{};
    zone.magic = bb::kOtaMagic;
    zone.versionCode = 8192;
    zone.nextIndex = 1;
    zone.updateCount = 1;
    strcpy(zone.packageName[0], "ota-1.zip");
    blackbox_test::WriteRecordAt(image_, bb::kOtaZoneOffset, zone);
    out = Tool(image_, &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("not initialised: no log table header yet\n"), std::string::npos) << out;
    EXPECT_NE(out.find("OTA records: 1 of 10, next index 1\n  record 0: ota-1.zip,"), std::string::npos) << out;
}

TEST_F(BlackBoxToolTest, BootFailureAndOtaRecordsAreShown) {
    WriteValidImage("db.fatal.00.NE", RandomBytes(10, 3));
    bb::BootMonitorHeader boot{};
    boot.identifier = bb::kBootFailIdentifier;
    boot.bootIndex = 3;
    boot.currentError = 901005303;
    blackbox_test::WriteRecordAt(image_, bb::kBootMonitorHeaderOffset, boot);
    bb::OtaRecordZone zone{};
    zone.magic = bb::kOtaMagic;
    zone.versionCode = 8192;
    zone.nextIndex = 1;
    zone.updateCount = 1;
    zone.isDebuggable[0] = 1;
    strcpy(zone.packageName[0], "ota-2.zip");
    strcpy(zone.srcBuild[0], "100");
    strcpy(zone.tgtBuild[0], "200");
    strcpy(zone.srcSlot[0], "_a");
    strcpy(zone.tgtSlot[0], "_b");
    strcpy(zone.startTime[0], "2026-01-01 10:00:00");
    strcpy(zone.endTime[0], "2026-01-01 10:20:00");
    strcpy(zone.mergedTime[0], "2026-01-01 10:30:00");
    blackbox_test::WriteRecordAt(image_, bb::kOtaZoneOffset, zone);
    int status = -1;
    const std::string out = Tool(image_, &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("boot monitor: failure 901005303 in boot 3, not reported\n"), std::string::npos) << out;
    EXPECT_NE(out.find("OTA records: 1 of 10, next index 1\n  record 0: ota-2.zip, 100 (_a) -> 200 (_b), debuggable 1, "
                       "start 2026-01-01 10:00:00, end 2026-01-01 10:20:00, merged 2026-01-01 10:30:00\n"),
              std::string::npos)
            << out;

    memset(zone.tgtSlot[0], 'b', sizeof(zone.tgtSlot[0]));
    blackbox_test::WriteRecordAt(image_, bb::kOtaZoneOffset, zone);
    ExpectRefused("OTA record 0: a text field is not terminated");
}

TEST_F(BlackBoxToolTest, DamagedImagesAreRefusedWithTheirReason) {
    WriteValidImage("db.fatal.00.NE", RandomBytes(100, 1));
    int status = -1;
    const std::string out = Tool(image_, &status);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("  slot 0: db.fatal.00.NE at 0x5c00c00, 100 bytes (112 encrypted)\n"), std::string::npos);
    EXPECT_NE(out.find("crash history: not initialised\n"), std::string::npos) << out;

    bb::FwMinidumpHeader fw = fw_;
    fw.position[1] = bb::kFwAreaEnd - 200;
    fw.size[1] = 16;
    WriteFwHeader(fw);
    ExpectRefused("firmware-database slot 1: container at 0x97ffb38 of 16 bytes lies outside the area 0x5c00c00..0x97ffc00");

    fw = fw_;
    memset(fw.name[0], 'x', sizeof(fw.name[0]));
    WriteFwHeader(fw);
    ExpectRefused("firmware-database slot 0: the database name is not terminated");

    fw = fw_;
    fw.position[1] = bb::kFwAreaStart + 100;
    fw.size[1] = 16;
    WriteFwHeader(fw);
    // The bytes at 0x5c00c64 are ciphertext, not size fields.
    ExpectRefused("firmware-database slot 1: container at 0x5c00c64: size field 0 is not a decimal number");
    WriteFwHeader(fw_);

    WriteBytes(image_, bb::kFwAreaStart + 3, "x", 1);
    ExpectRefused("firmware-database slot 0: container at 0x5c00c00: size field 0 is not a decimal number");
    WriteBytes(image_, bb::kFwAreaStart, "90\0\0", 4);
    ExpectRefused("firmware-database slot 0: container at 0x5c00c00: plain size 90 does not round up to 112");
    WriteBytes(image_, bb::kFwAreaStart, "100\0", 4);

    bb::LogTableHeader table = table_;
    table.crashHistoryBase4k = 0xBF00000;
    blackbox_test::WriteRecordAt(image_, bb::kLogTableHeaderOffset, table);
    ExpectRefused("image is truncated: the crash history at 0xbf01000 ends beyond its 199229440 bytes");
    table.magic = 0x1234;
    blackbox_test::WriteRecordAt(image_, bb::kLogTableHeaderOffset, table);
    ExpectRefused("log table header: wrong magic 0x1234");
    blackbox_test::WriteRecordAt(image_, bb::kLogTableHeaderOffset, table_);

    ASSERT_EQ(truncate(image_.c_str(), bb::kFwAreaStart + 100), 0);
    ExpectRefused("image is truncated: firmware-database slot 0 ends beyond its 96472164 bytes");
    ASSERT_EQ(truncate(image_.c_str(), 0x420), 0);
    ExpectRefused("image is truncated: the log table header at 0x400 does not fit in its 1056 bytes");
}

TEST_F(BlackBoxToolTest, ExtractionNeverFollowsALinkAndRefusesNamesThatAreNotFileNames) {
    const std::string plain = RandomBytes(5000, 2);
    WriteValidImage("db.fatal.00.JE", plain);
    const std::string out = dir_.Sub("out");
    ASSERT_EQ(mkdir(out.c_str(), 0700), 0);
    const std::string outside = dir_.Sub("outside");
    tarnis_test::WriteFile(outside, "keep");
    ASSERT_EQ(symlink(outside.c_str(), (out + "/db.fatal.00.JE").c_str()), 0);
    int status = -1;
    std::string text = Tool(image_ + " extract --key " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem --out " + out,
                            &status);
    EXPECT_EQ(status, 0) << text;
    EXPECT_EQ(text, "slot 0: db.fatal.00.JE -> " + out + "/db.fatal.00.JE (5000 bytes)\n");
    struct stat st;
    ASSERT_EQ(lstat((out + "/db.fatal.00.JE").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(ReadFile(out + "/db.fatal.00.JE"), plain);
    EXPECT_EQ(ReadFile(outside), "keep");

    // An output directory that is a link is refused, as is a slot name with a path in it.
    ASSERT_EQ(symlink(out.c_str(), dir_.Sub("linked").c_str()), 0);
    text = Tool(image_ + " extract --key " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem --out " + dir_.Sub("linked"),
                &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(text.rfind("tarnis-blackbox: cannot open the output directory " + dir_.Sub("linked"), 0), 0u) << text;
    bb::FwMinidumpHeader fw = fw_;
    strcpy(fw.name[0], "../escape");
    WriteFwHeader(fw);
    text = Tool("--json " + image_ + " extract --key " TARNIS_SOURCE_DIR "/keys/blackbox_test_priv.pem --out " + out,
                &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("slot 0 (../escape): the slot's name is not a plain file name\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\"ok\" : false"), std::string::npos) << text;
    EXPECT_NE(access(dir_.Sub("escape").c_str(), F_OK), 0);

    // The wrong private key unwraps nothing.
    RunShell("openssl genrsa -out " + dir_.Sub("other.pem") + " 2048 2>/dev/null");
    WriteFwHeader(fw_);
    text = Tool(image_ + " extract --key " + dir_.Sub("other.pem") + " --out " + out, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("slot 0 (db.fatal.00.JE): the key does not unwrap with this private key\n"), std::string::npos)
            << text;
}

}  // namespace
