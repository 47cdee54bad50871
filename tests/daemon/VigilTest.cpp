// The plug-in host with real shared libraries.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "daemon/Vigil.h"
#include "tests/support/ToolRunner.h"

using android::sp;

namespace {

std::string libPath(const std::string& name) {
    return qmedtest::binDir() + "/" + name;
}

TEST(Vigil, RunsTheEntryOnceAndUnloadsTheLibrary) {
    const std::string lib = libPath("libvigild_test.so");
    char marker[] = "/tmp/qmed-vigil-XXXXXX";
    int fd = mkstemp(marker);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("VIGIL_TEST_MARKER", marker, 1);
    qmed::host::LogCapture logs;

    sp<Vigil> vigil = new Vigil(lib.c_str());
    vigil->start();
    ASSERT_EQ(android::NO_ERROR, vigil->join());

    EXPECT_EQ("vigild_main ran\n", qmedtest::readFile(marker));
    EXPECT_EQ(1u, logs.count("I/Qmed-Vigil: vigild_main begin"));
    EXPECT_EQ(0u, logs.count("E/Qmed-Vigil"));
    EXPECT_FALSE(vigil->isRunning());
    EXPECT_EQ(nullptr, dlopen(lib.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    unsetenv("VIGIL_TEST_MARKER");
    unlink(marker);
}

TEST(Vigil, MissingLibraryLogsOneErrnoLine) {
    qmed::host::LogCapture logs;
    sp<Vigil> vigil = new Vigil();  // libvigild.so is on no search path of the tests
    vigil->start();
    ASSERT_EQ(android::NO_ERROR, vigil->join());
    ASSERT_EQ(1u, logs.count("E/Qmed-Vigil"));
    EXPECT_TRUE(logs.contains("E/Qmed-Vigil: not find libvigild.so err:"));
    EXPECT_FALSE(logs.contains("vigild_main begin"));
}

TEST(Vigil, LibraryWithoutEntryIsClosedAgain) {
    const std::string lib = libPath("libvigild_noentry.so");
    qmed::host::LogCapture logs;
    sp<Vigil> vigil = new Vigil(lib.c_str());
    vigil->start();
    ASSERT_EQ(android::NO_ERROR, vigil->join());
    EXPECT_EQ(1u, logs.count("E/Qmed-Vigil: dlsym err:"));
    EXPECT_TRUE(logs.contains("vigild_main"));
    EXPECT_FALSE(logs.contains("vigild_main begin"));
    EXPECT_EQ(nullptr, dlopen(lib.c_str(), RTLD_LAZY | RTLD_NOLOAD));
}

TEST(Vigil, SingletonIsCreatedOnce) {
    sp<Vigil> a = Vigil::getInstance();
    sp<Vigil> b = Vigil::getInstance();
    EXPECT_NE(nullptr, a.get());
    EXPECT_EQ(a.get(), b.get());
}

}  // namespace
