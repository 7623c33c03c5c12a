#include "Velik/Mappings.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>

namespace {

using Velik::MappingInfo;
using Velik::MappingInfos;
using Velik::PidMappings;

TEST(MappingsTest, ParsesRecordsInFileOrder) {
    const MappingInfos infos = Velik::parseMappings(
        "7f0012345000-7f0012346000 r-xp 0001a000 08:01 1234 /usr/lib/libfoo.so\n"
        "1000-2000 rw-p 0 00:00 0   \n"
        "1-2 r 0 0:0 0 \t/x\n"
        "3-4 r 0 0:0 0 /y");
    ASSERT_EQ(infos.size(), 4u);  // 32-bit fields keep the low bits; the inode is read as hex
    EXPECT_EQ(fmt::format("{}", infos[0]),
              "MappingInfo { start:0x12345000 end:0x12346000 perms:r-xp offset:0x1a000 "
              "major:0x8 minor:0x1 inode:0x1234 path:/usr/lib/libfoo.so }");
    EXPECT_EQ(infos[1], (MappingInfo{0x1000, 0x2000, "rw-p", 0, 0, 0, 0, ""}));
    EXPECT_EQ(infos[2].path + infos[3].path, "/x/y");
}

// The path is one word: what follows it on its line is read as the next
// record, which ends the list there unless it happens to be one.
TEST(MappingsTest, ReadingEndsSilentlyWhereARecordDoesNotParse) {
    const std::pair<std::string_view, std::vector<std::string>> cases[] = {
        {"1-2 r 0 0:0 0 /a b\n3-4 r 0 0:0 0 /c\n", {"/a"}},
        {"1-2 r 0 0:0 0 /a 5-6 w 0 0:0 0 /b\n3-4 r 0 0:0 0\n", {"/a", "/b", ""}},
        {std::string_view("1-2 r 0 0:0 0 /a\n\0003-4 r 0 0:0 0 /c\n", 35), {"/a"}},
    };
    for (const auto& [text, expected] : cases) {
        std::vector<std::string> paths;
        for (const MappingInfo& info : Velik::parseMappings(text)) {
            paths.push_back(info.path);
        }
        EXPECT_EQ(paths, expected) << text;
    }
}

TEST(MappingsTest, FindTakesTheFirstMatchInFileOrder) {
    MappingInfos infos;
    infos.insert({0x1000, 0x2000, "---p", 0x1000, 8, 1, 5, "/lib/a.so"});
    infos.insert({0x2000, 0x3000, "r-xp", 0x1000, 8, 1, 5, "/lib/a.so"});
    infos.insert({0x2800, 0x4000, "", 0x3000, 8, 1, 5, "/lib/a.so"});
    const auto at = [&](uintptr_t address) { return infos.find(reinterpret_cast<void*>(address)); };
    EXPECT_EQ(at(0x1000), infos[0]);
    EXPECT_EQ(at(0x2000), infos[1]);  // an end is not inside
    EXPECT_EQ(at(0x3000), infos[2]);
    EXPECT_EQ(at(0x4000), MappingInfo());
    EXPECT_EQ(infos.find("/lib/a.so", 0x1000), infos[1]);  // the guard region is skipped
    EXPECT_EQ(infos.find("/lib/a.so", 0x3000), infos[2]);  // empty perms are fine
    EXPECT_EQ(infos.find("/lib/b.so", 0x3000), MappingInfo());
}

// A gone process reads as empty and leaves its stored list.
TEST(MappingsTest, PopulateStoresTheListReadPerPid) {
    const std::string path = "/tmp/velikmaps" + std::to_string(getpid());
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(ftruncate(fd, 2 * getpagesize()), 0);  // mapped from its second page
    void* mapped = mmap(nullptr, getpagesize(), PROT_READ, MAP_SHARED, fd, getpagesize());
    close(fd);
    const MappingInfo region = PidMappings::populate(getpid()).find(path, getpagesize());
    EXPECT_EQ(region.start, uint32_t(uintptr_t(mapped)));
    EXPECT_EQ(region.perms, "r--s");
    const pid_t child = fork();
    if (child == 0) {
        pause();
    }
    const MappingInfos childMaps = PidMappings::populate(child);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(PidMappings::populate(child).empty());
    EXPECT_EQ(PidMappings::mappingInfos(child), childMaps);
    EXPECT_EQ(childMaps.find(path, getpagesize()), region);
    unlink(path.c_str());
    munmap(mapped, getpagesize());
}

}  // namespace
