#include "tests/modules/BootMonitor/BootMonitorFixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <host/Host.h>

namespace bootmonitor_test {

using android::base::unique_fd;

FakeSocketServer::FakeSocketServer(const std::string& name, std::function<void(int)> serve)
    : serve_(std::move(serve)) {
    const std::string path = platform::ReservedSocketPath(name);
    tarnis_test::RunShell("mkdir -p \"$(dirname '" + path + "')\"");
    unlink(path.c_str());
    listen_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(listen_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
    EXPECT_EQ(listen(listen_.get(), 4), 0);
    thread_ = std::thread([this] {
        while (!stop_.load()) {
            struct pollfd p = {listen_.get(), POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            unique_fd client(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client.ok()) continue;
            ++connections_;
            serve_(client.get());
        }
    });
}

FakeSocketServer::~FakeSocketServer() {
    stop_.store(true);
    thread_.join();
}

FakeLiteDump::FakeLiteDump(const std::string& recordPath, size_t fill)
    : fill_(fill), server_("dumpstate", [this, recordPath](int fd) {
          std::string target;
          android::base::ReadFileToString(recordPath, &target);
          android::base::WriteStringToFile(std::string(fill_.load(), 'z'), target);
          const std::string answer(255, 'k');
          android::base::WriteFully(fd, answer.data(), answer.size());
      }) {}

void BootMonitorTest::SetUp() {
    ModuleTest::SetUp();
    tarnis_test::RunShell("mkdir -p '" + Device("/cache/dorva") + "' '" + Device("/cache/recovery") + "'");
    dir_ = Device("/cache/dorva/UnhealthyBootLog/");
    countPath_ = Device("/cache/boot_flag");
    dumpRecord_ = Device("/cache/dorva/bootmonitor_log.txt");
}

void BootMonitorTest::UseRescuePartition() {
    ASSERT_TRUE(android::base::SetProperty("ro.build.ab_update", "true"));
    tarnis_test::RunShell("mkdir -p '" + Device("/mnt/rescue/dorva") + "' '" + Device("/mnt/rescue/recovery") + "'");
    dir_ = Device("/mnt/rescue/dorva/UnhealthyBootLog/");
    countPath_ = Device("/mnt/rescue/boot_flag");
    dumpRecord_ = Device("/mnt/rescue/dorva/bootmonitor_log.txt");
}

std::vector<std::string> BootMonitorTest::Captures() const {
    static const std::string kPrefix = "Capture lite bugreport complete: ";
    std::vector<std::string> names;
    for (const auto& line : log_.Lines()) {
        if (line.tag != "BootMonitor" || line.text.rfind(kPrefix, 0) != 0) continue;
        EXPECT_EQ(line.text.rfind(dir_ + "/", kPrefix.size()), kPrefix.size()) << line.text;
        names.push_back(line.text.substr(line.text.rfind('/') + 1));
    }
    return names;
}

bool BootMonitorTest::Exists(const std::string& path) const {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> BootMonitorTest::List(const std::string& dir) const {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace bootmonitor_test
