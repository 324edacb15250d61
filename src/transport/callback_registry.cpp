#include "ocp_api/callback_registry.hpp"

#include <algorithm>
#include <exception>

#include "common/diagnostics.hpp"

namespace ocp_api {

// One registered callback and the number of calls of it now running.
struct CallbackRegistry::Slot {
    explicit Slot(OCP::ReceiveCallback cb) : callback(std::move(cb)) {}
    const OCP::ReceiveCallback callback;
    int in_flight = 0;  // guarded by the registry's mutex
};

namespace {

// The slots whose callbacks this thread is running now, innermost last. A
// remove() from inside a callback must not wait for the call it is part of.
thread_local std::vector<const void*> running_here;

int calls_running_here(const void* slot) {
    return static_cast<int>(std::count(running_here.begin(), running_here.end(), slot));
}

}  // namespace

void CallbackRegistry::set(int address, OCP::ReceiveCallback callback) {
    auto slot = std::make_shared<Slot>(std::move(callback));
    std::lock_guard<std::mutex> lock(mutex_);
    slots_[address] = std::move(slot);
}

void CallbackRegistry::remove(int address) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto found = slots_.find(address);
    if (found == slots_.end()) return;
    const std::shared_ptr<Slot> slot = found->second;
    slots_.erase(found);
    wait_for_other_callers(lock, slot);
}

void CallbackRegistry::clear() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::map<int, std::shared_ptr<Slot>> removed;
    removed.swap(slots_);
    for (const auto& entry : removed) wait_for_other_callers(lock, entry.second);
}

void CallbackRegistry::wait_for_other_callers(std::unique_lock<std::mutex>& lock,
                                              const std::shared_ptr<Slot>& slot) {
    const int own_calls = calls_running_here(slot.get());
    ++waiting_removers_;
    idle_.wait(lock, [&] { return slot->in_flight == own_calls; });
    --waiting_removers_;
}

// Counts every exception a callback throws; the first is reported, the rest
// only counted, so a callback that throws on every reply cannot flood the
// terminal.
void CallbackRegistry::note_callback_error(int address, const char* what) {
    if (callback_errors_.fetch_add(1) != 0) return;
    detail::ErrorLine(detail::AfterLine::DECIMAL) << "ocp_api: a receive callback for address 0x" << std::hex << address
                                                  << " threw: " << what << "; later ones are only counted";
}

bool CallbackRegistry::dispatch(int address, std::vector<uint8_t> bytes, int kind) {
    std::shared_ptr<Slot> slot;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = slots_.find(address);
        if (found == slots_.end()) return false;
        slot = found->second;
        ++slot->in_flight;
    }
    running_here.push_back(slot.get());
    // Ends the call's bookkeeping even when the callback throws, so remove()
    // never waits for a call that is gone.
    struct CallGuard {
        CallbackRegistry& registry;
        Slot& slot;
        ~CallGuard() {
            running_here.pop_back();
            std::lock_guard<std::mutex> lock(registry.mutex_);
            --slot.in_flight;
            if (registry.waiting_removers_ > 0) registry.idle_.notify_all();
        }
    } guard{*this, *slot};
    if (!slot->callback) return true;
    try {
        slot->callback(address, std::move(bytes), kind);
    } catch (const std::exception& error) {
        note_callback_error(address, error.what());
    } catch (...) {
        note_callback_error(address, "an exception that is no std::exception");
    }
    return true;
}

bool CallbackRegistry::has(int address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return slots_.count(address) != 0;
}

std::size_t CallbackRegistry::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return slots_.size();
}

}  // namespace ocp_api
