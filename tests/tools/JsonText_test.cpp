// What `--json` prints: the document alone, written back exactly, with no
// raw control character.
#include "JsonText.h"
#include "FakeSnapshot.h"

namespace {

TEST(JsonText, TheDocumentAloneWithItsNumbersAsSent) {
    const std::string doc =
        R"({"schedulers":{"main":{"maxSchedulerSlip":0.001234,"latency":1.5e-7,"runCount":)"
        R"(18446744073709551615,"skipped":-3,"ok":true,"history":[]}}})";
    EXPECT_EQ(VelikTop::terminalSafeJson("main", doc), doc);
}

TEST(JsonText, ControlsTheGrammarLetStandRawAreEscaped) {
    const std::string out = VelikTop::terminalSafeJson(
        "main", "{\"schedulers\":{\"x\\u001b\xc2\x9b\x7f\xc2\xa0\":{\"name\":\"\\u009b\"}}}");
    EXPECT_EQ(out, "{\"schedulers\":{\"x\\u001B\\u009B\\u007F\xc2\xa0\":{\"name\":\"\\u009B\"}}}");

    for (const std::string bad : {"{\"a\":\"\xff\"}", "{\"a\":", "nul\0"}) {
        EXPECT_EQ(VelikTopTest::failureOf([&] { VelikTop::terminalSafeJson("main", bad); }),
                  VelikTop::exitMalformed)
            << bad;
    }
}

}  // namespace
