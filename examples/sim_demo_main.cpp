#include "sim_demo.hpp"

int main() { return run_sim_demo(); }
