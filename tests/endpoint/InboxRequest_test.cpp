// The "inbox" request: one line per live inbox, in a layout scripts parse.
#include "endpoint/StatsReplySource.h"
#include "platform/LoopThread.h"

#include <Velik/Inbox.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

namespace {

using namespace Velik;

TEST(InboxRequest, IsAVerbAndListsEachLiveInboxOnALine) {
    ASSERT_EQ(Impl::parseStatsRequest("inbox\r").verb, Impl::StatsVerb::inbox);
    VelikTest::onLoopThread([] {
        auto root = schedulerRootVelik();
        const std::string name = root->schedulerName().str();
        std::shared_ptr<Inbox> box = inbox();
        for (int i = 0; i < 3; ++i) {
            post(box, TaskPriority::normal, "queued", [] {});
        }
        auto source = Impl::makeStatsReplySource(*root, Impl::StatsVerb::inbox, false);
        std::string reply;
        EXPECT_FALSE(source->renderSlice(reply));
        EXPECT_NE(
            reply.find(name + " length 3 highWaterMark 3 dropped 0 posted 3 run 0 wakeUps 1\n"),
            std::string::npos)
            << reply;
        closeInbox();
        reply.clear();
        Impl::makeStatsReplySource(*root, Impl::StatsVerb::inbox, false)->renderSlice(reply);
        EXPECT_EQ(reply.find(name + " "), std::string::npos) << reply;
    });
}

}  // namespace
