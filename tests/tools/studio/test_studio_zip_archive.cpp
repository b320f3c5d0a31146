// The studio's ZIP downloads: stored entries any unzip tool reads, with
// their CRC-32 and the central directory that points at them.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <zlib.h>

#include "studio/zip_archive.h"

using ostrel_tool::studio::ZipArchive;

namespace {

uint32_t u32(const std::string &s, size_t at) {
    return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}
uint32_t u16(const std::string &s, size_t at) {
    return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8;
}

}  // namespace

TEST(StudioZipArchive, EntriesAreStoredWithTheirCrcAndFoundThroughTheCentralDirectory) {
    ZipArchive zip;
    zip.add("a.xml", "<annotation/>");
    zip.add("classes.txt", "RBC\nWBC\n");
    zip.add("empty.txt", "");
    const std::string bytes = zip.bytes();
    // The end record: the last 22 bytes.
    const size_t end = bytes.size() - 22;
    ASSERT_EQ(u32(bytes, end), 0x06054b50u);
    EXPECT_EQ(u16(bytes, end + 10), 3u);
    size_t central = u32(bytes, end + 16);
    EXPECT_EQ(u32(bytes, end + 12), end - central);
    const char *names[] = {"a.xml", "classes.txt", "empty.txt"};
    const char *contents[] = {"<annotation/>", "RBC\nWBC\n", ""};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(u32(bytes, central), 0x02014b50u);
        const uint32_t name_length = u16(bytes, central + 28);
        EXPECT_EQ(bytes.substr(central + 46, name_length), names[i]);
        const uint32_t local = u32(bytes, central + 42);
        ASSERT_EQ(u32(bytes, local), 0x04034b50u);
        EXPECT_EQ(u16(bytes, local + 8), 0u);  // stored
        const uint32_t size = u32(bytes, local + 18);
        const std::string content = bytes.substr(local + 30 + u16(bytes, local + 26), size);
        EXPECT_EQ(content, contents[i]);
        const uint32_t crc =
            static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef *>(content.data()),
                                        static_cast<uInt>(content.size())));
        EXPECT_EQ(u32(bytes, local + 14), crc);
        EXPECT_EQ(u32(bytes, central + 16), crc);
        central += 46 + name_length;
    }
}

TEST(StudioZipArchive, AnEmptyArchiveIsTheEndRecordAlone) {
    const std::string bytes = ZipArchive().bytes();
    ASSERT_EQ(bytes.size(), 22u);
    EXPECT_EQ(u32(bytes, 0), 0x06054b50u);
}
