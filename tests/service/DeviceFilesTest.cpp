// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <glob.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/Utf8.h>
#include <nuvi/dorva/IDorvaNative.h>

#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/TempDir.h"
#include "utils/Paths.h"

// The device files (Android.bp, init, SELinux, VINTF) cannot be built here: only this notices a name drifting.
namespace {

namespace fs = std::filesystem;
namespace paths = velmar::kolto::paths;
using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;

const fs::path kSource(TARNIS_SOURCE_DIR);

std::string Read(const fs::path& path) {
    EXPECT_TRUE(fs::exists(path)) << path;
    return tarnis_test::ReadFile(path);
}

// The first group of every match of `pattern` in `text`, line by line; '#' begins a comment in all these files.
std::vector<std::string> Grab(const std::string& text, const std::string& pattern) {
    std::vector<std::string> out;
    const std::regex re(pattern);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t") == line.find('#')) continue;  // a comment, or blank
        for (std::sregex_iterator it(line.begin(), line.end(), re), end; it != end; ++it) out.push_back((*it)[1]);
    }
    return out;
}

// What the daemon's code names, read from a header where one holds the name, else from the sources.
struct Code {
    std::set<std::string> literals;  // every string literal of the daemon's sources
    std::set<std::string> services;  // what main registers
    std::set<std::string> ndkServices;
    std::set<std::string> controlSockets;  // what it asks init for
    std::set<std::string> devicePaths;

    Code() {
        std::string all;
        for (const char* dir : {"main", "service", "modules", "utils", "framework"}) {
            for (const auto& entry : fs::recursive_directory_iterator(kSource / dir)) {
                const std::string ext = entry.path().extension();
                if (ext == ".cpp" || ext == ".h") all += Read(entry.path()) + "\n";
            }
        }
        const std::regex literal(R"re("((?:[^"\\\n]|\\.)*)")re");
        for (std::sregex_iterator it(all.begin(), all.end(), literal), end; it != end; ++it) literals.insert((*it)[1]);
        for (const std::string& arg : Grab(all, R"(android_get_control_socket\(\s*(\w+)\s*\))")) {
            const std::vector<std::string> value = Grab(all, "\\b" + arg + R"re(\s*\[\]\s*=\s*"([^"]+)")re");
            controlSockets.insert(value.empty() ? arg : value.front());
        }
        ndkServices = {std::string(TarnisSsiImpl::descriptor) + "/default",
                       std::string(TarnisInternal::descriptor) + "/default"};
        services = ndkServices;
        services.insert(platform::ToUtf8(nuvi::dorva::IDorvaNative::descriptor));
        for (const char* path :
             {paths::kDorvaDir, paths::kOfflineDbDir, paths::kRescueBase.rescue, paths::kRescueBase.cache,
              paths::kCaptureServerDir.rescue, paths::kCaptureServerDir.cache, paths::kPersistDir, paths::kBlackbox,
              paths::kCaptureProgressDir}) {
            std::string dir = path;
            while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
            devicePaths.insert(dir);
        }
    }
};

struct DeviceFiles {
    std::vector<std::string> serviceContexts = Grab(Read(kSource / "sepolicy/private/service_contexts"), R"(^(\S+)\s)");
    // A directory's entry stands for all below it: "/data/dorva(/.*)?".
    std::vector<std::string> fileContexts =
        Grab(Read(kSource / "sepolicy/private/file_contexts"), R"(^(/\S*?)(?:\(/\.\*\)\?)?\s)");
    std::vector<std::string> properties = Grab(Read(kSource / "sepolicy/private/property_contexts"), R"(^(\S+)\s)");
    std::string rc = Read(kSource / "init/tarnisd.rc");
    std::vector<std::string> sockets = Grab(rc, R"(^\s+socket\s+(\S+)\s)");
    std::vector<std::string> mkdirs = Grab(rc, R"(^\s+mkdir\s+(\S+))");
    std::vector<std::string> executables = Grab(rc, R"(^service\s+\S+\s+(\S+))");
    std::vector<std::string> vintf;  // package.Interface/instance

    DeviceFiles() {
        const std::string xml = Read(kSource / "init/tarnisd.xml");
        const std::vector<std::string> packages = Grab(xml, R"(<name>([^<]+)</name>)");
        for (const std::string& fqname : Grab(xml, R"(<fqname>([^<]+)</fqname>)")) {
            if (packages.size() == 1) vintf.push_back(packages.front() + "." + fqname);
        }
        EXPECT_EQ(packages.size(), 1u) << "one AIDL package per fragment";
    }
};

template <typename Names>
bool Contains(const Names& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Whether `pattern` (relative to `base`, '*' within one component) names a file.
bool GlobMatches(const fs::path& base, const std::string& pattern) {
    glob_t found{};
    const bool any = glob((base / pattern).c_str(), 0, nullptr, &found) == 0 && found.gl_pathc > 0;
    globfree(&found);
    return any;
}

TEST(DeviceFilesTest, TheDeviceFilesAndTheCodeNameTheSameThings) {
    const Code code;
    const DeviceFiles files;
    // Every name in the device files is one the code uses...
    for (const std::string& name : files.serviceContexts) EXPECT_TRUE(Contains(code.services, name)) << name;
    for (const std::string& name : files.vintf) EXPECT_TRUE(Contains(code.ndkServices, name)) << name;
    for (const std::string& name : files.sockets) EXPECT_TRUE(Contains(code.controlSockets, name)) << name;
    for (const std::string& path : files.mkdirs) EXPECT_TRUE(Contains(code.devicePaths, path)) << path;

    ASSERT_EQ(files.executables.size(), 1u);
    const std::string executable = files.executables.front();
    EXPECT_NE(Read(kSource / "Android.bp").find("name: \"" + fs::path(executable).filename().string() + "\""),
              std::string::npos)
        << executable << " is built by no module";
    for (const std::string& path : files.fileContexts) {
        const bool socket = path.rfind(paths::kSocketDir, 0) == 0 &&
                            Contains(code.controlSockets, path.substr(std::string(paths::kSocketDir).size()));
        EXPECT_TRUE(Contains(code.devicePaths, path) || socket || path == executable) << path;
    }
    // A control property names a service: ctl.start$NAME.
    for (const std::string& property : files.properties) {
        const size_t dollar = property.find('$');
        EXPECT_TRUE(Contains(code.literals, property.substr(0, dollar))) << property;
        EXPECT_TRUE(dollar == std::string::npos || Contains(code.literals, property.substr(dollar + 1))) << property;
    }
    // Every source, corpus and device file the blueprints name exists.
    for (const fs::path& dir : {kSource, kSource / "aidl"}) {
        const std::string blueprint = Read(dir / "Android.bp");
        const std::vector<std::string> generated = Grab(blueprint, R"re(out: \["([^"]+)")re");
        const std::vector<std::string> named = Grab(blueprint, R"re("([\w.*-]+/[\w./*-]+)")re");
        EXPECT_FALSE(named.empty());
        for (const std::string& pattern : named) {
            EXPECT_TRUE(Contains(generated, pattern) || GlobMatches(dir, pattern)) << dir / pattern;
        }
    }

    // ...and every service and socket of the code is in the device files.
    for (const std::string& service : code.services) {
        EXPECT_TRUE(Contains(files.serviceContexts, service)) << service;
        // Only the AIDL services are VINTF instances; the classic one is registered under its bare descriptor.
        EXPECT_EQ(Contains(files.vintf, service), Contains(code.ndkServices, service)) << service;
    }
    ASSERT_FALSE(code.controlSockets.empty());
    for (const std::string& socket : code.controlSockets) {
        EXPECT_TRUE(Contains(files.sockets, socket)) << socket;
        EXPECT_TRUE(Contains(files.fileContexts, paths::kSocketDir + socket)) << socket;
    }
    EXPECT_TRUE(Contains(files.fileContexts, paths::kBlackbox));
}

}  // namespace
