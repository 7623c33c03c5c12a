// The server's protocol, commands and keyspace, without sockets: what the
// parser refuses and with which text, pipelined requests answered in order
// however the bytes arrive, and expiry on a clock the test moves.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Commands.h"
#include "Keyspace.h"
#include "Load.h"
#include "RespParser.h"

namespace VelikRedis {
namespace {

// Feeds `stream` to a parser `chunk` bytes at a time, as reads would deliver
// it, answering each request; returns the replies, and the protocol error
// (with its reply) if one ends the stream.
struct Fed {
    std::vector<std::vector<std::string>> requests;
    std::string error;
};

Fed feed(std::string_view stream, std::size_t chunk, RespLimits limits = {}) {
    RespParser parser(limits);
    Fed fed;
    std::string buffer;
    for (std::size_t at = 0; at < stream.size() && fed.error.empty(); at += chunk) {
        buffer += stream.substr(at, chunk);
        for (;;) {
            const auto status = parser.parse(buffer);
            if (status == RespParser::Status::needMore) {
                break;
            }
            if (status == RespParser::Status::error) {
                fed.error = parser.error();
                break;
            }
            if (!parser.args().empty()) {
                fed.requests.emplace_back(parser.args().begin(), parser.args().end());
            }
            buffer.erase(0, parser.consumed());
        }
    }
    return fed;
}

TEST(RespParser, RefusesBadFramingWithTheRealServersWords) {
    RespLimits small;
    small.maxBulkLength = 10;
    small.maxArgs = 4;
    small.maxInlineLength = 32;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"*abc\r\n", "invalid multibulk length"},
        {"*5\r\n", "invalid multibulk length"},  // beyond the limit of 4
        {"*1\r\n$x\r\n", "invalid bulk length"},
        {"*1\r\n$-1\r\n", "invalid bulk length"},
        {"*1\r\n$11\r\n", "invalid bulk length"},  // beyond the limit of 10
        {"*1\r\n+x\r\n", "expected '$', got '+'"},
        {"*1\r\n\x01x\r\n", "expected '$', got '\\x01'"},
        {"*1\r\n$4\r\nPINGxx\r\n", "bulk string not followed by CRLF"},
        {"*1\r\n$" + std::string(40, '1'), "too big bulk count string"},
        {"*" + std::string(40, '1'), "too big mbulk count string"},
        {std::string(40, 'x'), "too big inline request"},
        {"GET \"a\r\n", "unbalanced quotes in request"},
        {"GET \"a\"b\r\n", "unbalanced quotes in request"},
        {std::string("\x00\xff\r\n", 4), "control byte in inline request"},
    };
    for (const auto& [input, error] : cases) {
        for (std::size_t chunk : {std::size_t{1}, input.size()}) {
            EXPECT_EQ(feed(input, chunk, small).error, "Protocol error: " + error)
                << testing::PrintToString(input) << " in chunks of " << chunk;
        }
    }
    // A request ahead of the bad one is still taken.
    const Fed fed = feed("PING\r\n*1\r\n$x\r\n", 64);
    EXPECT_EQ(fed.requests.size(), 1u);
    EXPECT_EQ(fed.error, "Protocol error: invalid bulk length");
}

TEST(RespParser, PipelinedRequestsComeOutWholeAndInOrderWhateverTheReads) {
    using namespace std::string_literals;
    const std::string full =
        "*3\r\n$3\r\nSET\r\n$1\r\nk\r\n$5\r\na\r\nb\0\r\n"  // binary-safe value
        "GET k\r\n"
        "\r\n"    // blank line: nothing
        "*0\r\n"  // empty array: nothing
        "ECHO 'it\\'s' \"x\\x41\\n\"\n"
        "*2\r\n$4\r\nINCR\r\n$0\r\n\r\n"s;
    const std::vector<std::vector<std::string>> expected = {
        {"SET", "k", std::string("a\r\nb\0", 5)},
        {"GET", "k"},
        {"ECHO", "it's", "xA\n"},
        {"INCR", ""},
    };
    for (std::size_t chunk : {1, 2, 3, 7, 64}) {
        const Fed fed = feed(full, chunk);
        EXPECT_EQ(fed.error, "") << chunk;
        EXPECT_EQ(fed.requests, expected) << "chunks of " << chunk;
    }
}

// A session on a keyspace whose clock the test sets.
class Server : public testing::Test {
  protected:
    std::string run(std::string_view stream) {
        RespParser parser;
        std::string out;
        while (parser.parse(stream) == RespParser::Status::request) {
            if (!parser.args().empty()) {
                execute(parser.args(), session, out);
            }
            stream.remove_prefix(parser.consumed());
        }
        return out;
    }
    std::int64_t now = 1'000'000;
    Keyspace keyspace{[this] { return now; }, 4};
    Session session{keyspace, nullptr};
};

TEST_F(Server, AnswersAPipelineInOrderAsOneBuffer) {
    EXPECT_EQ(run("SET a 1\r\nGET a\r\nINCR a\r\nDECR b\r\nMSET x 1 y 2\r\nMGET x nope y\r\n"
                  "DEL x y nope\r\nEXISTS a a b\r\nDBSIZE\r\nPING\r\nECHO hi\r\n"),
              "+OK\r\n$1\r\n1\r\n:2\r\n:-1\r\n+OK\r\n*3\r\n$1\r\n1\r\n$-1\r\n$1\r\n2\r\n"
              ":2\r\n:3\r\n:2\r\n+PONG\r\n$2\r\nhi\r\n");
    EXPECT_EQ(run("SET n v NX XX\r\nSET n v NX\r\nSET n w NX\r\nSET m v XX\r\nGET n\r\n"),
              "-ERR syntax error\r\n+OK\r\n$-1\r\n$-1\r\n$1\r\nv\r\n");
    EXPECT_FALSE(session.quit);
    EXPECT_EQ(run("QUIT\r\n"), "+OK\r\n");
    EXPECT_TRUE(session.quit);
}

TEST_F(Server, ErrorTextsClientsMatchOn) {
    EXPECT_EQ(run("FOO a b\r\n"),
              "-ERR unknown command 'FOO', with args beginning with: 'a' 'b' \r\n");
    EXPECT_EQ(run("*2\r\n$3\r\nF\nO\r\n$2\r\na\r\r\n"),
              "-ERR unknown command 'F O', with args beginning with: 'a ' \r\n");
    EXPECT_EQ(run("get\r\nPING a b\r\nMSET a\r\nMSET a 1 b\r\n"),
              "-ERR wrong number of arguments for 'get' command\r\n"
              "-ERR wrong number of arguments for 'ping' command\r\n"
              "-ERR wrong number of arguments for 'mset' command\r\n"
              "-ERR wrong number of arguments for 'mset' command\r\n");
    EXPECT_EQ(run("SET k v EX 0\r\nSET k v PX x\r\nSET k v EX 1 PX 1\r\nSET k v EX "
                  "9223372036854775807\r\n"),
              "-ERR invalid expire time in 'set' command\r\n"
              "-ERR value is not an integer or out of range\r\n-ERR syntax error\r\n"
              "-ERR invalid expire time in 'set' command\r\n");
    EXPECT_EQ(run("SET s abc\r\nINCR s\r\nSET t 007\r\nINCR t\r\nSET m 9223372036854775807\r\nINCR "
                  "m\r\n"),
              "+OK\r\n-ERR value is not an integer or out of range\r\n+OK\r\n"
              "-ERR value is not an integer or out of range\r\n+OK\r\n"
              "-ERR increment or decrement would overflow\r\n");
    EXPECT_EQ(
        run("CONFIG GET save\r\nCONFIG GET appendonly\r\nCONFIG GET nope\r\nCONFIG SET a b\r\n"),
        "*2\r\n$4\r\nsave\r\n$0\r\n\r\n*2\r\n$10\r\nappendonly\r\n$2\r\nno\r\n*0\r\n"
        "-ERR unknown subcommand 'SET'. Try CONFIG HELP.\r\n");
}

TEST_F(Server, ExpiryIsExactToTheMillisecondAndLazy) {
    run("SET k v PX 100\r\nSET forever v\r\n");
    now += 99;
    EXPECT_EQ(run("PTTL k\r\nTTL k\r\nTTL forever\r\nTTL nope\r\nGET k\r\n"),
              ":1\r\n:0\r\n:-1\r\n:-2\r\n$1\r\nv\r\n");
    now += 1;
    EXPECT_EQ(run("GET k\r\nEXISTS k\r\nPTTL k\r\nEXPIRE k 10\r\n"), "$-1\r\n:0\r\n:-2\r\n:0\r\n");

    // TTL rounds to the nearest second; INCR keeps the time to live, SET drops it.
    EXPECT_EQ(run("SET c 1 EX 100\r\nINCR c\r\n"), "+OK\r\n:2\r\n");
    now += 500;
    EXPECT_EQ(run("TTL c\r\n"), ":100\r\n");
    now += 1;
    EXPECT_EQ(run("TTL c\r\nSET c 5\r\nTTL c\r\n"), ":99\r\n+OK\r\n:-1\r\n");

    // A time already past deletes at once.
    EXPECT_EQ(run("EXPIRE forever 0\r\nEXISTS forever\r\nPEXPIRE nope 10\r\n"),
              ":1\r\n:0\r\n:0\r\n");
}

TEST_F(Server, TheSweepFreesOnlyKeysWhoseTimeHasCome) {
    run("SET gone v PX 10\r\nSET again v PX 10\r\nSET later v PX 1000\r\n");
    run("SET again w\r\n");  // set again without expiry: its old due time must not delete it
    now += 10;
    EXPECT_EQ(keyspace.counts().keys, 3u);  // expired, not yet swept
    std::size_t removed = 0;
    for (std::size_t stripe = 0; stripe < keyspace.stripeCount(); ++stripe) {
        removed += keyspace.sweep(stripe, 100);
    }
    EXPECT_EQ(removed, 1u);
    EXPECT_EQ(keyspace.counts().keys, 2u);
    EXPECT_EQ(keyspace.counts().expiring, 1u);
    EXPECT_EQ(run("GET again\r\nPTTL later\r\n"), "$1\r\nw\r\n:990\r\n");
}

TEST(LoadReplies, CountsOnlyWholeReplies) {
    std::size_t consumed = 0;
    std::uint64_t errors = 0;
    const std::string replies = "+OK\r\n$3\r\nabc\r\n$-1\r\n-ERR x\r\n:5\r\n$4\r\nab";
    EXPECT_EQ(countReplies(replies, 10, consumed, errors), 5u);
    EXPECT_EQ(replies.substr(consumed), "$4\r\nab");
    EXPECT_EQ(errors, 1u);
    EXPECT_EQ(countReplies(replies, 2, consumed, errors), 2u);
    EXPECT_EQ(consumed, 14u);
}

}  // namespace
}  // namespace VelikRedis
