// The commands the server answers, from a parsed request to its reply.
//
//   PING [message]   ECHO message   QUIT
//   SET key value [EX seconds | PX milliseconds] [NX | XX]
//   GET key   MGET key...   MSET key value...   DEL key...   EXISTS key...
//   INCR key   DECR key
//   EXPIRE key seconds   PEXPIRE key milliseconds   TTL key   PTTL key
//   DBSIZE   FLUSHALL [ASYNC | SYNC]   INFO [section]   CONFIG GET pattern
//
// Names are matched without regard to case. Error texts follow the real
// server's, which clients and scripts match on ("ERR wrong number of
// arguments for 'get' command", "ERR unknown command 'FOO', with args
// beginning with: 'a' ").
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "Keyspace.h"

namespace VelikRedis {

// What a request may need from the connection and worker that run it.
struct Session {
    Keyspace& keyspace;
    // Appends the INFO sections of the worker serving this connection
    // ("# Clients", "# Runtime", ...); may be empty.
    std::function<void(std::string& out)> workerInfo;
    // Set by QUIT: the connection closes once its replies are written.
    bool quit = false;
};

// Appends the reply to `args` (the command name first; not empty) to `out`.
void execute(std::span<const std::string_view> args, Session& session, std::string& out);

}  // namespace VelikRedis
