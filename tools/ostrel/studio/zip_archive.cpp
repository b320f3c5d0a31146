#include "studio/zip_archive.h"

#include <cstdint>
#include <stdexcept>

#include <zlib.h>

namespace ostrel_tool {
namespace studio {

namespace {

void put16(std::string &out, uint32_t v) {
    out.push_back(static_cast<char>(v & 0xff));
    out.push_back(static_cast<char>((v >> 8) & 0xff));
}
void put32(std::string &out, uint32_t v) {
    put16(out, v & 0xffff);
    put16(out, v >> 16);
}

constexpr uint32_t kLocalHeader = 0x04034b50;
constexpr uint32_t kCentralHeader = 0x02014b50;
constexpr uint32_t kEndOfCentral = 0x06054b50;
constexpr uint32_t kVersion = 20;                       // 2.0: stored entries and folders
constexpr uint32_t kUtf8Names = 0x0800;                 // general purpose flag 11: names are UTF-8
constexpr uint32_t kDosDate = (0 << 9) | (1 << 5) | 1;  // 1980-01-01, the format's first day
constexpr uint32_t kDosTime = 0;

}  // namespace

void ZipArchive::add(const std::string &name, const std::string &content) {
    // Without the ZIP64 extension an archive holds 65535 entries below 4 GiB.
    if (entries_.size() >= 65535 || content.size() >= 0xffffffffu || name.size() > 0xffff) {
        throw std::length_error("the archive would need ZIP64");
    }
    entries_.push_back({name, content});
}

std::string ZipArchive::bytes() const {
    std::string out;
    std::string central;
    for (const Entry &e : entries_) {
        const uint32_t offset = static_cast<uint32_t>(out.size());
        const uint32_t crc =
            static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef *>(e.content.data()),
                                        static_cast<uInt>(e.content.size())));
        const uint32_t size = static_cast<uint32_t>(e.content.size());
        put32(out, kLocalHeader);
        put16(out, kVersion);
        put16(out, kUtf8Names);
        put16(out, 0);  // stored
        put16(out, kDosTime);
        put16(out, kDosDate);
        put32(out, crc);
        put32(out, size);
        put32(out, size);
        put16(out, static_cast<uint32_t>(e.name.size()));
        put16(out, 0);
        out += e.name;
        out += e.content;

        put32(central, kCentralHeader);
        put16(central, kVersion);
        put16(central, kVersion);
        put16(central, kUtf8Names);
        put16(central, 0);
        put16(central, kDosTime);
        put16(central, kDosDate);
        put32(central, crc);
        put32(central, size);
        put32(central, size);
        put16(central, static_cast<uint32_t>(e.name.size()));
        put16(central, 0);  // extra
        put16(central, 0);  // comment
        put16(central, 0);  // disk
        put16(central, 0);  // internal attributes
        put32(central, 0);  // external attributes
        put32(central, offset);
        central += e.name;
    }
    if (out.size() + central.size() >= 0xffffffffu) {
        throw std::length_error("the archive would need ZIP64");
    }
    const uint32_t central_offset = static_cast<uint32_t>(out.size());
    out += central;
    put32(out, kEndOfCentral);
    put16(out, 0);
    put16(out, 0);
    put16(out, static_cast<uint32_t>(entries_.size()));
    put16(out, static_cast<uint32_t>(entries_.size()));
    put32(out, static_cast<uint32_t>(central.size()));
    put32(out, central_offset);
    put16(out, 0);
    return out;
}

}  // namespace studio
}  // namespace ostrel_tool
