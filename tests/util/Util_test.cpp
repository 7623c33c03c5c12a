#include "Velik/Util.h"

#include <Velik/DirNode.h>
#include <Velik/Exception.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "util/Scratch.h"

namespace {

using namespace Velik::Util;

// Stored in names and compared across processes: these must never change.
TEST(UtilTest, HashValuesAreFixed) {
    EXPECT_EQ(std::tuple(hash("", 0), hash(std::string("a")), hash("abcd", 4)),
              std::tuple(0x811C9DC5u, 0x920C5D1Fu, 0xEC7F6F2Cu));
    EXPECT_EQ(std::pair(hash64(std::string()), hash64("abcdefgh", 8)),
              std::pair(0xCBF29CE484222325ul, 0x3919EEB00EE1E68Cul));
    // The string forms hash the whole size, embedded NUL included.
    const std::string withNul("/tmp\0x", 6);
    EXPECT_EQ(std::pair(hash(withNul), hash64(withNul)),
              std::pair(hash(withNul.data(), 6), hash64(withNul.data(), 6)));
}

TEST(UtilTest, Base64EncodeIsSixCharactersLowBitsFirst) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "AAAAAA"}, {0xFFFFFFFF, "=====D"}, {62, "_AAAAA"}, {0x80000000u, "AAAAAC"}};
    for (const auto& [value, code] : cases) {
        EXPECT_EQ(base64Encode(value), code) << value;
    }
}

TEST(UtilTest, TraceHandleNameHashesThePathWithoutTrailingSlashes) {
    EXPECT_EQ(traceHandleName("/var/run/sock", "Reader", false), "Reader-syxlTC-sock");
    EXPECT_EQ(traceHandleName("/var/run/sock///", "Reader", true), "ReaderTemp-syxlTC-sock");
    // Nothing remains of these: the hash of no bytes and no base name.
    EXPECT_EQ(traceHandleName("///", "W", false), "W-F3JHBC-");
    EXPECT_EQ(traceHandleName("", "W", true), "WTemp-F3JHBC-");
}

// Under a restrictive umask, which mkpath must neither apply nor leave
// changed, whichever way it returns.
TEST(MkpathTest, CreatesParentsWithTheExactModeAndReportsTheFailingMkdir) {
    VelikTest::Scratch dir;
    ASSERT_EQ(mkdir((dir / "old").c_str(), 0700), 0);
    std::ofstream(dir / "file") << "x";
    const mode_t callerUmask = umask(077);
    const auto modeOf = [](const std::string& path) {
        return unsigned(std::filesystem::status(path).permissions());
    };
    const std::tuple<std::string, int, std::vector<std::string>> cases[] = {
        {"old", 0, {}},  // exists: keeps its mode
        {"a/b/c", 0, {"a", "a/b", "a/b/c"}},
        {"t/u/", 0, {"t", "t/u"}},  // the last mkdir finds "t/u/" made
        {"file/x/y", ENOTDIR, {}},
    };
    for (const auto& [path, error, made] : cases) {
        errno = 0;
        EXPECT_EQ(Velik::Util::mkpath(dir / path, 0775), error ? -1 : 0) << path;
        EXPECT_EQ(error ? errno : 0, error) << path;
        for (const std::string& name : made) {
            EXPECT_EQ(modeOf(dir / name), 0775u) << name;
        }
        EXPECT_EQ(umask(077), 077u) << path;
    }
    EXPECT_EQ(modeOf(dir / "old"), 0700u);
    EXPECT_EQ(Velik::Util::mkpath("", 0775), -1);  // no "/" left to recurse on
    EXPECT_EQ(errno, ENOENT);
    umask(callerUmask);
}

using Names = std::vector<std::string>;

const auto sorted = [](Names names) { return std::ranges::sort(names), names; };

TEST(DirNodeTest, FindFilesMatchesFilesAndLinksByExtensionAndRewindsFirst) {
    VelikTest::Scratch dir;
    mkdir((dir / "sub.conf").c_str(), 0700);
    for (const char* name : {"a.conf", "b.txt", ".conf", "conf", "x.conf.bak", "sub.conf/1"}) {
        std::ofstream(dir / name) << "x";
    }
    symlink("missing", (dir / "link.conf").c_str());
    mkfifo((dir / "pipe.conf").c_str(), 0600);
    auto parent = std::make_shared<DirNode>(*dir.handler, dir / "sub.conf", nullptr);
    DirNode node(*dir.handler, dir.path, parent);
    node.openDir();
    const Names conf = node.findFiles(".conf");
    EXPECT_EQ(sorted(conf), (Names{".conf", "a.conf", "link.conf"}));
    EXPECT_EQ(node.findFiles(".conf"), conf);  // same list, same order
    EXPECT_EQ(sorted(node.findFiles("")),
              (Names{".conf", "a.conf", "b.txt", "conf", "link.conf", "x.conf.bak"}));
    // A stream has one owner: a copy starts closed.
    EXPECT_TRUE(!DirNode(node).isOpen() && DirNode(node).parent() == parent);
    node.pathIs(dir / "sub.conf");  // takes effect at the next open
    EXPECT_EQ(node.findFiles("").size(), 6u);
    node.openDir();
    EXPECT_EQ(node.findFiles(""), Names{"1"});
}

// Missing, not a directory, no path.
TEST(DirNodeTest, UnopenedNodeReadsNothingAndThrowsFromRewindAndFindFiles) {
    VelikTest::Scratch dir;
    std::ofstream(dir / "file") << "x";
    for (const std::string& path : {dir / "missing", dir / "file", std::string()}) {
        DirNode node(*dir.handler, path, nullptr);
        node.openDir();
        EXPECT_EQ(node.readEntry(), nullptr);
        EXPECT_THROW(node.rewind(), Velik::RuntimeException);
        EXPECT_THROW(node.findFiles(".c"), Velik::RuntimeException);
    }
}

}  // namespace
