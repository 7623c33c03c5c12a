// Lines of a memory map: any line parses or is refused without harm, and a
// line that parses, written back in the maps layout, parses to the same
// record. The accepted records then answer both lookups.
#include <Velik/Mappings.h>

#include <fmt/format.h>

#include "FuzzCheck.h"

using VelikFuzz::check;

namespace {

std::string mapsLine(const Velik::MappingInfo& info) {
    std::string line = fmt::format("{:x}-{:x} {} {:x} {:x}:{:x} {:x}", info.start, info.end,
                                   info.perms, info.offset, info.major, info.minor, info.inode);
    if (!info.path.empty()) {
        line += " " + info.path;
    }
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input = VelikFuzz::asText(data, size);
    Velik::MappingInfos infos;
    while (!input.empty()) {
        const size_t end = input.find('\n');
        const std::string_view line = input.substr(0, end);
        input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);

        const std::optional<Velik::MappingInfo> info = Velik::parseMappingLine(line);
        if (!info) {
            continue;
        }
        check(!info->perms.empty(), "perms is a word");
        check(info->perms.find_first_of(" \t\n") == std::string::npos, "perms is one word");
        check(info->path.find_first_of(" \t\n") == std::string::npos, "the path is one word");
        check(Velik::parseMappingLine(mapsLine(*info)) == info,
              "a record written back parses to itself");
        (void)fmt::format("{}", *info);
        infos.insert(*info);
    }
    for (const Velik::MappingInfo& info : infos) {
        const auto* address = reinterpret_cast<const void*>(uintptr_t{info.start});
        const Velik::MappingInfo byAddress = infos.find(address);
        if (info.start < info.end) {
            check(byAddress.start <= info.start && info.start < byAddress.end,
                  "an address of a region is found in a region holding it");
        }
        const Velik::MappingInfo byFile = infos.find(info.path, info.offset);
        if (info.perms != "---p") {
            check(byFile.path == info.path && byFile.offset == info.offset,
                  "a region is found by its path and offset");
        }
    }
    return 0;
}
