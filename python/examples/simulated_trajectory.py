#!/usr/bin/python3
"""The simulated actuator stepping a trajectory: no bus, no threads.

Follows a smooth position trajectory (a cosine ramp from 0 to 1 in 0.5 s)
in 0.1 ms steps, with a load torque applied half way, and prints the tracking
every 50 ms of simulated time.
"""

import math
import sys

import ocp_api

Virtual = ocp_api.OrreryActuatorVirtual


def target(t):
    return 0.5 - 0.5 * math.cos(math.pi * min(t / 0.5, 1.0))


def main(duration_s=1.0):
    joint = Virtual(0x21)
    joint.start()
    joint.change_mode(Virtual.Mode.POSITION)
    steps_per_print = 500  # 50 ms of 0.1 ms steps
    print("time_s  target    position  speed     torque")
    for step in range(int(duration_s / 0.0001)):
        t = step * 0.0001
        joint.change_setpoint(target(t))
        joint.step(0.3 if t >= duration_s / 2 else None)
        if (step + 1) % steps_per_print == 0:
            print(f"{joint.get_sim_time(3):6.3f}  {target(t):8.4f}  {joint.position:8.4f}  "
                  f"{joint.speed:8.4f}  {joint.torque:8.4f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
