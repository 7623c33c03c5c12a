#include "Velik/Mappings.h"

#include <Velik/Exception.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Velik::MappingInfo;
using Velik::MappingInfos;
using Velik::PidMappings;

TEST(MappingsTest, ParsesOneWholeRecordPerLine) {
    const auto library = Velik::parseMappingLine(
        "7f0012345000-7f0012346000 r-xp 0001a000 08:01 1234 /usr/lib/libfoo.so\n");
    ASSERT_TRUE(library);  // 32-bit fields keep the low bits; the inode is read as hex
    EXPECT_EQ(fmt::format("{}", *library),
              "MappingInfo { start:0x12345000 end:0x12346000 perms:r-xp offset:0x1a000 "
              "major:0x8 minor:0x1 inode:0x1234 path:/usr/lib/libfoo.so }");
    EXPECT_EQ(Velik::parseMappingLine("1000-2000 rw-p 0 00:00 0   \n"),
              (MappingInfo{0x1000, 0x2000, "rw-p", 0, 0, 0, 0, ""}));
    EXPECT_EQ(Velik::parseMappingLine("1-2 r 0 0:0 0 \t/x")->path, "/x");
    // Each would have cut the list short or misread it.
    const std::string_view notOneRecord[] = {"", "1-2 r 0 0:0", "1-2 r 0 0:0 0 /a b",
                                             "1-2 r 0 0:0 0 /a\n3-4 r 0 0:0 0",
                                             std::string_view("1-2 r 0 0:0 0 /a\0b", 18)};
    for (const std::string_view line : notOneRecord) {
        EXPECT_EQ(Velik::parseMappingLine(line), std::nullopt) << line;
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

// A list is stored whole or not at all: a gone process reads as empty, a
// line that is not one record throws, naming it.
TEST(MappingsTest, PopulateStoresAWholeListPerPidOrNothing) {
    const std::string path = "/tmp/velikmaps" + std::to_string(getpid());
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(ftruncate(fd, 2 * getpagesize()), 0);  // mapped from its second page
    void* mapped = mmap(nullptr, getpagesize(), PROT_READ, MAP_SHARED, fd, getpagesize());
    close(fd);
    const MappingInfos mine = PidMappings::populate(getpid());
    EXPECT_EQ(mine.find(path, getpagesize()).start, uint32_t(uintptr_t(mapped)));
    EXPECT_EQ(mine.find(path, getpagesize()).perms, "r--s");
    EXPECT_EQ(PidMappings::mappingInfos(getpid()), mine);
    const pid_t child = fork();
    if (child == 0) {
        pause();
    }
    const MappingInfos childMaps = PidMappings::populate(child);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(PidMappings::populate(child).empty());
    EXPECT_EQ(PidMappings::mappingInfos(child), childMaps);
    EXPECT_EQ(childMaps.find(path, getpagesize()), mine.find(path, getpagesize()));
    unlink(path.c_str());
    try {
        PidMappings::populate(getpid());
        ADD_FAILURE() << "no exception";
    } catch (const Velik::RuntimeException& e) {
        EXPECT_THAT(e.message(), testing::MatchesRegex("malformed line [0-9]+ of /proc/" +
                                                       std::to_string(getpid()) + "/maps: \".* " +
                                                       path + " \\(deleted\\)\""));
    }
    EXPECT_EQ(PidMappings::mappingInfos(getpid()), mine);
    munmap(mapped, getpagesize());
}

}  // namespace
