// The text of a memory map: any text reads without harm, and the records
// read, written back in the maps layout, read to the same list. The records
// then answer both lookups.
#include <Velik/Mappings.h>

#include <fmt/format.h>

#include "FuzzCheck.h"

using VelikFuzz::check;

namespace {

std::string mapsText(const Velik::MappingInfos& infos) {
    std::string text;
    for (const Velik::MappingInfo& info : infos) {
        text += fmt::format("{:x}-{:x} {} {:x} {:x}:{:x} {:x}", info.start, info.end, info.perms,
                            info.offset, info.major, info.minor, info.inode);
        if (!info.path.empty()) {
            text += " " + info.path;
        }
        text += '\n';
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Velik::MappingInfos infos = Velik::parseMappings(VelikFuzz::asText(data, size));
    for (const Velik::MappingInfo& info : infos) {
        check(!info.perms.empty(), "perms is a word");
        check(info.perms.find_first_of(" \t\n") == std::string::npos, "perms is one word");
        check(info.path.find_first_of(" \t\n") == std::string::npos, "the path is one word");
        (void)fmt::format("{}", info);
    }
    check(Velik::parseMappings(mapsText(infos)) == infos, "records written back read the same");
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
