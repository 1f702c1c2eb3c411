// Where a host looks for the plug-in when it is not told: TWHOST_PLUGIN, then next to the
// executable, then the install's plug-in folder. (The installed layout itself is checked by
// the package test, which runs an installed twhost with no environment.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "twhost/plugin.h"

namespace {

using tw::host::PluginModule;

bool SameFile(const std::string& a, const std::string& b) {
    struct stat sa {}, sb {};
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(PluginPathTest, EnvironmentVariableComesFirstEvenWhenNothingIsThere) {
    setenv("TWHOST_PLUGIN", "/nonexistent/libmine.so", 1);
    EXPECT_EQ(PluginModule::DefaultPath(), "/nonexistent/libmine.so");
    unsetenv("TWHOST_PLUGIN");
}

TEST(PluginPathTest, EmptyEnvironmentVariableIsIgnored) {
    setenv("TWHOST_PLUGIN", "", 1);
    EXPECT_NE(PluginModule::DefaultPath(), "");
    unsetenv("TWHOST_PLUGIN");
}

TEST(PluginPathTest, SearchGoesFromTheExecutableToTheInstall) {
    const std::vector<std::string> paths = PluginModule::SearchPath();
    ASSERT_GE(paths.size(), 3u);
    // The test runs from the build tree's bin/: the first two are beside it and in ../lib.
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    ASSERT_GT(n, 0);
    exe[n] = '\0';
    const std::string dir = std::string(exe).substr(0, std::string(exe).rfind('/'));
    EXPECT_EQ(paths[0], dir + "/libtwdevplugin.so");
    EXPECT_EQ(paths[1], dir + "/../lib/libtwdevplugin.so");
    // Then the plug-in folder beside the host library in use, then the configured one.
    EXPECT_TRUE(EndsWith(paths[paths.size() - 2], "/twhost/plugins/libtwdevplugin.so")) << paths[paths.size() - 2];
    const std::string hostLibDir = std::string(TW_HOST_LIB_PATH).substr(0, std::string(TW_HOST_LIB_PATH).rfind('/'));
    EXPECT_EQ(paths[paths.size() - 2], hostLibDir + "/twhost/plugins/libtwdevplugin.so");
    EXPECT_EQ(paths.back(), PluginModule::InstalledPluginDir() + "/libtwdevplugin.so");
    EXPECT_TRUE(EndsWith(PluginModule::InstalledPluginDir(), "/twhost/plugins"));
    EXPECT_EQ(PluginModule::InstalledPluginDir()[0], '/');
}

TEST(PluginPathTest, WithoutTheVariableTheBuildTreesPlugInIsFound) {
    unsetenv("TWHOST_PLUGIN");
    const std::string path = PluginModule::DefaultPath();
    EXPECT_TRUE(SameFile(path, TW_PLUGIN_PATH)) << path << " is not " << TW_PLUGIN_PATH;
    std::string error;
    EXPECT_NE(PluginModule::Load(path, error), nullptr) << error;
}

TEST(PluginPathTest, HelpNamesEveryPlaceInOrder) {
    const std::string help = PluginModule::SearchOrderHelp();
    const size_t option = help.find("--plugin");
    const size_t env = help.find("TWHOST_PLUGIN");
    const size_t binary = help.find("next to the twhost binary");
    const size_t install = help.find(PluginModule::InstalledPluginDir());
    ASSERT_NE(option, std::string::npos) << help;
    ASSERT_NE(env, std::string::npos) << help;
    ASSERT_NE(binary, std::string::npos) << help;
    ASSERT_NE(install, std::string::npos) << help;
    EXPECT_LT(option, env);
    EXPECT_LT(env, binary);
    EXPECT_LT(binary, install);
}

}  // namespace
