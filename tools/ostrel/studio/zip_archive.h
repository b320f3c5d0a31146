// A ZIP archive of a few files, built in memory, for the studio's exports
// of per-picture label formats (VOC, YOLO: a file a picture) as one download.
//
// Entries are stored, not compressed: label files are a few hundred bytes
// each, and every unzip tool reads stored entries. The format is small
// enough (three records) that writing it here costs less than a new
// dependency; the CRC-32 is zlib's.
#pragma once

#include <string>
#include <vector>

namespace ostrel_tool {
namespace studio {

class ZipArchive {
public:
    // Adds a file; name is its path in the archive (UTF-8, '/' between folders).
    void add(const std::string &name, const std::string &content);
    // The whole archive.
    std::string bytes() const;
    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        std::string name;
        std::string content;
    };
    std::vector<Entry> entries_;
};

}  // namespace studio
}  // namespace ostrel_tool
