#pragma once

#include "helpers.h"
#include <common/descriptor.h>

#include <zu3/fs.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/** A folder that is gone at the end of its test. */
class Files : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(mkdtemp(folder_.data())); }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::string path(const char* name) const { return folder_ + "/" + name; }
    u32 open(const char* name, const char* mode) const
    {
        return ZU_FS_Fopen(path(name).c_str(), mode);
    }

    std::string folder_ = testing::TempDir() + "files_test_XXXXXX";
};
