#include "qsNFSBrowse.h"

#include <gtest/gtest.h>

using qsNFSUtils::DirEntry;

// A fresh entry is marked, of no known type, with a zero-filled handle; its
// find data is cleared whole first, and a name that does not fit is refused.
TEST(DirEntry, StartsUnknownAndCopiesToFindData) {
    DirEntry e;
    EXPECT_EQ(e.m_Mark, 0xFEFFFEFFu);
    EXPECT_EQ(e.m_Type, 8u);
    EXPECT_EQ(std::string(e.m_Handle, e.m_Handle + sizeof e.m_Handle), std::string(128, '\0'));

    e.m_Path = "/export/dir/name.txt";
    e.m_Type = qsNFSUtils::eTypeRegular;
    e.m_Size = 0x123456789ull;
    e.m_LastAccessTime = {1, 2};
    e.m_LastWriteTime = {3, 4};
    WIN32_FIND_DATAA data;
    memset(&data, 0xA5, sizeof data);
    ASSERT_EQ(e.CopyToWin32FindData(&data), 0u);
    EXPECT_EQ(data.dwFileAttributes, 0u);
    EXPECT_EQ(data.nFileSizeHigh, 1u);
    EXPECT_EQ(data.nFileSizeLow, 0x23456789u);
    EXPECT_EQ(data.ftLastAccessTime.dwLowDateTime, 1u);
    EXPECT_EQ(data.ftLastWriteTime.dwHighDateTime, 4u);
    EXPECT_EQ(data.ftCreationTime.dwLowDateTime, 0u);
    EXPECT_STREQ(data.cFileName, "name.txt");

    e.m_Type = qsNFSUtils::eTypeDirectory;
    e.m_Path = "/export";
    ASSERT_EQ(e.CopyToWin32FindData(&data), 0u);
    EXPECT_EQ(data.dwFileAttributes, 0x10u);
    EXPECT_STREQ(data.cFileName, "export");

    EXPECT_EQ(e.CopyToWin32FindData(nullptr), 0x80000003u);
    // 259 characters fit with their terminator, 260 do not
    e.m_Path = "/x/" + std::string(259, 'n');
    EXPECT_EQ(e.CopyToWin32FindData(&data), 0u);
    e.m_Path = "/x/" + std::string(260, 'n');
    EXPECT_EQ(e.CopyToWin32FindData(&data), 0xE0FF0109u);
}
