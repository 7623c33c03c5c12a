#include "Velik/DirNode.h"

#include <Velik/Exception.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "util/Scratch.h"

namespace {

using Velik::Util::DirNode;
using Names = std::vector<std::string>;

Names sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

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
