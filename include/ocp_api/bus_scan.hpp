// Finding the devices on a bus, as data rather than printed lines, and fast.
//
// OrreryActuatorScanner::scan() pings one address at a time and waits up to
// 50 ms for each, so the whole address range takes about 14 minutes. scan_bus()
// keeps a bounded window of pings in flight instead and collects the answers
// as they arrive: with the default options the range 0x10..0x3FFE takes about
// 3.3 s, and a device that answers at any time within its 50 ms answer period
// is still found.
//
// Bus load: at most `pings_per_second` ping frames (one byte of data each) plus
// one reply per device. With the defaults that is 5000 frames/s; a ping on
// classic CAN with a 29-bit identifier is about 70 to 80 bits on the wire, so
// the scan takes about 40 % of a 1 Mbit/s bus (80 % of a 500 kbit/s one) for
// its duration. Lower `pings_per_second` on a bus that carries other traffic;
// the scan then takes (addresses / pings_per_second) seconds.
//
// On a lossy bus a ping or its answer can be lost, and that device is then not
// found in that pass. `attempts` pings the addresses still silent again, in
// further passes: with a loss rate p per frame a device is missed with
// probability (1 - (1 - p)^2)^attempts.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ocp_api/ocp.hpp"

namespace ocp_api {

// A device that answered a ping.
struct FoundDevice {
    int address = 0;
    uint16_t model_code = 0;
    std::string model;      // the model table's name; "" for an unknown code
    uint16_t firmware_word = 0;
    std::string firmware;   // "major.minor.patch"
};

// How far a scan has come; passed to BusScanOptions::on_progress.
struct ScanProgress {
    int pass = 1;               // 1 .. attempts
    std::size_t probed = 0;     // addresses of this pass that answered or whose period ran out
    std::size_t to_probe = 0;   // addresses in this pass
    std::size_t found = 0;      // devices found so far, all passes
};

struct BusScanOptions {
    // Pings waiting for their answer, at most. Also the number of receive
    // callbacks the scan holds registered at once.
    std::size_t window = 256;
    // Cap on the rate of pings sent; 0 means no cap (only the window limits).
    double pings_per_second = 5000.0;
    // How long an address has to answer its ping.
    std::chrono::milliseconds answer_period{50};
    // Passes over the addresses still silent; at least 1.
    int attempts = 1;
    // Called on the scanning thread about every 100 ms, and once when a pass
    // ends. May be empty.
    std::function<void(const ScanProgress&)> on_progress;

    // One ping at a time, no rate cap: the pace and bus load of
    // OrreryActuatorScanner::scan, with structured results.
    static BusScanOptions sequential();
};

// Pings every address of first_address..last_address (inclusive) and returns
// the devices that answered within their answer period, in ascending address
// order, each once. Returns an empty vector when first_address > last_address.
//
// For each address in flight the scan registers its own receive callback on
// `bus` (replacing one already registered there) and removes it when the
// address has answered or its period has run out; no callback of the scan is
// left registered when it returns or throws. It sends nothing but PING frames.
// The transport's receive thread only queues the answers; everything else,
// progress included, runs on the calling thread.
//
// Throws std::invalid_argument for a negative address, a window of 0, a
// negative rate or fewer than 1 attempt.
std::vector<FoundDevice> scan_bus(OCP& bus, int first_address, int last_address,
                                  const BusScanOptions& options = {});

}  // namespace ocp_api
