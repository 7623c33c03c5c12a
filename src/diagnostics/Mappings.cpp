#include "Velik/Mappings.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unordered_map>

namespace Velik {

namespace {

constexpr size_t mapsFileNameSize = 4096;

// Guard regions between a library's segments: mapped, but never the answer
// to "where is this file mapped".
constexpr std::string_view inaccessiblePerms = "---p";

std::unordered_map<int, MappingInfos>& table() {
    static std::unordered_map<int, MappingInfos> pidMappings;
    return pidMappings;
}

struct FileCloser {
    void operator()(FILE* file) const noexcept { std::fclose(file); }
};

// getline's buffer, which it grows (and may move) as lines need.
struct LineBuffer {
    char* data = nullptr;
    size_t capacity = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(data); }
};

std::string_view withoutLineFeed(std::string_view line) {
    if (!line.empty() && line.back() == '\n') {
        line.remove_suffix(1);
    }
    return line;
}

// The path after the seven fields: spaces, then one word or nothing. No
// value when anything follows the word.
std::optional<std::string> readPath(const std::string& text, size_t position) {
    while (position < text.size() && text[position] == ' ') {
        ++position;
    }
    if (position == text.size()) {
        return std::string();
    }
    std::string word(text.size() - position + 1, '\0');
    int used = -1;
    if (std::sscanf(text.c_str() + position, "%s%n", word.data(), &used) != 1 || used < 0 ||
        position + size_t(used) != text.size()) {
        return std::nullopt;
    }
    word.resize(word.find('\0'));  // `used` also counts any tabs before the word
    return word;
}

}  // namespace

std::optional<MappingInfo> parseMappingLine(std::string_view line) {
    const std::string text(withoutLineFeed(line));
    // scanf would read across these, so one line could pass for two records.
    if (text.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) {
        return std::nullopt;
    }
    MappingInfo info;
    std::string perms(text.size() + 1, '\0');  // a word of the line always fits
    int consumed = -1;
    const int fields =
        std::sscanf(text.c_str(), "%x-%x %s %x %x:%x %x%n", &info.start, &info.end, perms.data(),
                    &info.offset, &info.major, &info.minor, &info.inode, &consumed);
    if (fields < 7 || consumed < 0) {
        return std::nullopt;
    }
    std::optional<std::string> path = readPath(text, size_t(consumed));
    if (!path) {
        return std::nullopt;
    }
    perms.resize(perms.find('\0'));
    info.perms = std::move(perms);
    info.path = std::move(*path);
    return info;
}

MappingInfo MappingInfos::find(const void* address) const {
    const auto low = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address));
    for (const MappingInfo& info : infos_) {
        if (info.start <= low && low < info.end) {
            return info;
        }
    }
    return {};
}

MappingInfo MappingInfos::find(const std::string& path, unsigned int offset) const {
    for (const MappingInfo& info : infos_) {
        if (info.path == path && info.offset == offset && info.perms != inaccessiblePerms) {
            return info;
        }
    }
    return {};
}

MappingInfos PidMappings::populate(int pid) {
    char fileName[mapsFileNameSize];
    std::snprintf(fileName, sizeof fileName, "/proc/%d/maps", pid);
    std::unique_ptr<FILE, FileCloser> file(std::fopen(fileName, "re"));
    if (!file) {
        return {};
    }
    MappingInfos infos;
    LineBuffer buffer;
    size_t lineNumber = 0;
    ssize_t length;
    while ((length = ::getline(&buffer.data, &buffer.capacity, file.get())) >= 0) {
        ++lineNumber;
        const std::string_view line(buffer.data, size_t(length));
        std::optional<MappingInfo> info = parseMappingLine(line);
        if (!info) {
            RuntimeException::throwException(fmt::format(
                "malformed line {} of {}: \"{}\"", lineNumber, fileName, withoutLineFeed(line)));
        }
        infos.insert(*info);
    }
    // A process that ends while its map is read can fail the read midway.
    if (const int error = errno; std::ferror(file.get())) {
        RuntimeException::throwException(
            fmt::format("failed to read {} errno: {}", fileName, strerror(error)));
    }
    table()[pid] = infos;
    return infos;
}

MappingInfos PidMappings::mappingInfos(int pid) {
    return table()[pid];
}

}  // namespace Velik
