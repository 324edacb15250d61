// Helpers for tests that run inside the VM guest (tests/vm/run-in-vm.sh):
// the interfaces it brings up, child programs such as can-utils, and waits
// on the kernel's CAN receiver lists instead of sleeps.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace ocp_vm {

// The interfaces the guest brings up: classic CAN (MTU 16) and CAN-FD (MTU 72).
std::string classic_interface();
std::string fd_interface();

// A program running as a child, its standard output collected.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv);
    ~Child();  // kills the child if it still runs
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Writes `text` to the child's standard input and closes it.
    void write_stdin(const std::string& text);
    // Waits for the child to end (killing it after `bound`) and returns
    // everything it wrote to standard output.
    std::string finish(std::chrono::seconds bound = std::chrono::seconds(30));
    int exit_status() const { return status_; }
    // Sends `signal` to the child while it runs.
    void signal(int signal) const;

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int in_ = -1;
    int status_ = -1;
};

// Runs a program to its end; returns its exit status.
int run(const std::vector<std::string>& argv);

// Receivers registered with the CAN core on `interface` (all of
// /proc/net/can/rcvlist_*).
int receivers_on(const std::string& interface);
// Waits until at least `count` receivers are registered on `interface`.
bool wait_for_receivers(const std::string& interface, int count,
                        std::chrono::seconds bound = std::chrono::seconds(30));

// Creates a vcan interface with the given MTU, up; removes it again.
void add_vcan(const std::string& interface, int mtu);
void remove_interface(const std::string& interface);
void set_interface_up(const std::string& interface, bool up);

// "0A1B..." for the bytes.
std::string hex(const unsigned char* data, std::size_t size);

}  // namespace ocp_vm
