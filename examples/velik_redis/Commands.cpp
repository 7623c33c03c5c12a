#include "Commands.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <utility>
#include <vector>

#include "RespReply.h"

namespace VelikRedis {

namespace {

using Args = std::span<const std::string_view>;

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool parseInteger(std::string_view text, std::int64_t& value) {
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return !text.empty() && ec == std::errc() && ptr == end;
}

constexpr std::string_view kNotInteger = "ERR value is not an integer or out of range";
constexpr std::string_view kSyntax = "ERR syntax error";

// An absolute expiry `amount` units of `unitMs` from now; false when it
// does not fit.
bool expiryFrom(std::int64_t now, std::int64_t amount, std::int64_t unitMs, std::int64_t& at) {
    std::int64_t ms = 0;
    return !__builtin_mul_overflow(amount, unitMs, &ms) && !__builtin_add_overflow(now, ms, &at);
}

void invalidExpire(std::string& out, std::string_view command) {
    Reply::error(out, fmt::format("ERR invalid expire time in '{}' command", command));
}

void ping(Args args, Session&, std::string& out) {
    if (args.size() == 1) {
        Reply::simple(out, "PONG");
    } else {
        Reply::bulk(out, args[1]);
    }
}

void echo(Args args, Session&, std::string& out) {
    Reply::bulk(out, args[1]);
}

void quit(Args, Session& session, std::string& out) {
    session.quit = true;
    Reply::simple(out, "OK");
}

void get(Args args, Session& session, std::string& out) {
    if (!session.keyspace.read(args[1], [&](std::string_view value) { Reply::bulk(out, value); })) {
        Reply::null(out);
    }
}

// SET key value [EX s | PX ms] [NX | XX], options in any order, once each.
void set(Args args, Session& session, std::string& out) {
    Keyspace::Condition condition = Keyspace::Condition::always;
    std::int64_t expiresAt = Keyspace::noExpiry;
    bool timed = false;
    for (std::size_t i = 3; i < args.size(); ++i) {
        const std::string_view option = args[i];
        const bool ex = equalsNoCase(option, "EX");
        if (ex || equalsNoCase(option, "PX")) {
            if (timed || i + 1 == args.size()) {
                return Reply::error(out, kSyntax);
            }
            std::int64_t amount = 0;
            if (!parseInteger(args[++i], amount)) {
                return Reply::error(out, kNotInteger);
            }
            if (amount <= 0 ||
                !expiryFrom(session.keyspace.now(), amount, ex ? 1000 : 1, expiresAt)) {
                return invalidExpire(out, "set");
            }
            timed = true;
        } else if (equalsNoCase(option, "NX") && condition == Keyspace::Condition::always) {
            condition = Keyspace::Condition::ifAbsent;
        } else if (equalsNoCase(option, "XX") && condition == Keyspace::Condition::always) {
            condition = Keyspace::Condition::ifPresent;
        } else {
            return Reply::error(out, kSyntax);
        }
    }
    if (session.keyspace.set(args[1], args[2], expiresAt, condition)) {
        Reply::simple(out, "OK");
    } else {
        Reply::null(out);
    }
}

void del(Args args, Session& session, std::string& out) {
    std::int64_t removed = 0;
    for (std::string_view key : args.subspan(1)) {
        removed += session.keyspace.erase(key);
    }
    Reply::integer(out, removed);
}

void exists(Args args, Session& session, std::string& out) {
    std::int64_t found = 0;
    for (std::string_view key : args.subspan(1)) {
        found += session.keyspace.exists(key);
    }
    Reply::integer(out, found);
}

void incrementBy(std::string_view key, std::int64_t delta, Session& session, std::string& out) {
    std::int64_t value = 0;
    switch (session.keyspace.increment(key, delta, value)) {
        case Keyspace::IncrStatus::ok:
            return Reply::integer(out, value);
        case Keyspace::IncrStatus::notInteger:
            return Reply::error(out, kNotInteger);
        case Keyspace::IncrStatus::overflow:
            return Reply::error(out, "ERR increment or decrement would overflow");
    }
}

void incr(Args args, Session& session, std::string& out) {
    incrementBy(args[1], 1, session, out);
}
void decr(Args args, Session& session, std::string& out) {
    incrementBy(args[1], -1, session, out);
}

void mget(Args args, Session& session, std::string& out) {
    Reply::arrayHeader(out, args.size() - 1);
    for (std::string_view key : args.subspan(1)) {
        get(std::array{key, key}, session, out);
    }
}

void mset(Args args, Session& session, std::string& out) {
    if (args.size() % 2 == 0) {
        return Reply::error(out, "ERR wrong number of arguments for 'mset' command");
    }
    std::vector<std::pair<std::string_view, std::string_view>> pairs;
    for (std::size_t i = 1; i + 1 < args.size(); i += 2) {
        pairs.emplace_back(args[i], args[i + 1]);
    }
    session.keyspace.setAll(pairs);
    Reply::simple(out, "OK");
}

void expireIn(Args args, std::int64_t unitMs, std::string_view name, Session& session,
              std::string& out) {
    std::int64_t amount = 0;
    if (!parseInteger(args[2], amount)) {
        return Reply::error(out, kNotInteger);
    }
    std::int64_t at = 0;
    if (!expiryFrom(session.keyspace.now(), amount, unitMs, at)) {
        return invalidExpire(out, name);
    }
    Reply::integer(out, session.keyspace.expireAt(args[1], at));
}

void expire(Args args, Session& session, std::string& out) {
    expireIn(args, 1000, "expire", session, out);
}
void pexpire(Args args, Session& session, std::string& out) {
    expireIn(args, 1, "pexpire", session, out);
}

void pttl(Args args, Session& session, std::string& out) {
    Reply::integer(out, session.keyspace.ttl(args[1]));
}

// Whole seconds, rounded to the nearest, as the real server answers.
void ttl(Args args, Session& session, std::string& out) {
    const std::int64_t ms = session.keyspace.ttl(args[1]);
    Reply::integer(out, ms < 0 ? ms : (ms + 500) / 1000);
}

void dbsize(Args, Session& session, std::string& out) {
    Reply::integer(out, static_cast<std::int64_t>(session.keyspace.counts().keys));
}

void flushall(Args args, Session& session, std::string& out) {
    if (args.size() > 2 ||
        (args.size() == 2 && !equalsNoCase(args[1], "ASYNC") && !equalsNoCase(args[1], "SYNC"))) {
        return Reply::error(out, kSyntax);
    }
    session.keyspace.clear();
    Reply::simple(out, "OK");
}

// The settings clients ask about before they start (redis-benchmark asks
// for `save` and `appendonly`): this server keeps nothing on disk.
void config(Args args, Session&, std::string& out) {
    if (!equalsNoCase(args[1], "GET")) {
        return Reply::error(out, fmt::format("ERR unknown subcommand '{}'. Try CONFIG HELP.",
                                             args[1].substr(0, 64)));
    }
    if (args.size() != 3) {
        return Reply::error(out, "ERR wrong number of arguments for 'config|get' command");
    }
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> settings{
        {{"appendonly", "no"}, {"databases", "1"}, {"save", ""}}};
    const std::string pattern(args[2]);
    std::vector<std::pair<std::string_view, std::string_view>> matched;
    for (const auto& setting : settings) {
        if (fnmatch(pattern.c_str(), std::string(setting.first).c_str(), FNM_CASEFOLD) == 0) {
            matched.push_back(setting);
        }
    }
    Reply::arrayHeader(out, matched.size() * 2);
    for (const auto& [name, value] : matched) {
        Reply::bulk(out, name);
        Reply::bulk(out, value);
    }
}

const auto startedAt = std::chrono::steady_clock::now();

void info(Args args, Session& session, std::string& out) {
    const std::string_view section = args.size() > 1 ? args[1] : "default";
    const bool all = equalsNoCase(section, "default") || equalsNoCase(section, "all") ||
                     equalsNoCase(section, "everything");
    std::string text;
    if (all || equalsNoCase(section, "server")) {
        const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - startedAt);
        text += fmt::format(
            "# Server\r\nserver_name:velik_redis\r\nprocess_id:{}\r\nuptime_in_seconds:{}\r\n\r\n",
            getpid(), uptime.count());
    }
    if (all || equalsNoCase(section, "keyspace")) {
        const Keyspace::Counts counts = session.keyspace.counts();
        text += "# Keyspace\r\n";
        if (counts.keys > 0) {
            text += fmt::format("db0:keys={},expires={}\r\n", counts.keys, counts.expiring);
        }
        text += "\r\n";
    }
    if (all && session.workerInfo) {
        session.workerInfo(text);
    }
    Reply::bulk(out, text);
}

// The arguments of an unknown command as the real server lists them: each
// quoted and followed by a blank, until about 128 bytes are shown; CR and
// LF become blanks so that the error stays one line.
std::string unknownCommand(Args args) {
    auto clean = [](std::string_view text) {
        std::string s(text.substr(0, 128));
        std::replace_if(
            s.begin(), s.end(), [](char c) { return c == '\r' || c == '\n'; }, ' ');
        return s;
    };
    std::string text =
        fmt::format("ERR unknown command '{}', with args beginning with: ", clean(args[0]));
    std::size_t shown = 0;
    for (std::string_view arg : args.subspan(1)) {
        if (shown >= 128) {
            break;
        }
        text += fmt::format("'{}' ", clean(arg));
        shown += arg.size();
    }
    return text;
}

struct Command {
    std::string_view name;  // lower case: the error texts show it so
    int arity;              // exact count with the name; -n: at least n
    void (*run)(Args, Session&, std::string&);
};

// The hot commands first: the table is searched in order.
constexpr std::array<Command, 20> commands{{
    {"get", 2, get},    {"set", -3, set},      {"incr", 2, incr},       {"ping", -1, ping},
    {"mget", -2, mget}, {"mset", -3, mset},    {"del", -2, del},        {"exists", -2, exists},
    {"decr", 2, decr},  {"expire", 3, expire}, {"pexpire", 3, pexpire}, {"ttl", 2, ttl},
    {"pttl", 2, pttl},  {"echo", 2, echo},     {"dbsize", 1, dbsize},   {"flushall", -1, flushall},
    {"info", -1, info}, {"quit", -1, quit},    {"config", -2, config},  {"", 0, nullptr},
}};

}  // namespace

void execute(Args args, Session& session, std::string& out) {
    for (const Command& command : commands) {
        if (!command.run) {
            break;
        }
        if (!equalsNoCase(args[0], command.name)) {
            continue;
        }
        const auto count = static_cast<int>(std::min<std::size_t>(args.size(), 1 << 30));
        if ((command.arity > 0 && count != command.arity) ||
            (command.arity < 0 && count < -command.arity) ||
            (command.name == "ping" && count > 2)) {
            return Reply::error(
                out, fmt::format("ERR wrong number of arguments for '{}' command", command.name));
        }
        return command.run(args, session, out);
    }
    Reply::error(out, unknownCommand(args));
}

}  // namespace VelikRedis
