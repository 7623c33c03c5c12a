// The built-in load: client threads speaking RESP to the server over
// loopback, each with a few connections and a pipeline of requests on each.
// A third of the requests are SET, half GET, the rest INCR, over a fixed
// set of keys.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace VelikRedis {

// Latencies in fixed memory however long the run: eight buckets per power of
// two of microseconds, so a percentile is within about 9% of the true one.
class LatencyHistogram {
  public:
    void add(double us);
    void merge(const LatencyHistogram& other);
    // The upper edge of the bucket holding the p-th sample (0 <= p <= 1).
    double percentile(double p) const;
    std::uint64_t count() const { return total_; }

  private:
    static constexpr int kSub = 8;
    static constexpr std::size_t kBuckets = kSub * 40;
    std::array<std::uint64_t, kBuckets> counts_{};
    std::uint64_t total_ = 0;
};

struct LoadOptions {
    int threads = 2;
    int connections = 25;  // per thread
    int pipeline = 16;     // requests in flight per connection
    double seconds = 30;
    int keys = 10'000;
};

struct LoadFigures {
    std::uint64_t requests = 0;
    std::uint64_t errors = 0;        // error replies
    std::uint64_t disconnected = 0;  // connections the server closed under the load
    LatencyHistogram latencyUs;      // one sample per pipeline round trip
};

// Runs the load against 127.0.0.1:`port` until its time is up or `stop`.
LoadFigures runLoad(std::uint16_t port, const LoadOptions& options, const std::atomic<bool>& stop);

// How many whole replies `data` starts with (at most `wanted`); `consumed`
// is their length in bytes and `errors` counts the error replies among them.
std::size_t countReplies(std::string_view data, std::size_t wanted, std::size_t& consumed,
                         std::uint64_t& errors);

}  // namespace VelikRedis
