// A map from small integer keys (addresses) to slot numbers, for the CAN node:
// open addressing with linear probing in one array, so a lookup is a few
// instructions and nothing is allocated until the table has to grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ocp_api::can::detail {

class SlotIndex {
public:
    static constexpr uint32_t NOT_FOUND = UINT32_MAX;

    uint32_t find(uint32_t key) const {
        for (std::size_t i = home(key);; i = next(i)) {
            const Entry& entry = table_[i];
            if (entry.key == key) return entry.slot;
            if (entry.key == EMPTY) return NOT_FOUND;
        }
    }

    // `key` must not be present.
    void insert(uint32_t key, uint32_t slot) {
        if ((size_ + 1) * 2 > table_.size()) grow();
        place(key, slot);
        ++size_;
    }

    void erase(uint32_t key) {
        std::size_t hole = home(key);
        while (table_[hole].key != key) {
            if (table_[hole].key == EMPTY) return;
            hole = next(hole);
        }
        // Backward-shift deletion: later entries of the same run move into
        // the hole when their home position allows, so no tombstones pile up.
        for (std::size_t i = next(hole);; i = next(i)) {
            const Entry& entry = table_[i];
            if (entry.key == EMPTY) break;
            const std::size_t wanted = home(entry.key);
            const bool movable = hole <= i ? (wanted <= hole || wanted > i) : (wanted <= hole && wanted > i);
            if (movable) {
                table_[hole] = entry;
                hole = i;
            }
        }
        table_[hole] = Entry{};
        --size_;
    }

    std::size_t size() const { return size_; }

private:
    static constexpr uint32_t EMPTY = UINT32_MAX;
    struct Entry {
        uint32_t key = EMPTY;
        uint32_t slot = 0;
    };

    std::size_t home(uint32_t key) const { return ((key * 0x9E3779B1u) >> 7) & (table_.size() - 1); }
    std::size_t next(std::size_t i) const { return (i + 1) & (table_.size() - 1); }

    void place(uint32_t key, uint32_t slot) {
        std::size_t i = home(key);
        while (table_[i].key != EMPTY) i = next(i);
        table_[i] = Entry{key, slot};
    }

    void grow() {
        std::vector<Entry> old(table_.size() * 2);
        old.swap(table_);
        for (const Entry& entry : old)
            if (entry.key != EMPTY) place(entry.key, entry.slot);
    }

    std::vector<Entry> table_ = std::vector<Entry>(16);
    std::size_t size_ = 0;
};

}  // namespace ocp_api::can::detail
