// The server: one listening task on the calling thread's root, handing each
// accepted connection to one of the workers in turn, through the worker's
// inbox. The keyspace is shared by all workers.
#pragma once

#include <Velik/Velik.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Keyspace.h"
#include "Worker.h"

namespace VelikRedis {

struct ServerOptions {
    std::uint16_t port = 0;  // 0: an ephemeral port
    int workers = 1;
    std::string statsDir;  // empty: no stats endpoints; else main.sock, worker0.sock, ...
    double idleSeconds = 300;
    RespLimits limits;
    bool coroutines = false;  // each connection a coroutine task
};

class Server {
  public:
    // Listens on loopback and starts the workers; throws
    // `Velik::RuntimeException` when the port cannot be had.
    explicit Server(ServerOptions options);
    ~Server();

    std::uint16_t port() const { return port_; }
    const std::vector<std::unique_ptr<Worker>>& workers() const { return workers_; }
    // No new connections; every worker closes its own and ends. Idempotent.
    void stop();

  private:
    class Listener;

    Keyspace keyspace_;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::shared_ptr<Listener> listener_;
    std::uint16_t port_ = 0;
};

}  // namespace VelikRedis
