// Whether a page is still watching. A page says so with a heartbeat four
// times a second. A hidden tab's timers are slowed down by the browser, so
// for a page that said it is hidden an event stream that still takes data
// counts too (the socket's small send buffer makes a vanished network stall
// it within seconds). Times are nanoseconds on any steady clock.
#pragma once

#include <atomic>
#include <cstdint>

namespace ocpctl::scope {

class PagePresence {
public:
    explicit PagePresence(int64_t now_ns) : last_heartbeat_ns_(now_ns) {}

    void heartbeat(int64_t now_ns, bool hidden) {
        page_hidden_.store(hidden);
        last_heartbeat_ns_.store(now_ns);
    }
    void stream_opened() { streams_.fetch_add(1); }
    void stream_closed() { streams_.fetch_sub(1); }
    void stream_wrote(int64_t now_ns) { last_stream_write_ns_.store(now_ns); }
    int streams() const { return streams_.load(); }

    bool present(int64_t now_ns, int64_t grace_ns) const {
        if (now_ns - last_heartbeat_ns_.load() < grace_ns) return true;
        return page_hidden_.load() && streams_.load() > 0 && now_ns - last_stream_write_ns_.load() < grace_ns;
    }

private:
    std::atomic<int64_t> last_heartbeat_ns_;
    std::atomic<bool> page_hidden_{false};
    std::atomic<int> streams_{0};
    std::atomic<int64_t> last_stream_write_ns_{0};
};

}  // namespace ocpctl::scope
