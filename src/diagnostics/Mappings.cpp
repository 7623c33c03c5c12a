#include "Velik/Mappings.h"

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

// A word scanf allocated with "%ms".
struct ScannedWord {
    char* data = nullptr;
    ScannedWord() = default;
    ScannedWord(const ScannedWord&) = delete;
    ScannedWord& operator=(const ScannedWord&) = delete;
    ~ScannedWord() { std::free(data); }
    std::string text() const { return data ? std::string(data) : std::string(); }
};

// The path after a record's seven fields: blanks, then a line feed (no
// path) or one word. False when no word can be read.
bool readPath(FILE* file, std::string& path) {
    int next;
    while ((next = std::getc(file)) == ' ') {
    }
    if (next == '\n') {
        path.clear();
        return true;
    }
    std::ungetc(next, file);
    ScannedWord word;
    if (std::fscanf(file, "%ms", &word.data) != 1) {
        return false;
    }
    path = word.text();
    return true;
}

// Reads records until one does not parse. The fields are read with scanf
// across line ends on purpose: a path is one word, and whatever follows it
// on its line (a second word, " (deleted)") is read as the next record, which
// normally fails and so ends the list there.
MappingInfos readMappings(FILE* file) {
    MappingInfos infos;
    for (;;) {
        MappingInfo info;
        ScannedWord perms;
        if (std::fscanf(file, "%x-%x %ms %x %x:%x %x", &info.start, &info.end, &perms.data,
                        &info.offset, &info.major, &info.minor, &info.inode) != 7) {
            return infos;
        }
        info.perms = perms.text();
        if (!readPath(file, info.path)) {
            return infos;
        }
        infos.insert(info);
    }
}

}  // namespace

MappingInfos parseMappings(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    if (text.empty()) {
        return {};
    }
    std::string copy(text);
    std::unique_ptr<FILE, FileCloser> file(fmemopen(copy.data(), copy.size(), "r"));
    if (!file) {
        throw std::bad_alloc();
    }
    return readMappings(file.get());
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
    MappingInfos& stored = table()[pid];
    stored = readMappings(file.get());
    return stored;
}

MappingInfos PidMappings::mappingInfos(int pid) {
    return table()[pid];
}

}  // namespace Velik
