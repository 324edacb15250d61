#include "ocp_api/callback_registry.hpp"

#include <algorithm>
#include <thread>

namespace ocp_api {

// One registered callback and the threads currently running it.
struct CallbackRegistry::Slot {
    explicit Slot(OCP::ReceiveCallback cb) : callback(std::move(cb)) {}
    const OCP::ReceiveCallback callback;
    std::vector<std::thread::id> callers;
};

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
    const auto me = std::this_thread::get_id();
    idle_.wait(lock, [&] {
        return std::all_of(slot->callers.begin(), slot->callers.end(),
                           [&](std::thread::id caller) { return caller == me; });
    });
}

bool CallbackRegistry::dispatch(int address, std::vector<uint8_t> bytes, int kind) {
    std::shared_ptr<Slot> slot;
    const auto me = std::this_thread::get_id();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = slots_.find(address);
        if (found == slots_.end()) return false;
        slot = found->second;
        slot->callers.push_back(me);
    }
    // Leaves the caller list even when the callback throws, so remove() never
    // waits for a call that is gone.
    struct CallerGuard {
        CallbackRegistry& registry;
        Slot& slot;
        std::thread::id me;
        ~CallerGuard() {
            std::lock_guard<std::mutex> lock(registry.mutex_);
            slot.callers.erase(std::find(slot.callers.begin(), slot.callers.end(), me));
            registry.idle_.notify_all();
        }
    } guard{*this, *slot, me};
    if (slot->callback) slot->callback(address, std::move(bytes), kind);
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
