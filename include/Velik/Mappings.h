// The memory map of a process, read from /proc/<pid>/maps:
//
//   Velik::MappingInfos maps = Velik::PidMappings::populate(getpid());
//   Velik::MappingInfo region = maps.find(pointer);            // which region?
//   Velik::MappingInfo text = maps.find("/usr/lib/libfoo.so", 0);  // where is it?
//
// Lookups return a default `MappingInfo` (all zero, empty strings) when
// nothing matches.
//
// Properties of the reading, kept on purpose: addresses and offsets are
// 32-bit, so on a 64-bit process they hold the low 32 bits of what the file
// says (and `find` compares the low 32 bits of the address); the inode is
// read as hexadecimal digits although the file writes it in decimal; the
// path is one word. Whatever follows that word on its line (a second word of
// a path with a blank, or the " (deleted)" the kernel appends to the path of
// a removed file) is read as the start of the next record, which normally
// fails to parse and so ends the list there, silently: the record holding
// the first word is kept, the lines after it are not read. Nothing in the
// data throws.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

// One line of a maps file.
struct MappingInfo {
    uint32_t start = 0;   // first address of the region
    uint32_t end = 0;     // one past the last address
    std::string perms;    // as written, for example "r-xp"
    uint32_t offset = 0;  // file offset of the region
    uint32_t major = 0;   // device major number
    uint32_t minor = 0;   // device minor number
    uint32_t inode = 0;   // the decimal field read as hexadecimal
    std::string path;     // empty for anonymous regions

    bool operator==(const MappingInfo&) const = default;
};

// The records of one maps file, in file order.
class MappingInfos {
  public:
    // Appends a copy.
    void insert(const MappingInfo& info) { infos_.push_back(info); }

    // The first record with start <= address < end (low 32 bits of the
    // address), or a default record.
    MappingInfo find(const void* address) const;

    // The first record with exactly this path and offset whose perms are not
    // "---p" (the inaccessible gaps the loader leaves between a library's
    // segments), or a default record.
    MappingInfo find(const std::string& path, unsigned int offset) const;

    bool operator==(const MappingInfos&) const = default;
    bool empty() const { return infos_.empty(); }
    size_t size() const { return infos_.size(); }
    const MappingInfo& operator[](size_t index) const { return infos_[index]; }
    std::vector<MappingInfo>::const_iterator begin() const { return infos_.begin(); }
    std::vector<MappingInfo>::const_iterator end() const { return infos_.end(); }

  private:
    std::vector<MappingInfo> infos_;
};

// Reads the text of a maps file exactly as `PidMappings::populate` reads the
// file: records in order until one does not parse (see above). The text ends
// at its first NUL byte, which a maps file never holds. Never throws for any
// input; allocation failures propagate.
MappingInfos parseMappings(std::string_view text);

// The process-wide table of the last list read for each process id. It has
// no lock: populate and read it from one thread at a time.
class PidMappings {
  public:
    // Reads /proc/<pid>/maps, stores the list under `pid` (replacing any
    // earlier one) and returns a copy. A file that cannot be opened (the
    // process is gone, or not ours to read) gives an empty list and leaves
    // the table unchanged. Reading ends at the first record that does not
    // parse, or at a read error (the process ended meanwhile); what was read
    // up to there is the list.
    static MappingInfos populate(int pid);

    // A copy of the list stored for `pid`; empty (and stored so) for a
    // process never populated.
    static MappingInfos mappingInfos(int pid);
};

}  // namespace Velik

// "MappingInfo { start:0x1000 end:0x2000 perms:r-xp offset:0x0 major:0x8
// minor:0x1 inode:0x1234 path:/usr/lib/libfoo.so }".
template <>
struct fmt::formatter<Velik::MappingInfo> : fmt::formatter<fmt::string_view> {
    fmt::format_context::iterator format(const Velik::MappingInfo& info,
                                         fmt::format_context& context) const {
        return fmt::format_to(context.out(),
                              "MappingInfo {{ start:{:#x} end:{:#x} perms:{} offset:{:#x} "
                              "major:{:#x} minor:{:#x} inode:{:#x} path:{} }}",
                              info.start, info.end, info.perms, info.offset, info.major, info.minor,
                              info.inode, info.path);
    }
};
