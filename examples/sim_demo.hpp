// The simulated-bus walk-through, shared by examples/sim_demo and `ocpctl demo`.
#pragma once

// Runs the walk-through on a fresh simulated bus; returns the exit status.
int run_sim_demo();
